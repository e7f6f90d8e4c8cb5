// Listing and filtering of the live endpoints. A listing is also the
// registry's garbage collector: reading a record whose publisher died clears
// it away, and so does the sweep below for records the directory never named.
#include <endpointregistry/endpoint.hpp>

#include <exception>
#include <optional>
#include <unordered_set>

#include <agent/spf/sharedmemory/shared_memory.hpp>

#include "concurrency/work_queue.hpp"
#include "directory/segment_names.hpp"
#include "discovery/current_user_groups.hpp"
#include "endpoint/endpoint_impl.hpp"

namespace agent::spf::endpointregistry {

using DataPairs = std::vector<std::pair<std::string, std::string>>;

namespace {

// Clears away the trustee's record segments under the group tag's prefix
// that the directory did not name when it was read (`listed`) and whose
// publisher is gone. A publisher that dies after creating its record and
// before its name is in the directory, or after its name has left the
// directory, leaves such a segment, and no name leads any reader to it. The
// segments of publications still under way read as transient or live and are
// left alone. A segment too short to be read as a record (cut short) goes
// once its publisher holds it no longer. Housekeeping only: nothing found
// here enters the result, and a segment that cannot be judged is skipped.
// Costs one pass over the scope folder; normally no segment is left to open.
void sweepUnlistedRecords(const std::string& groupTag, const std::string& trustee,
                          const std::vector<std::string>& listed, RecordReadSession& session) {
  const std::vector<std::string> segments = agent::spf::sharedmemory::listSegmentNames(trustee, groupPrefix(groupTag));
  if (segments.empty()) return;
  const std::unordered_set<std::string> named(listed.begin(), listed.end());
  for (const std::string& name : segments) {
    if (named.count(name) != 0) continue;
    try {
      // A segment too short to be read goes once its publisher holds it no
      // longer; any other is judged as a record.
      const RecordRead read = Endpoint::Impl::readRecord(name, trustee, session, RecordJudgement::Listing);
      if (read.finding == RecordRead::Unreadable && recordFormat(name) == 0)
        (void)removeUnreadableRecord(name, trustee);
    } catch (const std::exception&) {
      // Left for the next listing; this one's result does not depend on it.
    }
  }
}

}  // namespace

DataPairs Endpoint::filter(const std::string& groupTag, std::set<std::string> trustees) {
  if (trustees.empty()) return {};
  // One work thread for all the directories read here, started (if the
  // process holds no endpoint) and joined once: right after the last
  // directory is read, while the thread is still awake, since reading the
  // records needs no thread.
  std::optional<WorkThreadHold> workThread(std::in_place);
  // Each scope folder is checked once for all the segment calls made here.
  const agent::spf::sharedmemory::FolderTrust oneCheck;
  // The set de-duplicates (one endpoint under several trustees) and sorts.
  std::set<std::pair<std::string, std::string>> pairs;
  for (const std::string& trustee : trustees) {
    const std::vector<std::string> names = Impl::filterNames(groupTag, trustee);
    if (trustee == *trustees.rbegin()) workThread.reset();
    RecordReadSession session(trustee);
    for (const std::string& name : names) {
      auto pair = Impl::getDataPair(name, trustee, session);
      if (pair.first.empty() && pair.second.empty()) continue;
      pairs.insert(std::move(pair));
    }
    sweepUnlistedRecords(groupTag, trustee, names, session);
  }
  DataPairs result;
  result.reserve(pairs.size());
  while (!pairs.empty()) result.push_back(std::move(pairs.extract(pairs.begin()).value()));
  return result;
}

DataPairs Endpoint::list(std::set<std::string> trustees) { return filter("", std::move(trustees)); }

DataPairs Endpoint::filterFromLocal(const std::string& groupTag) { return filter(groupTag, std::set<std::string>{""}); }

DataPairs Endpoint::filter(const std::string& groupTag) { return filterFromLocal(groupTag); }

DataPairs Endpoint::list() { return filter(""); }

DataPairs Endpoint::listFromLocal() { return filterFromLocal(""); }

DataPairs Endpoint::filterFromAllTrustees(const std::string& groupTag) {
  std::set<std::string> trustees = getCurrentUserGroups();
  trustees.insert("");
  return filter(groupTag, std::move(trustees));
}

DataPairs Endpoint::listFromAllTrustees() { return filterFromAllTrustees(""); }

}  // namespace agent::spf::endpointregistry
