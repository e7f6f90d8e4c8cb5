// One published copy of an endpoint, visible to one trustee: a record segment
// holding the data pair and a robust mutex that the publisher keeps locked
// for the record's whole life, plus the record's name in the trustee's
// directory.
//
// Record segment, named by recordName() (segment_names.hpp), l + 57 bytes
// where l is the total length of the two data strings:
//   0       u8        livenessFlag  1 while the publisher holds the mutex;
//                                   written only by atomic exchange
//   1       7 bytes   padding
//   8       40 bytes  livenessMutex robust, process-shared pthread mutex
//   48      u64       firstLength   length of the first data string
//   56      l bytes   data          first string then second, no separator
//   56 + l  1 byte    reserved
#pragma once

#include <pthread.h>
#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <agent/spf/sharedmemory/shared_memory.hpp>
#include <endpointregistry/endpoint.hpp>

#include "concurrency/robust_lock_guard.hpp"
#include "directory/directory_entry.hpp"

namespace agent::spf::endpointregistry {

struct RecordHeader {
  std::uint8_t livenessFlag;
  std::uint8_t padding[7];
  pthread_mutex_t livenessMutex;
  std::uint64_t firstLength;
};
static_assert(offsetof(RecordHeader, livenessFlag) == 0);
static_assert(offsetof(RecordHeader, livenessMutex) == 8);
static_assert(offsetof(RecordHeader, firstLength) == 48);
static_assert(sizeof(RecordHeader) == 56);

inline constexpr std::size_t recordDataOffset = sizeof(RecordHeader);
// Size of the record segment for l bytes of data.
inline constexpr std::size_t recordSegmentSize(std::size_t dataLength) { return dataLength + 57; }

// How a reader classifies a record segment.
enum RecordState : unsigned {
  Stale = 0,      // no live publisher: the record may be reclaimed
  Transient = 1,  // undecided: being built or torn down, or not attached
  Live = 2,       // the liveness mutex is held
};

// What one read of a record found (Endpoint::Impl::readRecord).
struct RecordRead {
  enum Finding {
    Unreadable,  // not a record of format 0, or its segment could not be opened
    Transient,   // being published or withdrawn, or changed while it was read
    Live,        // `data` holds its data pair
    Reclaimed,   // stale: cleared away by this read
  };
  Finding finding = Unreadable;
  std::pair<std::string, std::string> data;
};

// How a reader judges a record whose flag is clear and whose segment its
// publisher no longer claims. A listing follows the record's pid (stale only
// once no process has it); maintenance takes it for stale whatever the pid
// names.
enum class RecordJudgement { Listing, Maintenance };

// Removes the record segment `name` of the trustee when it is too short to
// be read and its publisher holds it no longer (a record truncated after its
// publisher let go of it, or died). True when it was removed.
bool removeUnreadableRecord(const std::string& name, const std::string& trustee);

// What a listing opens once and uses for every record it reads in one
// trustee's directory: the trustee's scope folder, opened and checked once.
class RecordReadSession {
 public:
  // A session without a folder opened beforehand: each record's open checks
  // the folder itself.
  RecordReadSession() = default;
  explicit RecordReadSession(const std::string& trustee);

  const agent::spf::sharedmemory::ScopeFolder& scopeFolder() const { return folder; }

 private:
  agent::spf::sharedmemory::ScopeFolder folder;
};

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

  static SharedMemory findSharedMemory(const std::string& name, const std::string& trustee);
  static RecordState getState(SharedMemory& segment, unsigned long pid);
  // getState() with the judgement of unflagged records chosen.
  static RecordState classify(SharedMemory& segment, unsigned long pid, RecordJudgement judgement);
  // The data pair of a live record, else two empty strings; reclaims a stale one.
  static DataPair getDataPair(const std::string& name, const std::string& trustee);
  // The same, for one record of a listing's session.
  static DataPair getDataPair(const std::string& name, const std::string& trustee, RecordReadSession& session);
  // The same, telling what was found.
  static RecordRead readRecord(const std::string& name, const std::string& trustee, RecordReadSession& session,
                               RecordJudgement judgement);
  static std::vector<std::string> filterNames(const std::string& groupTag, const std::string& trustee);

  // Healing (healing/publication_healer.hpp), under the held records' lock.
  enum class SegmentHealth {
    Intact,   // the record's name names its own segment, whole, flagged and locked
    Unnamed,  // its bytes are whole, but its name names them no longer (removed, replaced, cut short)
    Damaged,  // its own bytes were cut or overwritten
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
  bool restoreName() const { return directoryEntry.restore(); }
  // The lane whose work thread holds the record's lock.
  const WorkQueue* lane() const noexcept { return livenessLock.lane(); }
  const std::string& recordNameText() const noexcept { return name; }
  static std::size_t countSynonymEndpoints(const DataPair& data, const std::string& groupTag);

 private:
  SharedMemory createSharedMemory(const DataPair& data);
  PThreadRobustLockGuard getLivenessLock();
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
