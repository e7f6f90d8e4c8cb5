// A record of this process published anew after another process removed,
// replaced, cut or overwrote its segment (see healing/publication_healer.hpp).
#include <cstring>
#include <stdexcept>
#include <vector>

#include <agent/spf/sharedmemory/mapped_access.hpp>

#include "diagnostics/diagnostics.hpp"
#include "directory/segment_names.hpp"
#include "endpoint/endpoint_impl.hpp"
#include "healing/publication_watch.hpp"
#include "record/record_layout.hpp"

namespace agent::spf::endpointregistry {
namespace {

using agent::spf::sharedmemory::MappedAccess;
using agent::spf::sharedmemory::repairedFaults;
using agent::spf::sharedmemory::SegmentClaim;
using agent::spf::sharedmemory::SharedMemory;

// Segments whose bytes were damaged while this process held them: never
// unmapped, since the work thread that held their locks may still reach
// them through its list of robust mutexes.
std::vector<SharedMemory>& damagedSegments() {
  static auto* const kept = new std::vector<SharedMemory>;
  return *kept;
}

// Frees the record's name for a new segment: its own old segment's name
// goes; another file under it goes unless it is a live record or one being
// made (of another process, another pid namespace perhaps, with the same
// name).
void freeName(SharedMemory& own, const std::string& name, const std::string& trustee) {
  switch (own.nameState()) {
    case SharedMemory::NameState::Same:
    case SharedMemory::NameState::Short:
      own.markForDeletion();
      return;
    case SharedMemory::NameState::Other: {
      const SegmentClaim claim = agent::spf::sharedmemory::segmentClaim(trustee, name);
      if (claim == SegmentClaim::Creating || claim == SegmentClaim::Held) {
        throw std::runtime_error("System error: Endpoint::republish: " + name + " is held by another process");
      }
      SharedMemory other = SharedMemory::find(name, 1, trustee, {});
      if (other.isAttached()) other.markForDeletion();
      return;
    }
    default:
      return;
  }
}

}  // namespace

Endpoint::Impl::SegmentHealth Endpoint::Impl::segmentHealth() {
  const MappedAccess mapped;
  if (!sharedMemory.isAttached()) return SegmentHealth::Damaged;
  // The header as this process keeps it: flag set, mutex held by its lane.
  // Nobody else writes it while the record lives; a page cut off the
  // segment reads as zeros here (and counts as a repair).
  const std::uint64_t repairsBefore = repairedFaults();
  RecordHeader header;
  std::memcpy(&header, sharedMemory.getPointer(), sizeof header);
  if (repairedFaults() != repairsBefore || header.livenessFlag != 1 ||
      !PThreadRobustLockGuard::heldInCopy(header.livenessMutex)) {
    return SegmentHealth::Damaged;
  }
  // A segment cut within its data and lengthened again keeps its header but
  // reads zeros where its data was: it is withdrawn as usual (its mutex is
  // intact) and published again.
  if (!holdsRecordData(sharedMemory, data, recordDataLength(name)) || repairedFaults() != repairsBefore) {
    return SegmentHealth::Unnamed;
  }
  return sharedMemory.nameState() == SharedMemory::NameState::Same ? SegmentHealth::Intact : SegmentHealth::Unnamed;
}

void Endpoint::Impl::republish(bool oldIntact) {
  const MappedAccess mapped;
  freeName(sharedMemory, name, trustee);
  const unsigned long dataLength = recordDataLength(name);
  SharedMemory fresh = SharedMemory::create(name, recordSegmentSize(dataLength), trustee, {});
  if (!fresh.isAttached()) {
    throw std::runtime_error("System error: Endpoint::republish: " + name + " could not be created again");
  }
  storeRecordData(fresh, data, dataLength);
  PThreadRobustLockGuard lock = lockAsLive(fresh);

  std::swap(sharedMemory, fresh);
  std::swap(livenessLock, lock);
  // Watchers of the folder saw the new segment appear before it was live.
  sharedMemory.touch();
  healing::unwatchRecord(watch);
  watch = healing::watchRecord(trustee, name);
  // The old segment's flag goes first, also when it was damaged, so that no
  // process that keeps it mapped reads it as live.
  livenessFlagOf(fresh).exchange(0);
  // Intact: withdrawn as usual, its lock unlocked and destroyed as `lock`
  // goes, then the segment; its name is no longer its own.
  if (oldIntact) return;
  // Damaged: the old lock is abandoned where it lies.
  lock.abandon();
  damagedSegments().push_back(std::move(fresh));
}

}  // namespace agent::spf::endpointregistry
