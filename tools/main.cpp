// endpointregistry: the command-line tool of the endpoint registry.
//
// Subcommands list, publish, watch, groups, inspect and gc (command.hpp), and
// bridge when the etcd bridge is built.
// Global options: --verbose sends the library's diagnostics to stderr,
// --version prints the version, --help works at every level. Exit codes:
// 0 success, 1 an error (its message on stderr), 2 a bad command line, 3 when
// list --exit-status finds nothing.
#include <csignal>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <foundation/log/admin.hpp>

#include "command.hpp"
#include "first_word.hpp"
#include "option_checks.hpp"

namespace {

using namespace agent::spf::endpointregistry::tool;

void enableVerboseDiagnostics() {
  auto admin = foundation::log::local::admin::get();
  try {
    admin->setSink("stderr");
  } catch (const std::runtime_error& error) {
    // The logging library's Boost.Log back end is missing or broken: the
    // command itself does not need it.
    std::cerr << "endpointregistry: warning: --verbose: " << error.what() << "; going on without diagnostics"
              << std::endl;
    return;
  }
  admin->setChannelFilter(verboseChannelFilter);
  // Names, not bit values: "refused" lines are requests turned down (a
  // segment that is missing, say), most of them expected, not failures.
  admin->setLevelNames("agent::spf::endpointregistry", {{16, "exception"}, {256, "refused"}, {512, "error"}});
  admin->setLevelNames("detail::agent::spf::endpointregistry::endpointmoveanddestruction", {{4, "lifetime"}});
  admin->setLevelNames("agent::spf::sharedmemory", {{256, "refused"}, {512, "error"}});
  admin->setLevelNames("agent::spf::endpointregistry::bridge", {{32, "activity"}, {256, "trouble"}, {512, "error"}});
}

}  // namespace

namespace agent::spf::endpointregistry::tool {
bool verboseRequested = false;
}  // namespace agent::spf::endpointregistry::tool

int main(int argc, char** argv) {
  // A reader that goes makes writes fail instead of killing the tool: publish
  // keeps its endpoint, watch ends cleanly.
  std::signal(SIGPIPE, SIG_IGN);
  CLI::App app("Publish and discover endpoints in the shared-memory registry", "endpointregistry");
  app.set_version_flag("--version", "endpointregistry " ENDPOINTREGISTRY_VERSION);
  bool verbose = false;
  app.add_flag("-v,--verbose", verbose, "Write the library's diagnostics to stderr");
  app.require_subcommand(1);
  app.fallthrough();
  app.failure_message([](const CLI::App* failed, const CLI::Error& error) {
    std::string message = unexpectedArgumentMessage(*failed, error);
    if (message.empty()) message = repeatedOptionMessage(*failed, error);
    if (message.empty()) message = error.what();
    return "endpointregistry: " + message + "\nRun with --help for more information.\n";
  });

  CommandRun run;
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  addListCommand(app, run);
  addPublishCommand(app, run, arguments);
  addWatchCommand(app, run);
  addGroupsCommand(app, run);
  addInspectCommand(app, run);
  addGcCommand(app, run);
#ifdef ENDPOINTREGISTRY_HAVE_BRIDGE
  addBridgeCommand(app, run);
#endif

  std::vector<std::string> subcommands;
  for (const CLI::App* command : app.get_subcommands({})) subcommands.push_back(command->get_name());
  const FirstWord first = checkFirstWord(arguments, subcommands);
  if (first.kind == FirstWord::Help) {
    std::cout << app.help();
    return Success;
  }
  if (first.kind == FirstWord::Wrong) {
    std::cerr << "endpointregistry: " << first.message << "\nRun with --help for more information.\n";
    return UsageError;
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int code = app.exit(error);
    return code == 0 ? Success : UsageError;
  }

  try {
    verboseRequested = verbose;
    if (verbose) enableVerboseDiagnostics();
    return run();
  } catch (const std::exception& error) {
    std::cout.flush();
    std::cerr << "endpointregistry: error: " << error.what() << std::endl;
    return Failure;
  }
}
