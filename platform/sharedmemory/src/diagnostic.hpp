// The library's log channel "agent::spf::sharedmemory" and how its lines
// read.
//
// Levels: 256 for a segment that is missing or refused, 512 for a failed
// system call. Every function here tests the level bit first, so a disabled
// level builds no text and takes no lock, and none throws (a line that
// cannot be written is dropped), so they may be used in destructors.
#pragma once

#include <string>

#include <foundation/log/diagnostic_logger.hpp>
#include <foundation/log/log_message.hpp>

#include "scope.hpp"

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

// Writes one line of `level` made of `pieces` back to back on the channel.
template <typename... Pieces>
void logLine(unsigned level, const Pieces&... pieces) noexcept {
  if (!logEnabled(level)) return;
  try {
    foundation::log::logMessage(logger(), level, pieces...);
  } catch (...) {
    // A diagnostic line is never worth failing the operation it describes.
  }
}

// The name as it may appear in a log line: control bytes escaped, cut short
// when longer than a name may be.
std::string printable(const std::string& name);

// Logs the failure of `operation` (create, find, createOrFind) on segment
// `name`: under its scope folder when the scope is known, else under the
// trustee's name.
void logFailure(const char* operation, const Scope& scope, bool scopeKnown, const std::string& name,
                const std::string& trustee, const Outcome& outcome) noexcept;

// Logs a failure of a handle's own operation (release, markForDeletion).
void logHandleFailure(const char* operation, const std::string& scopePath, const std::string& name,
                      const Outcome& outcome) noexcept;

}  // namespace agent::spf::sharedmemory::detail
