// The names of the calling process's supplementary groups, the only names
// that may be trustees.
#pragma once

#include <set>
#include <string>

namespace agent::spf::endpointregistry {

// Reads getgroups() and looks each id up with getgrgid_r() (buffer from 1 KiB
// doubling up to 1 MiB, see agent/spf/sharedmemory/accounts.hpp). Ids without an entry are left out. Ascending, no
// duplicates. Throws std::runtime_error when getgroups() fails, and
// std::length_error when its first call does. Keeps no state.
std::set<std::string> getCurrentUserGroups();

// The effective user's name, through the shared-memory library.
std::string getCurrentUserName();

}  // namespace agent::spf::endpointregistry
