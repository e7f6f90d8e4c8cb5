// The subcommands of the endpointregistry tool. Each add...Command() adds one
// subcommand with its options to the application; when the command line
// selects it, the subcommand stores the work to do in `run`, which main()
// calls once parsing has succeeded. The work returns the process's exit code
// and may throw: main() reports the exception on stderr and exits with 1.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace agent::spf::endpointregistry::tool {

// Exit codes of the tool.
enum ExitCode : int {
  Success = 0,
  Failure = 1,       // an error of the registry or of the system
  UsageError = 2,    // a bad command line
  NothingFound = 3,  // list --exit-status found no endpoint
};

using CommandRun = std::function<int()>;

// Every level of the registry's channels and of the shared-memory
// library's, as --verbose switches them on.
inline constexpr char verboseChannelFilter[] =
    "agent::spf::endpointregistry=all;detail::agent::spf::endpointregistry::endpointmoveanddestruction=all;"
    "agent::spf::sharedmemory=all";

// Whether --verbose was given (set by main() before any command runs).
extern bool verboseRequested;

void addListCommand(CLI::App& app, CommandRun& run);
// `arguments`: the whole command line, which tells whether a command to run
// came after "--".
void addPublishCommand(CLI::App& app, CommandRun& run, const std::vector<std::string>& arguments);
void addWatchCommand(CLI::App& app, CommandRun& run);
void addGroupsCommand(CLI::App& app, CommandRun& run);
void addInspectCommand(CLI::App& app, CommandRun& run);
void addGcCommand(CLI::App& app, CommandRun& run);
// Only in a tool built with the etcd bridge (ENDPOINTREGISTRY_HAVE_BRIDGE).
void addBridgeCommand(CLI::App& app, CommandRun& run);

}  // namespace agent::spf::endpointregistry::tool
