// Writing one diagnostic record.
//
// logMessage() is the one way the libraries write a line: it tests the level
// bit first, so a disabled level builds no text and takes no lock, and then
// writes the pieces one after another into a single record, with nothing
// between them (numbers in decimal). A record whose text throws while it is
// made is dropped, not pushed half-written.
//
// Throws what making the record or its text throws (std::bad_alloc, say);
// callers that must not throw wrap it. Any thread may call it.
#pragma once

#include <exception>
#include <utility>

#include <boost/log/core/core.hpp>
#include <boost/log/sources/record_ostream.hpp>

namespace foundation::log {

// Emits one record of `level` on `logger` (a basic_diagnostic_logger), made
// of `pieces` written back to back.
template <typename Logger, typename... Pieces>
void logMessage(Logger& logger, unsigned level, const Pieces&... pieces) {
  if (!logger.isEnabled(level)) return;
  if (!boost::log::core::get()->get_logging_enabled()) return;
  boost::log::record record = logger.open_record(boost::log::keywords::severity = level);
  if (!record) return;
  const int exceptionsBefore = std::uncaught_exceptions();
  {
    boost::log::record_ostream stream(record);
    (stream << ... << pieces);
    stream.flush();
  }
  if (std::uncaught_exceptions() > exceptionsBefore) return;
  logger.push_record(std::move(record));
}

}  // namespace foundation::log
