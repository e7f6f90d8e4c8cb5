// Publishing again what this process lost from the registry: a record whose
// segment was removed, replaced or cut short, or whose bytes were
// overwritten, is published anew under its name (a new segment, locked and
// flagged); a record whose name left its directory (or whose directory was
// lost) is named again, which rebuilds a lost directory from every live
// record in its scope folder.
//
// A record whose own bytes were cut or overwritten may have broken the list
// of robust mutexes that its work thread keeps through the records it holds,
// so the kernel could not mark the others owner-dead if the process died.
// That lane is taken out of service and every record it holds is published
// anew on another (their old locks are never touched again).
#pragma once

#include <set>
#include <string>

namespace agent::spf::endpointregistry::healing {

struct HealingOutcome {
  bool succeeded = true;                  // nothing failed; else worth another try
  std::set<std::string> directoriesSeen;  // the trustees whose records were looked at
};

// Looks at the records of `trustees` (all when `all` is set) and heals what
// it finds lost. Runs on the healer's thread, never on a work thread.
// Failures are reported, not thrown, and logged when `logFailures` is set
// (the first attempt of a streak).
HealingOutcome healPublications(const std::set<std::string>& trustees, bool all, bool logFailures) noexcept;

}  // namespace agent::spf::endpointregistry::healing
