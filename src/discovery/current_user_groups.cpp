// The supplementary groups of the calling process, by name.
//
// Nothing is cached: every call reads the id list and the group database
// afresh, so a change of the process's groups shows at the next call. Only
// re-entrant calls are used, so any thread may call at any time.
#include "discovery/current_user_groups.hpp"

#include <grp.h>
#include <unistd.h>
#include <cerrno>
#include <cstddef>
#include <stdexcept>
#include <vector>

#include <agent/spf/sharedmemory/shared_memory.hpp>

#include "diagnostics/diagnostics.hpp"

namespace agent::spf::endpointregistry {
namespace {

// getgrgid_r() starts with this much buffer and doubles it while the entry
// does not fit, up to the limit; an entry larger than that is left out.
constexpr std::size_t initialGroupBufferSize = 1024;
constexpr std::size_t maximalGroupBufferSize = 1024 * 1024;

[[noreturn]] void throwGroupIdsUnavailable() {
  const int error = errno;
  logMessage(mainLogger(), LogLevel::Error, "getCurrentUserGroups(): Failed to get user group ids. ", "(Error ", error,
             ")");
  throw std::runtime_error("System error: Failed to get current user groups");
}

// Adds the name of group `id` to `names`. An id without an entry, a failed
// lookup and an entry needing more than the maximal buffer add nothing.
void addGroupName(gid_t id, std::set<std::string>& names) {
  std::vector<char> buffer(initialGroupBufferSize);
  group entry{};
  group* found = nullptr;
  for (;;) {
    const int result = getgrgid_r(id, &entry, buffer.data(), buffer.size(), &found);
    if (result != ERANGE) break;
    if (buffer.size() * 2 > maximalGroupBufferSize) break;
    buffer.resize(buffer.size() * 2);
  }
  if (found != nullptr) names.insert(entry.gr_name);
}

}  // namespace

std::set<std::string> getCurrentUserGroups() {
  const int count = getgroups(0, nullptr);
  // A negative count fails here, as std::length_error, before any logging:
  // its conversion to a size exceeds what a vector can hold.
  std::vector<gid_t> ids(static_cast<std::size_t>(count));
  if (count == 0) {
    // Asked again so that a failing call is reported like the second call's
    // failure below.
    if (getgroups(0, nullptr) < 0) throwGroupIdsUnavailable();
    return {};
  }
  if (getgroups(count, ids.data()) < 0) throwGroupIdsUnavailable();

  // Every slot is looked up, even if the list shrank between the two calls:
  // slots left unfilled still hold id 0.
  std::set<std::string> names;
  for (gid_t id : ids) addGroupName(id, names);
  return names;
}

std::string getCurrentUserName() { return agent::spf::sharedmemory::getCurrentUserName(); }

}  // namespace agent::spf::endpointregistry
