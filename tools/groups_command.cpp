// endpointregistry groups
//
// The names of the current user's groups, one per line: the names that may
// be trustees of an endpoint, and whose directories --all-trustees reads.
#include <iostream>

#include "command.hpp"
#include "discovery/current_user_groups.hpp"
#include "text_escape.hpp"

namespace agent::spf::endpointregistry::tool {
namespace {

int runGroups() {
  for (const std::string& group : getCurrentUserGroups()) std::cout << displayText(group) << '\n';
  std::cout.flush();
  return Success;
}

}  // namespace

void addGroupsCommand(CLI::App& app, CommandRun& run) {
  CLI::App* command = app.add_subcommand("groups", "List your groups: the names that may be trustees");
  command->callback([&run] { run = runGroups; });
}

}  // namespace agent::spf::endpointregistry::tool
