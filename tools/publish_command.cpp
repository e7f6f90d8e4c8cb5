// endpointregistry publish FIRST SECOND --group TAG [--trustee GROUP]...
//
// Publishes one endpoint and holds it until SIGINT, SIGTERM or SIGHUP (the
// terminal closed), then withdraws it; a reader of its output that goes
// (`publish ... | true`) does not end it. Prints "live: FIRST SECOND (group TAG)" once the endpoint can be found,
// and "withdrawn: FIRST SECOND" after it is gone. The library's refusals (a
// duplicate, a trustee that is not one of the user's groups, empty data)
// reach main() as exceptions and end the tool with status 1.
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <endpointregistry/endpoint.hpp>

#include "command.hpp"
#include "stop_signals.hpp"
#include "text_escape.hpp"

namespace agent::spf::endpointregistry::tool {
namespace {

struct PublishOptions {
  std::string first;
  std::string second;
  std::string groupTag;
  std::vector<std::string> trustees;
};

std::string describe(const PublishOptions& options) {
  return displayText(options.first) + " " + displayText(options.second);
}

int runPublish(const PublishOptions& options) {
  blockStopSignals();
  Endpoint endpoint = Endpoint::publish(options.first, options.second, options.groupTag);
  if (!options.trustees.empty()) {
    endpoint.addTrustees(std::set<std::string>(options.trustees.begin(), options.trustees.end()));
  }

  std::string details = "group " + displayText(options.groupTag);
  for (const std::string& trustee : endpoint.getTrustees()) details += ", trustee " + displayText(trustee);
  std::cout << "live: " << describe(options) << " (" << details << ")" << std::endl;

  waitForStopSignal();
  endpoint.reset();
  std::cout << "withdrawn: " << describe(options) << std::endl;
  return Success;
}

}  // namespace

void addPublishCommand(CLI::App& app, CommandRun& run) {
  auto options = std::make_shared<PublishOptions>();
  CLI::App* command = app.add_subcommand("publish", "Publish an endpoint and hold it until SIGINT, SIGTERM or SIGHUP");
  command->add_option("FIRST", options->first, "First data string")->required();
  command->add_option("SECOND", options->second, "Second data string")->required();
  command->add_option("--group", options->groupTag, "Group tag to publish under")->type_name("TAG")->required();
  command
      ->add_option("--trustee", options->trustees, "Also publish for the members of this group of yours (repeatable)")
      ->type_name("GROUP")
      ->allow_extra_args(false);
  command->callback([options, &run] { run = [options] { return runPublish(*options); }; });
}

}  // namespace agent::spf::endpointregistry::tool
