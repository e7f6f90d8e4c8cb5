// One published copy of an endpoint, visible to one trustee: a record segment
// (record/record_layout.hpp) holding the data pair and a robust mutex that
// the publisher keeps locked for the record's whole life, plus the record's
// name in the trustee's directory. Reading records, this process's or
// others', is the record reader's (record/record_reader.hpp).
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include <agent/spf/sharedmemory/shared_memory.hpp>
#include <endpointregistry/endpoint.hpp>

#include "concurrency/robust_lock_guard.hpp"
#include "directory/directory_entry.hpp"
#include "record/record_reader.hpp"

namespace agent::spf::endpointregistry {

// One record of an Endpoint. Internal: the class of the exported Endpoint
// would give it default visibility, so it is hidden explicitly.
class __attribute__((visibility("hidden"))) Endpoint::Impl {
 public:
  using SharedMemory = agent::spf::sharedmemory::SharedMemory;
  using DataPair = std::pair<std::string, std::string>;

  // Publishes one record of `data` under `groupTag` for `trustee` ("" is the
  // current user's own record). Throws on failure, leaving nothing behind.
  Impl(const DataPair& data, const std::string& groupTag, const std::string& trustee);
  // Withdraws the record: flag cleared, name erased, mutex unlocked and
  // destroyed, segment released. Never throws.
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  std::string getGroupTag() const;
  std::string getTrustee() const;
  // The record's own data pair, read back from its segment.
  DataPair getDataPair();

  // "" passes unchanged; otherwise the trustee must be a group of the current
  // user, else std::invalid_argument.
  static std::string checkTrustee(const std::string& trustee);

  // Single reads of one record, by its name (RecordReader tells more):
  // its mapped segment, unattached when it cannot be had;
  static SharedMemory findSharedMemory(const std::string& name, const std::string& trustee);
  // its state as a listing judges it (throws as RecordReader::classify);
  static RecordState getState(SharedMemory& segment, unsigned long pid);
  // the data pair of a live record, else two empty strings; a stale one is
  // reclaimed (throws as RecordReader::read).
  static DataPair getDataPair(const std::string& name, const std::string& trustee);
  // The record names in the trustee's directory under the group tag's prefix.
  static std::vector<std::string> filterNames(const std::string& groupTag, const std::string& trustee);
  // The records of the local trustee with this group tag and data that count
  // as published (live, or being published or withdrawn); reclaims nothing.
  static std::size_t countSynonymEndpoints(const DataPair& data, const std::string& groupTag);

  // Healing (healing/publication_healer.hpp), under the held records' lock.
  enum class SegmentHealth {
    Intact,   // the record's name names its own segment, whole, flagged and locked
    Unnamed,  // its header is whole, but its name names it no longer (removed, replaced, cut short)
              // or its data was cut
    Damaged,  // its header (flag, mutex) was cut or overwritten
  };
  SegmentHealth segmentHealth();
  // Publishes the record anew under its name: a new segment with its data,
  // locked on a lane (other than a retired one) and flagged, in place of the
  // old one, which is released (`oldIntact`) or, its bytes damaged, left
  // untouched with its lock abandoned. Throws std::runtime_error when the
  // name is held by a live record of another process or is being created,
  // or when the segment cannot be made; the record then keeps what it had.
  void republish(bool oldIntact);
  // Names the record again in its trustee's directory unless it is there.
  // Names the record again; watchers of the folder hear of it when it was
  // missing (the touch also reaches this process's own watch once: the
  // healer then finds the name in place).
  bool restoreName() const {
    const bool restored = directoryEntry.restore();
    if (restored) sharedMemory.touch();
    return restored;
  }
  // The lane whose work thread holds the record's lock.
  const WorkQueue* lane() const noexcept { return livenessLock.lane(); }
  const std::string& recordNameText() const noexcept { return name; }

 private:
  SharedMemory createSharedMemory(const DataPair& data);
  PThreadRobustLockGuard getLivenessLock();
  // Sets up the liveness mutex of a new, filled record segment, locks it for
  // good on a work thread, sets the flag and ends the segment's creation: the
  // record is live from here. Throws std::runtime_error when it cannot lock.
  static PThreadRobustLockGuard lockAsLive(SharedMemory& segment);
  // True in a forked child that inherited this record from its publisher.
  bool inheritedByFork() const;

  std::string trustee;
  std::string groupTag;
  std::string name;
  SharedMemory sharedMemory;
  PThreadRobustLockGuard livenessLock;
  DirectoryEntry directoryEntry;
  // What healing needs: the data to publish again, the watch on the segment.
  DataPair data;
  int watch = -1;
};

}  // namespace agent::spf::endpointregistry
