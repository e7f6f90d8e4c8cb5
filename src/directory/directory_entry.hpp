// The registry's use of the name directory: one directory
// "qzEndpointRegistry", version 0, per trustee, holding record names as
// one-string entries.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <string>
#include <vector>

#include "directory/container_rows.hpp"

namespace agent::spf::endpointregistry {

// The presence of one name in one trustee's directory: inserted on
// construction (unless the directory names it already, as a directory
// rebuilt from the records meanwhile may), erased on destruction (a failure
// there ends the process). A copy inherited by a forked child erases
// nothing: the name is the parent's.
//
// The registry's directories heal (named_string_array.hpp): one found
// damaged or lost by an insert is rebuilt from the names it still holds and
// from liveRecordNames(); a used row that is not one string beginning with
// "qzER" counts as damage.
class DirectoryEntry {
 public:
  DirectoryEntry(const std::string& name, const std::string& trustee);
  ~DirectoryEntry();
  DirectoryEntry(const DirectoryEntry&) = delete;

  // Inserts the name again unless the directory holds it (a directory that
  // lost it, or was lost): true when it was missing.
  bool restore() const;
  DirectoryEntry& operator=(const DirectoryEntry&) = delete;

 private:
  std::string name;
  std::string trustee;
  pid_t ownerPid;
};

// True when used row `row` of a registry directory's container is well
// formed: one string, beginning with "qzER" and ending inside the row.
bool wellFormedRecordRow(const ContainerRows& rows, unsigned long row) noexcept;

// The names of the live records in the trustee's scope folder, each as a
// one-string entry: what a lost or damaged directory is rebuilt from. Reads
// the records without locking or clearing anything (it runs under the
// directory's lock). Provided by the record code.
std::vector<std::vector<std::string>> liveRecordNames(const std::string& trustee);

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

// Maintenance. Rebuilds the trustee's directory if it is damaged, or lost
// while live records remain (see NamedStringArray::repair); true when it did.
bool repairDirectory(const std::string& trustee);

// Maintenance. Inserts `name` into the trustee's directory unless it is
// there; true when it was missing.
bool nameAgain(const std::string& name, const std::string& trustee);

}  // namespace agent::spf::endpointregistry
