// endpointregistry groups
//
// The names of the current user's groups, one per line: the names that may
// be trustees of an endpoint, and whose directories --all-trustees reads.
// With none, standard output stays empty and stderr says why.
#include <iostream>

#include "command.hpp"
#include "discovery/current_user_groups.hpp"
#include "text_escape.hpp"

namespace agent::spf::endpointregistry::tool {
namespace {

int runGroups() {
  const std::set<std::string> groups = getCurrentUserGroups();
  for (const std::string& group : groups) std::cout << displayText(group) << '\n';
  std::cout.flush();
  // Nothing on standard output, as scripts expect; people are told why.
  if (groups.empty())
    std::cerr << "endpointregistry: you have no supplementary groups, and only those can be trustees\n";
  return Success;
}

}  // namespace

void addGroupsCommand(CLI::App& app, CommandRun& run) {
  CLI::App* command = app.add_subcommand("groups", "List your groups: the names that may be trustees");
  command->callback([&run] { run = runGroups; });
}

}  // namespace agent::spf::endpointregistry::tool
