#include "agent/spf/sharedmemory/accounts.hpp"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>
#include <cerrno>
#include <cstddef>
#include <vector>

namespace agent::spf::sharedmemory {
namespace {

constexpr std::size_t initialBufferSize = 1024;
constexpr std::size_t maximalBufferSize = 1024 * 1024;

// Calls `lookUp(buffer)` with a buffer that doubles while the answer is
// ERANGE, up to the maximal size; returns the last answer.
template <typename LookUp>
int withGrowingBuffer(const LookUp& lookUp) {
  std::vector<char> buffer(initialBufferSize);
  for (;;) {
    const int error = lookUp(buffer);
    if (error != ERANGE || buffer.size() * 2 > maximalBufferSize) return error;
    buffer.resize(buffer.size() * 2);
  }
}

}  // namespace

std::string getCurrentUserName() {
  std::string name;
  (void)withGrowingBuffer([&name](std::vector<char>& buffer) {
    passwd entry{};
    passwd* result = nullptr;
    const int error = getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &result);
    if (error == 0 && result != nullptr && result->pw_name != nullptr) name = result->pw_name;
    return error;
  });
  return name;
}

GroupLookUp lookUpGroup(const std::string& name) {
  GroupLookUp found;
  const int error = withGrowingBuffer([&](std::vector<char>& buffer) {
    group entry{};
    group* result = nullptr;
    const int answer = getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &result);
    if (result != nullptr) {
      found.result = GroupLookUp::Found;
      found.gid = entry.gr_gid;
    }
    return answer;
  });
  if (found.result == GroupLookUp::Found) return found;
  // Systems report "no such group" with several error numbers; a buffer
  // still too small leaves the group unknown as well.
  if (error == 0 || error == ENOENT || error == ESRCH || error == EBADF || error == EPERM || error == ERANGE) {
    return found;
  }
  found.result = GroupLookUp::Failed;
  found.error = error;
  return found;
}

std::optional<std::string> groupName(gid_t id) {
  std::optional<std::string> name;
  (void)withGrowingBuffer([&](std::vector<char>& buffer) {
    group entry{};
    group* result = nullptr;
    const int error = getgrgid_r(id, &entry, buffer.data(), buffer.size(), &result);
    if (result != nullptr) name = entry.gr_name;
    return error;
  });
  return name;
}

}  // namespace agent::spf::sharedmemory
