#include "diagnostic.hpp"

#include <climits>
#include <cstdio>

namespace agent::spf::sharedmemory::detail {

namespace {
const char* const channelName = "agent::spf::sharedmemory";
}  // namespace

DiagnosticLogger& logger() {
  static DiagnosticLogger channel(channelName);
  return channel;
}

const foundation::log::channel_levels& levels() {
  static const foundation::log::channel_levels channel(channelName);
  return channel;
}

std::string printable(const std::string& name) {
  std::string text;
  const std::size_t shown = name.size() > NAME_MAX ? NAME_MAX : name.size();
  for (std::size_t i = 0; i < shown; ++i) {
    const auto byte = static_cast<unsigned char>(name[i]);
    if (byte < 0x20 || byte == 0x7f || byte == '\\') {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(byte));
      text += escaped;
    } else {
      text += static_cast<char>(byte);
    }
  }
  if (shown < name.size()) text += "...";
  return text;
}

void logFailure(const char* operation, const Scope& scope, bool scopeKnown, const std::string& name,
                const std::string& trustee, const Outcome& outcome) noexcept {
  if (!logEnabled(outcome.logLevel())) return;
  try {
    if (scopeKnown) {
      logLine(outcome.logLevel(), operation, ": ", scope.path, "/", printable(name), ": ", outcome.reason);
    } else {
      logLine(outcome.logLevel(), operation, ": \"", printable(name), "\" of trustee \"", printable(trustee),
              "\": ", outcome.reason);
    }
  } catch (...) {
    // No memory for the text; the line is dropped.
  }
}

void logHandleFailure(const char* operation, const std::string& scopePath, const std::string& name,
                      const Outcome& outcome) noexcept {
  if (!logEnabled(outcome.logLevel())) return;
  try {
    logLine(outcome.logLevel(), operation, ": ", scopePath, "/", printable(name), ": ", outcome.reason);
  } catch (...) {
    // No memory for the text; the line is dropped.
  }
}

}  // namespace agent::spf::sharedmemory::detail
