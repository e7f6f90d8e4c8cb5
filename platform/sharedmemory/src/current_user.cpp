#include <pwd.h>
#include <unistd.h>
#include <cerrno>
#include <vector>

#include "agent/spf/sharedmemory/shared_memory.hpp"

namespace agent::spf::sharedmemory {

std::string getCurrentUserName() {
  const long suggested = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(suggested > 0 ? static_cast<std::size_t>(suggested) : 1024);
  constexpr std::size_t bufferLimit = 1 << 24;
  for (;;) {
    passwd entry{};
    passwd* result = nullptr;
    const int error = getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &result);
    if (error == ERANGE && buffer.size() < bufferLimit) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (error != 0 || result == nullptr || result->pw_name == nullptr) return {};
    return result->pw_name;
  }
}

}  // namespace agent::spf::sharedmemory
