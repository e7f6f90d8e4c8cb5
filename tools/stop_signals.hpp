// SIGINT, SIGTERM and SIGHUP (the terminal closed) as requests to stop, for
// the subcommands that run until interrupted. The signals are blocked in the calling thread, and therefore
// in every thread started after it (the registry's work thread among them),
// and taken synchronously: no handler runs in the middle of a registry
// operation.
#pragma once

#include <chrono>
#include <optional>

namespace agent::spf::endpointregistry::tool {

// Blocks SIGINT, SIGTERM and SIGHUP in the calling thread. Call before the first
// registry operation, so that threads the library starts inherit the mask.
void blockStopSignals();

// Waits up to `timeout` (forever when not given) for a stop signal: the
// signal's number, or nothing when the time ran out.
std::optional<int> waitForStopSignal(std::optional<std::chrono::milliseconds> timeout = std::nullopt);

// A signalfd that becomes readable when a stop signal is pending (they
// must be blocked, see blockStopSignals()), for an event loop. Owned by the
// caller. Throws std::system_error when the kernel refuses one.
int stopSignalDescriptor();

}  // namespace agent::spf::endpointregistry::tool
