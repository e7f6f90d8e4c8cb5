// Explicit maintenance: what listings leave behind.
#include <endpointregistry/garbage_collection.hpp>

#include <unordered_set>
#include <vector>

#include <agent/spf/sharedmemory/shared_memory.hpp>

#include "directory/directory_entry.hpp"
#include "directory/segment_names.hpp"
#include "discovery/current_user_groups.hpp"
#include "endpoint/registry_operation.hpp"
#include "record/record_reader.hpp"

namespace agent::spf::endpointregistry {
namespace {

// Reads a record as maintenance judges it and clears it away if stale, or
// if it is too short to be read and its publisher holds it no longer (its
// name, if it has one, goes too). Returns what was found.
RecordRead::Finding collect(std::string text, RecordReader& reader, bool named) {
  const RecordName name(std::move(text));
  const RecordRead read = reader.read(name, RecordJudgement::Maintenance);
  if (read.finding != RecordRead::Unreadable || name.format() != 0) return read.finding;
  if (!reader.removeUnreadable(name)) return read.finding;
  if (named) eraseDirectoryName(name.text(), reader.trustee());
  return RecordRead::Reclaimed;
}

void collectIn(const std::string& trustee, RecordReader& reader, GarbageReport& report) {
  if (repairDirectory(trustee)) ++report.rebuiltDirectories;
  // Named records first: clearing a stale one also erases its name.
  for (std::string& name : listDirectoryNames(recordPrefix, trustee)) {
    if (collect(std::move(name), reader, true) == RecordRead::Reclaimed) ++report.staleRecords;
  }
  report.danglingNames += eraseDanglingNames(trustee);
  // Then the segments that no name leads to. A publication under way names
  // its record only after the record is locked and flagged (live), and
  // claims it before that: only a live one is named here, which its
  // publisher's own naming then finds done.
  const std::vector<std::string> listed = listDirectoryNames(recordPrefix, trustee);
  const std::unordered_set<std::string> named(listed.begin(), listed.end());
  for (std::string& name : agent::spf::sharedmemory::listSegmentNames(trustee, recordPrefix)) {
    if (named.count(name) != 0) continue;
    const std::string text = name;
    switch (collect(std::move(name), reader, false)) {
      case RecordRead::Reclaimed:
        ++report.unnamedSegments;
        break;
      case RecordRead::Live:
        if (nameAgain(text, trustee)) ++report.restoredNames;
        break;
      default:
        break;
    }
  }
  report.leftoverContainers += removeLeftoverContainers(trustee);
}

}  // namespace

GarbageReport collectGarbage(std::set<std::string> trustees) {
  GarbageReport report;
  if (trustees.empty()) return report;
  RegistryOperation operation;
  for (const std::string& trustee : trustees) collectIn(trustee, operation.records(trustee), report);
  return report;
}

GarbageReport collectGarbageFromAllTrustees() {
  std::set<std::string> trustees = getCurrentUserGroups();
  trustees.insert("");
  return collectGarbage(std::move(trustees));
}

}  // namespace agent::spf::endpointregistry
