#include "support/registry_cleanup.hpp"

#include <cstdio>

#include "directory/directory_entry.hpp"
#include "directory/segment_names.hpp"
#include "support/shm_files.hpp"

namespace er::test {

RegistryCleanup::RegistryCleanup(std::string groupTag, std::vector<std::pair<std::string, std::string>> scopes)
    : groupTag_(std::move(groupTag)), scopes_(std::move(scopes)) {}

RegistryCleanup::RegistryCleanup(std::string groupTag) : RegistryCleanup(std::move(groupTag), {{"", userScope()}}) {}

RegistryCleanup::~RegistryCleanup() {
  using namespace agent::spf::endpointregistry;
  const std::string prefix = groupPrefix(groupTag_);
  for (const auto& [trustee, scope] : scopes_) {
    try {
      for (const auto& name : listDirectoryNames(prefix, trustee)) eraseDirectoryName(name, trustee);
    } catch (...) {
    }
    for (const auto& name : filesIn(scope, prefix)) std::remove((scope + "/" + name).c_str());
  }
}

}  // namespace er::test
