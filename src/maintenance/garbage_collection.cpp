// Explicit maintenance: what listings leave behind.
#include <endpointregistry/garbage_collection.hpp>

#include <unordered_set>
#include <vector>

#include <agent/spf/sharedmemory/shared_memory.hpp>

#include "concurrency/work_queue.hpp"
#include "directory/directory_entry.hpp"
#include "directory/segment_names.hpp"
#include "discovery/current_user_groups.hpp"
#include "endpoint/endpoint_impl.hpp"

namespace agent::spf::endpointregistry {
namespace {

// Reads a record as maintenance judges it; true when it was cleared away.
bool reclaimed(const std::string& name, const std::string& trustee, RecordReadSession& session) {
  return Endpoint::Impl::readRecord(name, trustee, session, RecordJudgement::Maintenance).finding ==
         RecordRead::Reclaimed;
}

void collectIn(const std::string& trustee, GarbageReport& report) {
  RecordReadSession session(trustee);
  // Named records first: clearing a stale one also erases its name.
  for (const std::string& name : listDirectoryNames(recordPrefix, trustee)) {
    if (reclaimed(name, trustee, session)) ++report.staleRecords;
  }
  report.danglingNames += eraseDanglingNames(trustee);
  // Then the segments that no name leads to. A publication under way names
  // its record only after the record is locked and flagged (live), and its
  // creation is claimed before that: neither is cleared here.
  const std::vector<std::string> listed = listDirectoryNames(recordPrefix, trustee);
  const std::unordered_set<std::string> named(listed.begin(), listed.end());
  for (const std::string& name : agent::spf::sharedmemory::listSegmentNames(trustee, recordPrefix)) {
    if (named.count(name) == 0 && reclaimed(name, trustee, session)) ++report.unnamedSegments;
  }
  report.leftoverContainers += removeLeftoverContainers(trustee);
}

}  // namespace

GarbageReport collectGarbage(std::set<std::string> trustees) {
  GarbageReport report;
  if (trustees.empty()) return report;
  const WorkThreadHold workThread;
  const agent::spf::sharedmemory::FolderTrust oneCheck;
  for (const std::string& trustee : trustees) collectIn(trustee, report);
  return report;
}

GarbageReport collectGarbageFromAllTrustees() {
  std::set<std::string> trustees = getCurrentUserGroups();
  trustees.insert("");
  return collectGarbage(std::move(trustees));
}

}  // namespace agent::spf::endpointregistry
