// Listing and filtering of the live endpoints. A listing is also the
// registry's garbage collector: reading a record whose publisher died clears
// it away, and so does the sweep below for records the directory never named.
#include <endpointregistry/endpoint.hpp>

#include <algorithm>
#include <ctime>
#include <exception>
#include <optional>
#include <unordered_set>

#include <agent/spf/sharedmemory/shared_memory.hpp>

#include "directory/segment_names.hpp"
#include "discovery/current_user_groups.hpp"
#include "discovery/kept_records.hpp"
#include "discovery/record_listing.hpp"
#include "endpoint/endpoint_impl.hpp"
#include "endpoint/registry_operation.hpp"
#include "record/record_reader.hpp"

namespace agent::spf::endpointregistry {

using DataPair = std::pair<std::string, std::string>;
using DataPairs = std::vector<DataPair>;

namespace {

// Whether the folder changed so lately that a change after this sweep could
// keep its stamp: its modification time has the clock's coarse tick, and
// its size stays the same when one entry comes and another goes.
bool changedLately(const agent::spf::sharedmemory::ScopeFolder::Stamp& stamp) {
  timespec now{};
  if (clock_gettime(CLOCK_REALTIME, &now) != 0) return true;
  const long long sinceChange = (static_cast<long long>(now.tv_sec) - stamp.seconds) * 1'000'000'000LL +
                                (static_cast<long long>(now.tv_nsec) - stamp.nanoseconds);
  return sinceChange < 20'000'000LL;  // 20 ms: several ticks
}

// Clears away the trustee's record segments under the group tag's prefix
// that the directory did not name when it was read (`listed`) and whose
// publisher is gone. A publisher that dies after creating its record and
// before its name is in the directory, or after its name has left the
// directory, leaves such a segment, and no name leads any reader to it. The
// segments of publications still under way read as transient or live and are
// left alone. A segment too short to be read as a record (cut short) goes
// once its publisher holds it no longer. Housekeeping only: nothing found
// here enters the result, and a segment that cannot be judged is skipped.
// Costs one pass over the scope folder; normally no segment is left to open,
// and the pass is skipped while the folder's entries stay as they were when
// a pass last found every segment named.
void sweepUnlistedRecords(const std::string& groupTag, const std::vector<std::string>& listed, RecordReader& reader,
                          KeptRecords::Listing& kept) {
  // Nothing to look at again while no entry came to or went from the
  // folder, and no name to or from the directory, since a sweep found every
  // segment named.
  const auto stamp = reader.folderStamp();
  const std::uint64_t digest = KeptRecords::digestOf(listed);
  if (stamp && !kept.sweepNeeded(*stamp, digest)) return;
  bool complete = false;
  std::vector<std::string> segments = reader.segmentNames(groupPrefix(groupTag), &complete);
  const std::unordered_set<std::string> named(listed.begin(), listed.end());
  bool everySegmentNamed = true;
  for (std::string& text : segments) {
    if (named.count(text) != 0) continue;
    everySegmentNamed = false;
    try {
      // A segment too short to be read goes once its publisher holds it no
      // longer; any other is judged as a record.
      const RecordName name(std::move(text));
      const RecordRead read = reader.read(name);
      if (read.finding == RecordRead::Unreadable && name.format() == 0) (void)reader.removeUnreadable(name);
    } catch (const std::exception&) {
      // Left for the next listing; this one's result does not depend on it.
    }
  }
  if (stamp) kept.swept(*stamp, digest, complete && everySegmentNamed && !changedLately(*stamp));
}

}  // namespace

namespace {

// Reads the live records of `groupTag` under `trustees` and hands each to
// `take(trustee, name, data)`, in trustee order, then in directory order.
template <class Take>
void readLiveRecords(const std::string& groupTag, const std::set<std::string>& trustees, const Take& take) {
  if (trustees.empty()) return;
  RegistryOperation operation;
  for (const std::string& trustee : trustees) {
    const std::vector<std::string> names = Endpoint::Impl::filterNames(groupTag, trustee);
    // Reading the records needs no work thread: it goes right after the
    // last directory is read, while it is still awake.
    if (trustee == *trustees.rbegin()) operation.releaseWorkThread();
    RecordReader& reader = operation.records(trustee);
    KeptRecords::Listing kept = KeptRecords::ofProcess().listing(trustee, groupPrefix(groupTag));
    for (const std::string& name : names) {
      bool mapNow = false;
      if (std::optional<DataPair> data = kept.readLive(name, mapNow)) {
        if (!data->first.empty() || !data->second.empty()) take(trustee, name, std::move(*data));
        continue;
      }
      agent::spf::sharedmemory::SegmentView view;
      RecordRead read = reader.read(RecordName(name), RecordJudgement::Listing, mapNow ? &view : nullptr);
      if (read.finding == RecordRead::Live) kept.keep(name, std::move(view), read.data);
      if (read.data.first.empty() && read.data.second.empty()) continue;
      take(trustee, name, std::move(read.data));
    }
    kept.finish();
    sweepUnlistedRecords(groupTag, names, reader, kept);
  }
}

}  // namespace

std::vector<ListedRecord> listRecords(const std::string& groupTag, const std::set<std::string>& trustees) {
  std::vector<ListedRecord> records;
  readLiveRecords(groupTag, trustees, [&records](const std::string& trustee, const std::string& name, DataPair&& data) {
    records.push_back(ListedRecord{trustee, name, std::move(data)});
  });
  return records;
}

DataPairs listRecordData(const std::string& groupTag, const std::set<std::string>& trustees) {
  DataPairs pairs;
  readLiveRecords(groupTag, trustees, [&pairs](const std::string&, const std::string&, DataPair&& data) {
    pairs.push_back(std::move(data));
  });
  return pairs;
}

DataPairs Endpoint::filter(const std::string& groupTag, std::set<std::string> trustees) {
  // Sorted, and de-duplicated (one endpoint under several trustees).
  DataPairs pairs = listRecordData(groupTag, trustees);
  std::sort(pairs.begin(), pairs.end());
  pairs.erase(std::unique(pairs.begin(), pairs.end()), pairs.end());
  return pairs;
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
