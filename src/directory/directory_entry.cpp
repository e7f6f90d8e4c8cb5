#include "directory/directory_entry.hpp"

#include <unistd.h>
#include <exception>
#include <utility>

#include "diagnostics/diagnostics.hpp"
#include "diagnostics/test_hooks.hpp"
#include "directory/named_string_array.hpp"

namespace agent::spf::endpointregistry {
namespace {

NamedStringArray registryDirectory(const std::string& trustee) {
  return NamedStringArray(registryDirectoryName, 0, trustee);
}

}  // namespace

DirectoryEntry::DirectoryEntry(const std::string& name, const std::string& trustee)
    : name(name), trustee(trustee), ownerPid(getpid()) {
  registryDirectory(this->trustee).insert(this->name);
}

DirectoryEntry::~DirectoryEntry() {
  if (getpid() != ownerPid) return;
  try {
    registryDirectory(trustee).erase(name);
    ER_TEST_HOOK("directory.entry.erased");
  } catch (...) {
    std::terminate();
  }
}

void eraseDirectoryName(const std::string& name, const std::string& trustee) { registryDirectory(trustee).erase(name); }

std::vector<std::string> listDirectoryNames(const std::string& prefix, const std::string& trustee) {
  std::vector<std::string> names;
  for (auto& entry : registryDirectory(trustee).listEntries(prefix)) {
    if (entry.size() == 1) names.push_back(std::move(entry.front()));
  }
  return names;
}

}  // namespace agent::spf::endpointregistry
