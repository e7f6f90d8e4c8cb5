// endpointregistry list [--group TAG] [--trustee T]... [--all-trustees]
//                       [--json] [--exit-status]
//
// The live endpoints as the library's listing returns them: sorted, each
// pair once. A table for people, or a JSON array of {"first", "second"}.
#include <iostream>
#include <memory>

#include "command.hpp"
#include "json_text.hpp"
#include "table.hpp"
#include "text_escape.hpp"
#include "trustee_selection.hpp"

namespace agent::spf::endpointregistry::tool {
namespace {

struct ListOptions {
  std::string groupTag;
  TrusteeSelection selection;
  bool json = false;
  bool exitStatus = false;
};

int runList(const ListOptions& options) {
  const auto endpoints = listEndpoints(options.groupTag, options.selection);
  if (options.json) {
    Json array = Json::array();
    for (const auto& pair : endpoints) array.push_back(pairToJson(pair));
    std::cout << dumpJson(array, 2) << std::endl;
  } else {
    Table table({"FIRST", "SECOND"});
    for (const auto& [first, second] : endpoints) table.addRow({displayText(first), displayText(second)});
    table.print(std::cout);
    std::cout.flush();
  }
  if (options.exitStatus && endpoints.empty()) return NothingFound;
  return Success;
}

}  // namespace

void addListCommand(CLI::App& app, CommandRun& run) {
  auto options = std::make_shared<ListOptions>();
  CLI::App* command = app.add_subcommand("list", "List the live endpoints");
  command->add_option("--group", options->groupTag, "Only endpoints of this group tag")->type_name("TAG");
  options->selection.addOptions(*command);
  command->add_flag("--json", options->json, "Write a JSON array of {\"first\", \"second\"} objects");
  command->add_flag("--exit-status", options->exitStatus, "Exit with status 3 when no endpoint is found");
  command->callback([options, &run] { run = [options] { return runList(*options); }; });
}

}  // namespace agent::spf::endpointregistry::tool
