// Administration of the diagnostic output of one process: where records go
// (the sink) and which levels of which channels are produced (the filter).
//
// Sink names: "stdout", "stderr", "none" (records are dropped) and
// "file:<path>" (appended to <path>). Changing the sink flushes and closes the
// previous one. Filters read "channel=levels;channel=levels", where levels is
// "all", "none" or '|'-separated decimal bit values such as "512|256"; a
// channel not named has no level enabled, and the empty filter disables
// everything (the state at load time). A filter applies to loggers made
// before and after it. A malformed sink or filter throws
// std::invalid_argument and changes nothing.
//
// Each record becomes one line:
//   <ISO-8601 local time with microseconds> <pid>:<tid> <channel> <level>: <message>
// where <level> is the decimal bit value, or the level's name once the host
// has named the levels of that channel (setLevelNames()).
//
// Boost.Log, which writes the lines, is loaded with the first sink other
// than "none" (or the first record of an enabled level), not before.
//
// Thread safety: all operations may be called from any thread.
#pragma once

#include <map>
#include <memory>
#include <string>

namespace foundation::log::local {

class admin {
 public:
  // The process's administration object (created on first use).
  static std::shared_ptr<admin> get();

  // Selects the output sink; see the header comment for the names accepted.
  // Throws std::invalid_argument for a malformed name, std::runtime_error
  // when the Boost.Log back end cannot be loaded.
  void setSink(const std::string& sink);

  // Replaces the channel filter; see the header comment for the syntax.
  void setChannelFilter(const std::string& filter);

  // Names the levels of `channel` in the lines written from now on (an
  // empty map: numbers again). Levels without a name stay numbers.
  void setLevelNames(const std::string& channel, const std::map<unsigned, std::string>& names);

  admin(const admin&) = delete;
  admin& operator=(const admin&) = delete;
  ~admin();

 private:
  admin();
  struct state;
  std::unique_ptr<state> state_;
};

}  // namespace foundation::log::local
