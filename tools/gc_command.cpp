// endpointregistry gc [--all-trustees]
//
// One listing pass over the user's own directory (with --all-trustees, also
// over the directories of every group of the user): the listing clears away
// the records of publishers that died. Prints how many stale records were
// cleared: those that were stale before the pass and whose names are gone
// from their directory after it.
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include <endpointregistry/endpoint.hpp>

#include "command.hpp"
#include "raw_directory.hpp"
#include "record_view.hpp"
#include "trustee_selection.hpp"

namespace agent::spf::endpointregistry::tool {
namespace {

using TrusteeAndName = std::pair<std::string, std::string>;

std::set<TrusteeAndName> recordNames(const std::set<std::string>& trustees, bool staleOnly) {
  std::set<TrusteeAndName> names;
  for (const std::string& trustee : trustees) {
    for (const RawRow& row : readRawDirectory(trustee).rows) {
      if (row.strings.size() != 1) continue;
      if (staleOnly && viewRecord(row, trustee).state != "Stale") continue;
      names.emplace(trustee, row.strings.front());
    }
  }
  return names;
}

int runGc(const TrusteeSelection& selection) {
  const std::set<std::string> trustees = selection.resolve();
  const std::set<TrusteeAndName> staleBefore = recordNames(trustees, true);
  (void)Endpoint::filter("", trustees);
  const std::set<TrusteeAndName> namesAfter = recordNames(trustees, false);
  std::size_t cleared = 0;
  for (const TrusteeAndName& name : staleBefore) cleared += namesAfter.count(name) == 0 ? 1 : 0;
  std::cout << "cleared " << cleared << " stale record(s)" << std::endl;
  return Success;
}

}  // namespace

void addGcCommand(CLI::App& app, CommandRun& run) {
  auto selection = std::make_shared<TrusteeSelection>();
  CLI::App* command = app.add_subcommand("gc", "Clear away the records of dead publishers; print how many");
  selection->addAllTrusteesOption(*command);
  command->callback([selection, &run] { run = [selection] { return runGc(*selection); }; });
}

}  // namespace agent::spf::endpointregistry::tool
