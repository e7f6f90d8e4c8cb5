// Named points in the library's critical sequences at which a test can act,
// for example kill its own process to prove that a crash there leaves the
// registry consistent. Builds other than Release compile them in; in Release
// ER_TEST_HOOK expands to nothing.
//
// Points:
//   "record.created"            record segment created and filled, not locked
//   "record.locked"             liveness lock taken, name not yet in the directory
//   "record.published"          record complete: name in the directory
//   "record.withdrawing"        liveness flag cleared, name still in the directory
//   "record.probing"            a reader saw the liveness flag set, mutex not yet probed
//   "record.opening"            a reader opens a record segment by its name
//   "record.reclaiming"         a reader removed a stale record's segment, name still in the directory
//   "directory.entry.erased"    name erased, liveness lock still held
//   "directory.initialize.claimed"   base claimed, not yet initialised
//   "directory.reorganize.created"   new container filled, slot not yet flipped
//   "directory.row.written"     row strings written, count byte not yet
//   "robust.locking"            a robust mutex's kind checked, not yet locked
//   "robust.unlocking"          a held robust mutex checked intact, not yet unlocked
#pragma once

#if defined(ENDPOINTREGISTRY_TEST_HOOKS)

namespace agent::spf::endpointregistry::testhooks {

using Hook = void (*)(const char* point);

// Installs the function called at every point (null: none). Not thread-safe
// against concurrent reach(); install before the code under test runs.
void install(Hook hook) noexcept;
void reach(const char* point);

}  // namespace agent::spf::endpointregistry::testhooks

#define ER_TEST_HOOK(point) ::agent::spf::endpointregistry::testhooks::reach(point)

#else

#define ER_TEST_HOOK(point) ((void)0)

#endif
