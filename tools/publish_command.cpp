// endpointregistry publish FIRST SECOND --group TAG [--trustee GROUP]... [-- COMMAND [ARGS]...]
//
// Publishes one endpoint and holds it until SIGINT, SIGTERM or SIGHUP (the
// terminal closed), then withdraws it; a reader of its output that goes
// (`publish ... | true`) does not end it. Prints "live: FIRST SECOND (group TAG)" once the endpoint can be found,
// and "withdrawn: FIRST SECOND" after it is gone. The library's refusals (a
// duplicate, a trustee that is not one of the user's groups, empty data)
// reach main() as exceptions and end the tool with status 1.
//
// With a COMMAND, the endpoint is held exactly while the command runs: it
// is published first, the command is started (stop signals are passed on to
// it), and once it ends the endpoint is withdrawn and the tool exits with the
// command's status. When NOTIFY_SOCKET is set (a systemd service of
// Type=notify), the tool tells systemd "READY=1" once the endpoint is live.
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <endpointregistry/endpoint.hpp>

#ifdef ENDPOINTREGISTRY_HAVE_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

#include <agent/spf/sharedmemory/shared_memory.hpp>

#include "child_command.hpp"
#include "command.hpp"
#include "directory/segment_names.hpp"
#include "stop_signals.hpp"
#include "text_escape.hpp"
#include "trustee_selection.hpp"

namespace agent::spf::endpointregistry::tool {
namespace {

struct PublishOptions {
  std::string first;
  std::string second;
  std::string groupTag;
  std::vector<std::string> trustees;
  std::vector<std::string> command;
};

// Tells systemd that the service is ready, when it asks (NOTIFY_SOCKET).
void notifyReady() {
#ifdef ENDPOINTREGISTRY_HAVE_SYSTEMD
  if (std::getenv("NOTIFY_SOCKET") != nullptr) (void)sd_notify(0, "READY=1");
#endif
}

std::string describe(const PublishOptions& options) {
  return displayText(options.first) + " " + displayText(options.second);
}

// The library's refusal of a duplicate, with what the tool knows around it:
// the endpoint, and the process that holds it in the user's own scope.
[[noreturn]] void refuseDuplicate(const PublishOptions& options, const std::exception& error) {
  std::string holder;
  const auto names =
      agent::spf::sharedmemory::listSegmentNames("", synonymPrefix({options.first, options.second}, options.groupTag));
  if (!names.empty()) holder = " by process " + std::to_string(recordPid(names.front()));
  throw std::runtime_error("endpoint " + describe(options) + " (group " + displayText(options.groupTag) +
                           ") is already published" + holder + ": " + error.what());
}

int runPublish(const PublishOptions& options) {
  blockStopSignals();
  if (!options.command.empty()) {
    // Before the library starts threads, so that they inherit it blocked and
    // the command's end is told to the thread that waits for it.
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &child, nullptr);
  }
  for (const std::string& trustee : options.trustees) checkTrustee(trustee);
  Endpoint endpoint;
  try {
    endpoint = Endpoint::publish(options.first, options.second, options.groupTag);
  } catch (const Endpoint::DuplicateEndpointError& error) {
    refuseDuplicate(options, error);
  }
  if (!options.trustees.empty()) {
    endpoint.addTrustees(std::set<std::string>(options.trustees.begin(), options.trustees.end()));
  }

  std::string details = "group " + displayText(options.groupTag);
  for (const std::string& trustee : endpoint.getTrustees()) details += ", trustee " + displayText(trustee);
  std::cout << "live: " << describe(options) << " (" << details << ")" << std::endl;
  notifyReady();

  const int status = options.command.empty() ? (waitForStopSignal(), Success) : runCommand(options.command);
  endpoint.reset();
  std::cout << "withdrawn: " << describe(options) << std::endl;
  return status;
}

}  // namespace

void addPublishCommand(CLI::App& app, CommandRun& run, const std::vector<std::string>& arguments) {
  auto options = std::make_shared<PublishOptions>();
  CLI::App* command = app.add_subcommand("publish", "Publish an endpoint and hold it until SIGINT, SIGTERM or SIGHUP");
  command->add_option("FIRST", options->first, "First data string")->required();
  command->add_option("SECOND", options->second, "Second data string")->required();
  command->add_option("--group", options->groupTag, "Group tag to publish under")->type_name("TAG")->required();
  command
      ->add_option("--trustee", options->trustees, "Also publish for the members of this group of yours (repeatable)")
      ->type_name("GROUP")
      ->allow_extra_args(false);
  command->add_option("COMMAND", options->command,
                      "After --: a command to run; the endpoint is held while it runs, and its exit status is the "
                      "tool's");
  command->callback([options, &run, &arguments] {
    // A command goes after "--"; a third word before it is a mistake.
    const auto separator = std::find(arguments.begin(), arguments.end(), "--");
    const std::vector<std::string> tail(separator == arguments.end() ? arguments.end() : separator + 1,
                                        arguments.end());
    // ("publish --group TAG -- FIRST SECOND" passes data strings that begin
    // with '-': then no command follows.)
    if (!options->command.empty() && options->command != tail) {
      throw CLI::ValidationError("unexpected word '" + options->command.front() +
                                 "' (a command to run goes after --: publish FIRST SECOND --group TAG -- COMMAND)");
    }
    run = [options] { return runPublish(*options); };
  });
}

}  // namespace agent::spf::endpointregistry::tool
