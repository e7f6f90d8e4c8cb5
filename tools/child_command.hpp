// Running a command while the tool holds something for it (publish ... --
// COMMAND): the command inherits the tool's standard streams and
// environment, the tool's stop signals (SIGINT, SIGTERM, SIGHUP) are passed
// on to it, and its end ends the wait.
#pragma once

#include <string>
#include <vector>

namespace agent::spf::endpointregistry::tool {

// Runs `command` (looked up on PATH) and waits for it, passing on every
// stop signal the tool receives meanwhile. The stop signals must be blocked
// (blockStopSignals()). Returns the command's exit status, 128 + the signal
// that ended it, or 127 when it could not be started (its reason on
// stderr). Throws std::system_error when no process can be made.
int runCommand(const std::vector<std::string>& command);

}  // namespace agent::spf::endpointregistry::tool
