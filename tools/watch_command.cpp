// endpointregistry watch [--group TAG] [--trustee T]... [--all-trustees]
//                        [--interval MS] [--json]
//
// Lists every interval and prints the changes: "+ FIRST SECOND" for an
// endpoint that appeared, "- FIRST SECOND" for one that disappeared (the
// endpoints found by the first listing all appear). With --json each change
// is one line {"event": "appeared" | "disappeared", "first", "second"}.
// Runs until SIGINT or SIGTERM, then exits with status 0. Each listing also
// clears away the records of publishers that died.
#include <algorithm>
#include <chrono>
#include <iostream>
#include <iterator>
#include <memory>
#include <set>

#include "command.hpp"
#include "json_text.hpp"
#include "stop_signals.hpp"
#include "text_escape.hpp"
#include "trustee_selection.hpp"

namespace agent::spf::endpointregistry::tool {
namespace {

using Pair = std::pair<std::string, std::string>;

struct WatchOptions {
  std::string groupTag;
  TrusteeSelection selection;
  unsigned intervalMilliseconds = 1000;
  bool json = false;
};

void printChange(const WatchOptions& options, bool appeared, const Pair& pair) {
  if (options.json) {
    Json line = {{"event", appeared ? "appeared" : "disappeared"}};
    addTexts(line, {{"first", &pair.first}, {"second", &pair.second}});
    std::cout << dumpJson(line, -1) << '\n';
  } else {
    std::cout << (appeared ? "+ " : "- ") << displayText(pair.first) << ' ' << displayText(pair.second) << '\n';
  }
}

int runWatch(const WatchOptions& options) {
  blockStopSignals();
  std::set<Pair> shown;
  for (;;) {
    const auto listed = listEndpoints(options.groupTag, options.selection);
    const std::set<Pair> current(listed.begin(), listed.end());
    std::vector<Pair> gone;
    std::vector<Pair> added;
    std::set_difference(shown.begin(), shown.end(), current.begin(), current.end(), std::back_inserter(gone));
    std::set_difference(current.begin(), current.end(), shown.begin(), shown.end(), std::back_inserter(added));
    for (const Pair& pair : gone) printChange(options, false, pair);
    for (const Pair& pair : added) printChange(options, true, pair);
    std::cout.flush();
    shown = current;
    if (waitForStopSignal(std::chrono::milliseconds(options.intervalMilliseconds))) return Success;
  }
}

}  // namespace

void addWatchCommand(CLI::App& app, CommandRun& run) {
  auto options = std::make_shared<WatchOptions>();
  CLI::App* command = app.add_subcommand("watch", "Print endpoints as they appear and disappear, until interrupted");
  command->add_option("--group", options->groupTag, "Only endpoints of this group tag")->type_name("TAG");
  options->selection.addOptions(*command);
  command->add_option("--interval", options->intervalMilliseconds, "Milliseconds between listings (default 1000)")
      ->type_name("MS")
      ->check(CLI::Range(1u, 3'600'000u));
  command->add_flag("--json", options->json, "Write one JSON object per change and line");
  command->callback([options, &run] { run = [options] { return runWatch(*options); }; });
}

}  // namespace agent::spf::endpointregistry::tool
