// Writing one diagnostic record.
//
// logMessage() is the one way the libraries write a line: it tests the level
// bit first, so a disabled level builds no text, takes no lock and loads
// nothing; then it asks whether the logging core takes records at all
// (loading the Boost.Log back end on first need), writes the pieces one
// after another, with nothing between them (numbers in decimal), and hands
// the text to the core as a single record. A record whose text throws while
// it is made is dropped, not pushed half-written.
//
// Throws what making the record or its text throws (std::bad_alloc, say);
// callers that must not throw wrap it. Any thread may call it.
#pragma once

#include <sstream>
#include <string>

namespace foundation::log {

// Emits one record of `level` on `logger` (a basic_diagnostic_logger), made
// of `pieces` written back to back.
template <typename Logger, typename... Pieces>
void logMessage(Logger& logger, unsigned level, const Pieces&... pieces) {
  if (!logger.isEnabled(level)) return;
  if (!logger.acceptsRecords()) return;
  std::ostringstream stream;
  (stream << ... << pieces);
  logger.write(level, std::move(stream).str());
}

}  // namespace foundation::log
