// endpointregistry watch [--group TAG] [--trustee T]... [--all-trustees]
//                        [--interval MS] [--json] [--timestamps]
//
// Prints the changes as they happen: "+ FIRST SECOND" for an endpoint that
// appeared, "- FIRST SECOND" for one that disappeared (a string with a blank
// or a quote in double quotes). The endpoints live at the start all appear
// first, then a line "ready" says that all of them are out. With --json each
// line is an object {"event": "appeared" | "disappeared", "first", "second"},
// and {"event": "ready"}; --timestamps begins each line with the time in UTC
// (JSON: a "time" field). Woken by the library's
// Watcher (folder events, and the kernel's wake-up when a publisher dies):
// nothing is polled. --interval MS adds a safety re-listing every MS
// milliseconds, off by default. Runs until SIGINT, SIGTERM or SIGHUP, or
// until the reader of its output goes, then exits with status 0. Like a listing, it clears away the records of
// publishers that died.
#include <poll.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <iostream>
#include <memory>
#include <optional>
#include <set>
#include <system_error>

#include <endpointregistry/watcher.hpp>

#include "command.hpp"
#include "json_text.hpp"
#include "option_checks.hpp"
#include "stop_signals.hpp"
#include "text_escape.hpp"
#include "timestamp.hpp"
#include "trustee_selection.hpp"

namespace agent::spf::endpointregistry::tool {
namespace {

using Pair = std::pair<std::string, std::string>;

struct WatchOptions {
  std::string groupTag;
  TrusteeSelection selection;
  std::optional<unsigned> intervalMilliseconds;
  bool json = false;
  bool timestamps = false;
};

// One line of output: the event, the pair (none for "ready").
void printLine(const WatchOptions& options, const char* event, const Pair* pair) {
  const std::string time = options.timestamps ? utcTimestamp(std::chrono::system_clock::now()) : std::string();
  if (options.json) {
    Json line = {{"event", event}};
    if (options.timestamps) line["time"] = time;
    if (pair) addTexts(line, {{"first", &pair->first}, {"second", &pair->second}});
    std::cout << dumpJson(line, -1) << '\n';
    return;
  }
  if (options.timestamps) std::cout << time << ' ';
  if (!pair) {
    std::cout << event << '\n';
    return;
  }
  std::cout << (std::string(event) == "appeared" ? "+ " : "- ") << quotedWord(pair->first) << ' '
            << quotedWord(pair->second) << '\n';
}

// The pairs shown so far; a change is printed only when it changes them, so
// that a safety re-listing and the watcher never print one change twice.
class Shown {
 public:
  explicit Shown(const WatchOptions& options) : options(options) {}

  void change(bool appeared, const Pair& pair) {
    if (appeared ? !pairs.insert(pair).second : pairs.erase(pair) == 0) return;
    printLine(options, appeared ? "appeared" : "disappeared", &pair);
  }

  // Prints the difference between what is shown and a full listing.
  void relist(const std::vector<Pair>& listed) {
    const std::set<Pair> now(listed.begin(), listed.end());
    const std::set<Pair> before = pairs;
    for (const Pair& pair : before) {
      if (now.count(pair) == 0) change(false, pair);
    }
    for (const Pair& pair : now) change(true, pair);
  }

 private:
  const WatchOptions& options;
  std::set<Pair> pairs;
};

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd(fd) {}
  ~Descriptor() { close(fd); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  const int fd;
};

int runWatch(const WatchOptions& options) {
  blockStopSignals();
  const Descriptor stop(stopSignalDescriptor());
  Watcher watcher(options.groupTag, options.selection.resolve());
  Shown shown(options);
  for (bool first = true;; first = false) {
    for (const EndpointChange& event : watcher.changes()) {
      shown.change(event.kind == EndpointChange::Appeared, event.data);
    }
    if (first) printLine(options, "ready", nullptr);
    std::cout.flush();
    // Standard output is polled for nothing but its errors: a pipe whose
    // reader went (`watch | head -2`) reports POLLERR at once.
    pollfd waits[3] = {{stop.fd, POLLIN, 0}, {watcher.fileDescriptor(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    const int timeout = options.intervalMilliseconds ? static_cast<int>(*options.intervalMilliseconds) : -1;
    const int ready = poll(waits, 3, timeout);
    if (ready < 0 && errno != EINTR) throw std::system_error(errno, std::generic_category(), "poll");
    if ((waits[0].revents & POLLIN) != 0) return Success;
    if ((waits[2].revents & (POLLERR | POLLHUP)) != 0 || !std::cout) return Success;
    if (ready == 0) {
      shown.relist(listEndpoints(options.groupTag, options.selection));
      std::cout.flush();
    }
  }
}

}  // namespace

void addWatchCommand(CLI::App& app, CommandRun& run) {
  auto options = std::make_shared<WatchOptions>();
  CLI::App* command = app.add_subcommand("watch", "Print endpoints as they appear and disappear, until interrupted");
  command->add_option("--group", options->groupTag, "Only endpoints of this group tag")->type_name("TAG");
  options->selection.addOptions(*command);
  command
      ->add_option("--interval", options->intervalMilliseconds,
                   "Also list everything again every MS milliseconds, as a safety net (off by default: changes are "
                   "reported as they happen)")
      ->type_name("MS")
      ->check(wholeNumber(1, 3'600'000, "milliseconds"));
  command->add_flag("--json", options->json, "Write one JSON object per change and line");
  command->add_flag("--timestamps", options->timestamps, "Begin each line with the time (UTC, microseconds)");
  command->callback([options, &run] { run = [options] { return runWatch(*options); }; });
}

}  // namespace agent::spf::endpointregistry::tool
