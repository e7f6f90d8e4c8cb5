// The library's log channel "agent::spf::sharedmemory" and the one routine
// that writes a line on it.
//
// Levels: 256 for a segment that is missing or refused, 512 for a failed
// system call. logMessage() tests the level bit first, so a disabled level
// builds no text and takes no lock; it never throws (a line that cannot be
// written is dropped), so it may be used in destructors.
#pragma once

#include <exception>
#include <utility>

#include <boost/log/core/core.hpp>
#include <foundation/log/diagnostic_logger.hpp>

namespace agent::spf::sharedmemory::detail {

using DiagnosticLogger = foundation::log::basic_diagnostic_logger<char>;

// The logger of the channel "agent::spf::sharedmemory", made on first use,
// which is the first line to be written: levels are tested without it.
DiagnosticLogger& logger();

// The channel's enabled levels.
const foundation::log::channel_levels& levels();

// True when lines of `level` are written now.
inline bool logEnabled(unsigned level) noexcept {
  try {
    return levels().isEnabled(level);
  } catch (...) {
    return false;
  }
}

// Emits one record of `level` made of `pieces` written back to back.
template <typename... Pieces>
void logMessage(unsigned level, const Pieces&... pieces) noexcept {
  try {
    if (!levels().isEnabled(level)) return;
    DiagnosticLogger& channel = logger();
    if (!boost::log::core::get()->get_logging_enabled()) return;
    boost::log::record record = channel.open_record(boost::log::keywords::severity = level);
    if (!record) return;
    {
      boost::log::record_ostream stream(record);
      (stream << ... << pieces);
      stream.flush();
    }
    channel.push_record(std::move(record));
  } catch (...) {
    // A diagnostic line is never worth failing the operation it describes.
  }
}

}  // namespace agent::spf::sharedmemory::detail
