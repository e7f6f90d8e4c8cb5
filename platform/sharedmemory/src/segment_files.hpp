// Segment files in a scope folder: checked, opened, created and mapped.
//
// A segment is created exclusively and atomically where the file system
// allows (an unnamed file, set up completely, then linked under its name),
// and claimed (an exclusive flock) from before its name appears until its
// creator ends the creation. Found segments are checked against their scope
// (kind, owner, group, mode) and their size before they are mapped.
//
// Everything here returns an Outcome instead of throwing (except for memory
// for texts) and logs nothing; the caller decides.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <cstddef>
#include <string>

#include "scope.hpp"

namespace agent::spf::sharedmemory::detail {

// What a successful open hands to the handle.
struct Opened {
  void* address = nullptr;
  dev_t device = 0;
  ino_t inode = 0;
  bool created = false;
  int creationClaim = -1;  // created: the descriptor that holds the claim
};

// Refused when `name` cannot be a segment's name or `size` a segment's size.
Outcome checkArguments(const std::string& name, std::size_t size);

// Opens an existing segment of at least `size` bytes and checks it; `fd` and
// `st` describe it on success.
Outcome openSegment(const Scope& scope, int folder, const std::string& name, std::size_t size, UniqueFd& fd,
                    struct stat& st);

// Opens an existing segment and maps `size` bytes of it.
Outcome findSegment(const Scope& scope, int folder, const std::string& name, std::size_t size, Opened& opened);

// Creates the segment exclusively (Exists when the name is taken), sets it
// up, claims and maps it.
Outcome createSegment(const Scope& scope, int folder, const std::string& name, std::size_t size, Opened& opened);

// Finds the segment, or creates it when it does not exist; waits a bounded
// while for one that another process is creating.
Outcome createOrFindSegment(const Scope& scope, int folder, const std::string& name, std::size_t size, Opened& opened);

}  // namespace agent::spf::sharedmemory::detail
