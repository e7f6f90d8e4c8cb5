// endpointregistry gc [--trustee T]... [--all-trustees] [--json]
//
// Explicit maintenance of the user's own directory (with --trustee, of the
// named ones; with --all-trustees, also of every group of the user): clears
// away the records of dead publishers, record segments that no directory
// names, names whose segment is gone and unused directory containers,
// rebuilds damaged or lost directories, names live records again, and prints
// how many of each.
#include <iostream>
#include <memory>

#include <endpointregistry/garbage_collection.hpp>

#include "command.hpp"
#include "json_text.hpp"
#include "trustee_selection.hpp"

namespace agent::spf::endpointregistry::tool {
namespace {

struct GcOptions {
  TrusteeSelection selection;
  JsonStyle json;
};

int runGc(const GcOptions& options) {
  const GarbageReport report = collectGarbage(options.selection.resolve());
  if (options.json.on()) {
    Json object = Json::object();
    object["staleRecords"] = report.staleRecords;
    object["unnamedSegments"] = report.unnamedSegments;
    object["danglingNames"] = report.danglingNames;
    object["leftoverContainers"] = report.leftoverContainers;
    object["rebuiltDirectories"] = report.rebuiltDirectories;
    object["restoredNames"] = report.restoredNames;
    std::cout << dumpJson(object, options.json.indent()) << std::endl;
  } else {
    std::cout << "cleared " << report.staleRecords << " stale record(s), " << report.unnamedSegments
              << " unnamed segment(s), " << report.danglingNames << " dangling name(s), " << report.leftoverContainers
              << " leftover container(s); rebuilt " << report.rebuiltDirectories << " directory(ies), restored "
              << report.restoredNames << " name(s)" << std::endl;
  }
  return Success;
}

}  // namespace

void addGcCommand(CLI::App& app, CommandRun& run) {
  auto options = std::make_shared<GcOptions>();
  CLI::App* command = app.add_subcommand(
      "gc", "Clear away what dead publishers and interrupted operations left; print how much of each kind");
  options->selection.addOptions(*command);
  addJsonOption(*command, options->json, "Write the counts as one JSON object");
  command->callback([options, &run] { run = [options] { return runGc(*options); }; });
}

}  // namespace agent::spf::endpointregistry::tool
