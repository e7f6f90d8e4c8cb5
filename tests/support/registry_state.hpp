// What the registry holds, read straight from shared memory, for tests that
// check its invariants after crashes and under load: the publishers of the
// record segments and directory names of one group tag, and the containers
// of a directory.
#pragma once

#include <set>
#include <string>
#include <vector>

namespace er::test {

// The publisher pid of every record segment of `groupTag` in a scope folder,
// one per segment, ascending.
std::vector<unsigned long> recordSegmentPids(const std::string& scope, const std::string& groupTag);

// The publisher pid of every name of `groupTag` in the trustee's registry
// directory, one per name, ascending.
std::vector<unsigned long> directoryNamePids(const std::string& groupTag, const std::string& trustee);

// The containers of a directory, read while holding the directory's lock, so
// that no reorganisation is under way while the folder is read.
struct DirectoryContainers {
  bool initialized = false;
  unsigned long active = 0;          // number of the active container
  unsigned long inactive = 0;        // number the inactive slot names; 0: none
  std::set<unsigned long> segments;  // numbers of the container segments in the folder
};

// `arrayName` is the directory's name ("qzEndpointRegistry" for the
// registry), `scope` the trustee's scope folder.
DirectoryContainers directoryContainers(const std::string& arrayName, const std::string& trustee,
                                        const std::string& scope);

}  // namespace er::test
