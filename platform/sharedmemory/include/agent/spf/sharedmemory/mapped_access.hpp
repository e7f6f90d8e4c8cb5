// Access to mapped segments that another process may truncate at any moment.
//
// A segment is a file in /dev/shm that every process of its trustee may
// resize. A process that touches a page of its mapping that now lies beyond
// the end of the file would die of SIGBUS. While a MappedAccess lives on a
// thread, such a fault is turned into a read or write of a page of zeros,
// private to this process: the access goes on, sees zeros (a free row, a
// clear flag, an unlocked mutex of the plain kind) and the caller falls back
// as it does for any damaged segment. Each repair is counted
// (repairedFaults), so that a caller can tell that its view was cut.
//
// The library installs its SIGBUS handler on the first MappedAccess of the
// process, keeping the handler that was there before: a SIGBUS outside a
// MappedAccess, or one that cannot be repaired, goes to that handler (or, if
// there was none, ends the process as it would have). An application that
// installs a SIGBUS handler of its own later should chain to the one it
// replaces in the same way, or it takes this protection away.
//
// Thread rules: a MappedAccess belongs to the thread that made it; scopes
// nest. repairedFaults() may be called from any thread.
#pragma once

#include <cstdint>

namespace agent::spf::sharedmemory {

class MappedAccess {
 public:
  MappedAccess() noexcept;
  ~MappedAccess();
  MappedAccess(const MappedAccess&) = delete;
  MappedAccess& operator=(const MappedAccess&) = delete;
};

// How many faults on truncated segments this process has repaired so far.
std::uint64_t repairedFaults() noexcept;

}  // namespace agent::spf::sharedmemory
