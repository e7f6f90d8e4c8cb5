#include "support/registry_state.hpp"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <optional>

#include "concurrency/robust_lock_guard.hpp"
#include "directory/directory_entry.hpp"
#include "directory/named_string_array.hpp"
#include "directory/segment_names.hpp"
#include "support/shm_files.hpp"

namespace er::test {

using agent::spf::endpointregistry::NamedStringArray;
using agent::spf::endpointregistry::NamedStringArrayBase;
using agent::spf::endpointregistry::PThreadRobustLockGuard;
using SharedMemory = agent::spf::sharedmemory::SharedMemory;

std::vector<unsigned long> recordSegmentPids(const std::string& scope, const std::string& groupTag) {
  std::vector<unsigned long> pids;
  for (const std::string& name : filesIn(scope, agent::spf::endpointregistry::groupPrefix(groupTag))) {
    pids.push_back(agent::spf::endpointregistry::recordPid(name));
  }
  std::sort(pids.begin(), pids.end());
  return pids;
}

std::vector<unsigned long> directoryNamePids(const std::string& groupTag, const std::string& trustee) {
  using namespace agent::spf::endpointregistry;
  std::vector<unsigned long> pids;
  for (const std::string& name : listDirectoryNames(groupPrefix(groupTag), trustee)) pids.push_back(recordPid(name));
  std::sort(pids.begin(), pids.end());
  return pids;
}

DirectoryContainers directoryContainers(const std::string& arrayName, const std::string& trustee,
                                        const std::string& scope) {
  DirectoryContainers result;
  const std::string baseName = NamedStringArray::makeBaseName(arrayName, 0, trustee);
  SharedMemory base = SharedMemory::find(baseName, NamedStringArray::baseSize, trustee, {});
  std::optional<PThreadRobustLockGuard> guard;
  if (base.isAttached()) {
    auto& header = *static_cast<NamedStringArrayBase*>(base.getPointer());
    result.initialized = std::atomic_ref<std::uint8_t>(header.initialized).load() == 1;
    if (result.initialized) {
      guard.emplace(&header.mutex);
      const unsigned active = header.activeSlot & 1u;
      result.active = header.containerNumber[active];
      result.inactive = header.containerNumber[active ^ 1u];
    }
  }
  for (const std::string& name : filesIn(scope, baseName)) {
    const std::string digits = name.substr(baseName.size());
    if (digits.empty() || !std::all_of(digits.begin(), digits.end(), [](unsigned char c) { return std::isdigit(c); }))
      continue;
    result.segments.insert(std::stoul(digits));
  }
  return result;
}

}  // namespace er::test
