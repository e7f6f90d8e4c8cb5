// Whether a process id names a process, as seen from this process's pid
// namespace. Only a hint: the id may have been reused, and a process of
// another pid namespace is not seen at all. Liveness is judged by locks and
// claims; a pid only ever keeps something a while longer, never destroys it.
#pragma once

#include <sys/types.h>
#include <unistd.h>
#include <limits>

namespace agent::spf::endpointregistry {

// True when a process with id `pid` exists here (getpgid succeeds). Ids that
// pid_t cannot hold, and 0 (which getpgid reads as the caller), name no process.
inline bool processExists(unsigned long pid) noexcept {
  if (pid == 0 || pid > static_cast<unsigned long>(std::numeric_limits<pid_t>::max())) return false;
  return getpgid(static_cast<pid_t>(pid)) != -1;
}

}  // namespace agent::spf::endpointregistry
