#include "directory/directory_entry.hpp"

#include <unistd.h>
#include <exception>
#include <utility>

#include "diagnostics/diagnostics.hpp"
#include "diagnostics/test_hooks.hpp"
#include "directory/named_string_array.hpp"
#include "directory/segment_names.hpp"

namespace agent::spf::endpointregistry {
bool wellFormedRecordRow(const ContainerRows& rows, unsigned long row) noexcept {
  static const std::string prefix = recordPrefix;
  return rows.elementCount(row) == 1 && rows.firstStringIsWhole(row, prefix);
}

namespace {

NamedStringArray registryDirectory(const std::string& trustee) {
  NamedStringArray directory(registryDirectoryName, 0, trustee);
  directory.setRecovery({&liveRecordNames, &wellFormedRecordRow});
  return directory;
}

}  // namespace

DirectoryEntry::DirectoryEntry(const std::string& name, const std::string& trustee)
    : name(name), trustee(trustee), ownerPid(getpid()) {
  (void)registryDirectory(this->trustee).insertUnlessPresent({this->name});
}

bool DirectoryEntry::restore() const { return nameAgain(name, trustee); }

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
  std::vector<NamedStringArray::Entry> entries = registryDirectory(trustee).listEntries(prefix);
  std::vector<std::string> names;
  names.reserve(entries.size());
  for (auto& entry : entries) {
    if (entry.size() == 1) names.push_back(std::move(entry.front()));
  }
  return names;
}

std::size_t eraseDanglingNames(const std::string& trustee) {
  using agent::spf::sharedmemory::SegmentPresence;
  return registryDirectory(trustee).eraseIf([&trustee](const NamedStringArray::Entry& entry) {
    return entry.size() == 1 && entry.front().rfind(recordPrefix, 0) == 0 &&
           agent::spf::sharedmemory::segmentPresence(trustee, entry.front()) == SegmentPresence::Absent;
  });
}

bool repairDirectory(const std::string& trustee) { return registryDirectory(trustee).repair(); }

bool nameAgain(const std::string& name, const std::string& trustee) {
  return registryDirectory(trustee).insertUnlessPresent({name});
}

std::size_t removeLeftoverContainers(const std::string& trustee) {
  return registryDirectory(trustee).removeLeftoverContainers();
}

}  // namespace agent::spf::endpointregistry
