// The registry's use of the name directory: one directory
// "qzEndpointRegistry", version 0, per trustee, holding record names as
// one-string entries.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <string>
#include <vector>

namespace agent::spf::endpointregistry {

// The presence of one name in one trustee's directory: inserted on
// construction, erased on destruction (a failure there ends the process).
// A copy inherited by a forked child erases nothing: the name is the parent's.
class DirectoryEntry {
 public:
  DirectoryEntry(const std::string& name, const std::string& trustee);
  ~DirectoryEntry();
  DirectoryEntry(const DirectoryEntry&) = delete;
  DirectoryEntry& operator=(const DirectoryEntry&) = delete;

 private:
  std::string name;
  std::string trustee;
  pid_t ownerPid;
};

// Erases the one-string entry `name` from the trustee's directory.
void eraseDirectoryName(const std::string& name, const std::string& trustee);

// The one-string entries of the trustee's directory that begin with
// `prefix`, in directory order; entries of other sizes are skipped.
std::vector<std::string> listDirectoryNames(const std::string& prefix, const std::string& trustee);

// Maintenance. Erases the record names of the trustee's directory whose
// segment is really absent (the scope folder has no such name; a segment
// that could not be opened for any other reason keeps its name). Decided
// under the directory's lock: a name is inserted only after its segment
// exists and erased before its segment goes, so a name found there without a
// segment has none for good. Returns how many were erased.
std::size_t eraseDanglingNames(const std::string& trustee);

// Maintenance. Removes the container segments that the trustee's directory
// does not use; returns how many.
std::size_t removeLeftoverContainers(const std::string& trustee);

}  // namespace agent::spf::endpointregistry
