// Explicit maintenance of the registry's shared memory.
//
// Listings already clear away the records of dead publishers that they meet
// (endpoint.hpp). What they leave is what needs a closer look than a listing
// should take: a name whose record segment is gone (a reader that died while
// clearing the record away), a record segment that no directory names (a
// publisher that died before naming it, or after un-naming it), a record
// segment too short to be read whose publisher has let go of it, and
// directory containers that no directory uses (a writer that died while
// rebuilding its directory). collectGarbage() clears those, and heals what
// damage left: a directory that is damaged, or lost while live records
// remain, is rebuilt from them, and a live record whose name is missing is
// named again. It never touches a live endpoint, nor one that is being
// published.
//
// Thread rules: may be called from any thread of any process at any time,
// also while others publish, withdraw and list.
#pragma once

#include <cstddef>
#include <set>
#include <string>

#include <endpointregistry/export.hpp>

namespace agent::spf::endpointregistry {

// What one collection cleared away, by kind.
struct GarbageReport {
  // Named records whose publisher is gone: their segment removed, their
  // name erased.
  std::size_t staleRecords = 0;
  // Record segments that no directory names and whose publisher is gone.
  std::size_t unnamedSegments = 0;
  // Directory names whose record segment does not exist.
  std::size_t danglingNames = 0;
  // Directory container segments that their directory does not use.
  std::size_t leftoverContainers = 0;
  // Directories rebuilt from the live records of their scope folder.
  std::size_t rebuiltDirectories = 0;
  // Live records named again in a directory that had lost their names.
  std::size_t restoredNames = 0;

  friend bool operator==(const GarbageReport&, const GarbageReport&) = default;
};

// Clears away, in the directories and scope folders of `trustees` ("" is
// the current user's own; others are the user's groups): the records of
// dead publishers, named or not, also those too short to be read; names
// whose segment is really absent (the scope folder has no such name; a
// segment that cannot be opened for another reason keeps its name); and
// unused containers. A record whose flag is clear, or that is too short to
// be read, is cleared once its publisher holds it no longer, whatever
// process its pid names (a reused pid would keep it for ever otherwise).
// First it rebuilds each directory that is damaged, or lost while live
// records remain; last it names again every live record that its directory
// lacks. A trustee that the user cannot see into, or that has no directory
// and no records, contributes nothing.
//
// Returns the counts of what was cleared. Throws std::runtime_error when
// shared memory fails (a directory's lock cannot be taken); what was cleared
// before stays cleared. Blocks while another process holds a directory's
// lock, as every directory operation does.
[[nodiscard]] ENDPOINTREGISTRY_EXPORT GarbageReport collectGarbage(std::set<std::string> trustees);

// collectGarbage() for the current user's own directory and those of all of
// its groups. Also throws what getting the user's groups throws.
[[nodiscard]] ENDPOINTREGISTRY_EXPORT GarbageReport collectGarbageFromAllTrustees();

}  // namespace agent::spf::endpointregistry
