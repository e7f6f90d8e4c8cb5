// Users and groups of the system's databases: the one place where the
// libraries look them up.
//
// Every look-up is re-entrant (getpwuid_r, getgrnam_r, getgrgid_r) and uses
// one buffer rule: 1,024 bytes at first, zero-filled, doubled while the call
// answers ERANGE, up to 1 MiB; an entry that needs more counts as absent.
// Nothing is cached here. Any thread may call at any time; nothing throws
// but std::bad_alloc.
#pragma once

#include <sys/types.h>
#include <optional>
#include <string>

namespace agent::spf::sharedmemory {

// The name of the effective user (getpwuid_r of geteuid()); empty if unknown.
std::string getCurrentUserName();

// What looking up a group by name found.
struct GroupLookUp {
  enum Result { Found, Unknown, Failed } result = Unknown;
  gid_t gid = 0;  // Found: the group's id
  int error = 0;  // Failed: the error number of getgrnam_r
};

// Looks up the group `name`. Unknown also covers the error numbers that
// systems use to say "no such group" (ENOENT, ESRCH, EBADF, EPERM).
GroupLookUp lookUpGroup(const std::string& name);

// The name of group `id`; nothing when it has no entry or the look-up fails.
std::optional<std::string> groupName(gid_t id);

}  // namespace agent::spf::sharedmemory
