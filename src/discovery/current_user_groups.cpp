// The supplementary groups of the calling process, by name.
//
// Nothing is cached: every call reads the id list and the group database
// afresh, so a change of the process's groups shows at the next call. Only
// re-entrant calls are used, so any thread may call at any time.
#include "discovery/current_user_groups.hpp"

#include <unistd.h>
#include <cerrno>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include <agent/spf/sharedmemory/accounts.hpp>

#include "diagnostics/diagnostics.hpp"

namespace agent::spf::endpointregistry {
namespace {

[[noreturn]] void throwGroupIdsUnavailable() {
  const int error = errno;
  logMessage(mainLogger(), LogLevel::Error, "getCurrentUserGroups(): Failed to get user group ids. ", "(Error ", error,
             ")");
  throw std::runtime_error("System error: Failed to get current user groups");
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
  for (gid_t id : ids) {
    if (std::optional<std::string> name = agent::spf::sharedmemory::groupName(id)) names.insert(std::move(*name));
  }
  return names;
}

std::string getCurrentUserName() { return agent::spf::sharedmemory::getCurrentUserName(); }

}  // namespace agent::spf::endpointregistry
