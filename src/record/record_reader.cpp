#include "record/record_reader.hpp"

#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>

#include <agent/spf/sharedmemory/mapped_access.hpp>

#include "concurrency/lock_word.hpp"
#include "concurrency/process_probe.hpp"
#include "concurrency/robust_lock_guard.hpp"
#include "diagnostics/diagnostics.hpp"
#include "diagnostics/test_hooks.hpp"
#include "directory/directory_entry.hpp"
#include "directory/segment_names.hpp"
#include "record/record_layout.hpp"

namespace agent::spf::endpointregistry {
namespace {

using agent::spf::sharedmemory::MappedAccess;
using agent::spf::sharedmemory::SegmentReader;
using agent::spf::sharedmemory::SegmentView;
using agent::spf::sharedmemory::SharedMemory;
using DataPair = RecordReader::DataPair;

constexpr SharedMemory::ImplementationSpecifications defaultSpecification{};

// A record whose flag is clear: mid-publication or mid-teardown while its
// publisher exists, stale once it is gone. A publisher in another pid
// namespace is not seen by its pid; its record still counts as live while
// the publisher's claim on the segment is held (from before the segment had
// its name until the publisher released it or died).
//
// Maintenance goes by the claim alone: an unflagged record that nobody
// claims is left by a dead publisher, whatever process its pid names here
// (a reused pid would keep it for ever otherwise).
RecordState stateOfUnflagged(const SharedMemory& segment, unsigned long pid, RecordJudgement judgement) {
  if (judgement == RecordJudgement::Listing && processExists(pid)) return Transient;
  return segment.isClaimed() ? Transient : Stale;
}

// Copies bytes of a record segment, by read calls or from a view.
class RecordBytes {
 public:
  explicit RecordBytes(const SegmentReader& reader) : reader_(&reader) {}
  explicit RecordBytes(const SegmentView& view) : view_(&view) {}

  // False when fewer than `length` bytes are there.
  bool read(std::size_t offset, void* buffer, std::size_t length) const {
    if (reader_ != nullptr) return reader_->read(offset, buffer, length);
    if (offset > view_->size() || length > view_->size() - offset) return false;
    std::memcpy(buffer, static_cast<const char*>(view_->data()) + offset, length);
    return true;
  }

 private:
  const SegmentReader* reader_ = nullptr;
  const SegmentView* view_ = nullptr;
};

// The record's header, when it shows the record live: flag set, liveness
// mutex held (what a probe of the mutex would answer with EBUSY).
std::optional<RecordHeader> readLiveHeader(const RecordBytes& reader) {
  RecordHeader header;
  if (!reader.read(0, &header, sizeof header)) return std::nullopt;
  ER_TEST_HOOK("record.probing");
  if (header.livenessFlag == 0 || !PThreadRobustLockGuard::heldInCopy(header.livenessMutex)) return std::nullopt;
  return header;
}

// Reads a record without mapping it, which costs a reader less than a
// mapping would. Answers only for a record that is plainly live when its
// header is read and still when header and data are read again (the same
// owner holding the mutex); the data is read only after the flag was seen
// set. Any other record is left to the mapped path, which probes the mutex
// itself and clears stale records away.
std::optional<DataPair> readLiveRecord(const RecordBytes& reader, unsigned long dataLength) {
  const std::optional<RecordHeader> header = readLiveHeader(reader);
  if (!header || header->firstLength > dataLength) return std::nullopt;
  std::string bytes(recordDataOffset + dataLength, '\0');
  if (!reader.read(0, bytes.data(), bytes.size()) || std::memcmp(bytes.data(), &*header, sizeof *header) != 0) {
    return std::nullopt;
  }
  bytes.erase(0, recordDataOffset);
  return splitRecordData(std::move(bytes), header->firstLength);
}

// The l data bytes of a mapped record.
std::string storedBytes(SharedMemory& segment, const RecordName& name) {
  return std::string(reinterpret_cast<const char*>(recordDataOf(segment)), name.dataLength());
}

// Clears a stale record away: flag, mutex, segment name, directory name.
void reclaim(SharedMemory& segment, const RecordName& name, const std::string& trustee) {
  // Only the reader whose exchange saw the flag set destroys the mutex.
  if (livenessFlagOf(segment).exchange(0) != 0) pthread_mutex_destroy(&recordHeaderOf(segment).livenessMutex);
  segment.markForDeletion();
  ER_TEST_HOOK("record.reclaiming");
  eraseDirectoryName(name.text(), trustee);
}

// The mapped path: probes the record's mutex itself, reads a live record,
// clears a stale one away.
RecordRead readMappedRecord(SharedMemory& segment, const RecordName& name, const std::string& trustee,
                            RecordJudgement judgement) {
  const MappedAccess mapped;
  switch (RecordReader::classify(segment, name.pid(), judgement)) {
    case Stale:
      reclaim(segment, name, trustee);
      return {RecordRead::Reclaimed, {}};
    case Live: {
      DataPair data = splitRecordData(storedBytes(segment, name), recordHeaderOf(segment).firstLength);
      // A copy taken while the publisher tore the record down is dropped.
      if (RecordReader::classify(segment, name.pid(), RecordJudgement::Listing) != Live) {
        return {RecordRead::Transient, {}};
      }
      return {RecordRead::Live, std::move(data)};
    }
    default:
      return {RecordRead::Transient, {}};
  }
}

}  // namespace

RecordReader::RecordReader(const std::string& trustee)
    : trustee_(trustee), folder_(agent::spf::sharedmemory::ScopeFolder::open(trustee)) {}

SharedMemory RecordReader::findSegment(const RecordName& name, const std::string& trustee) {
  const std::optional<std::size_t> size = name.segmentSize();
  if (!size) return SharedMemory();
  return SharedMemory::find(name.text(), *size, trustee, defaultSpecification);
}

RecordState RecordReader::classify(SharedMemory& segment, unsigned long pid, RecordJudgement judgement) {
  const MappedAccess mapped;
  if (!segment.isAttached()) return Transient;
  if (livenessFlagOf(segment).load(std::memory_order_relaxed) == 0) return stateOfUnflagged(segment, pid, judgement);
  ER_TEST_HOOK("record.probing");
  const int state = PThreadRobustLockGuard::getMutexState(&recordHeaderOf(segment).livenessMutex);
  if (state == 0 || state == EOWNERDEAD) return Stale;
  // Held by someone, in whatever pid namespace: no thread holds more record
  // locks than the kernel marks owner-dead when it dies (work_queue.hpp), so
  // a lock that outlived its owner always shows as EOWNERDEAD.
  if (state == EBUSY || state == EDEADLK) return Live;
  // The publisher's teardown, or another reader's reclaim, clears the flag
  // before it destroys the mutex: a mutex destroyed after the flag was read
  // is no damage, and the record is classified as unflagged instead.
  if (livenessFlagOf(segment).load() == 0) return stateOfUnflagged(segment, pid, judgement);
  logMessage(mainLogger(), Error, "Endpoint::getState Mutex in undesired state. ", "(Mutex state ", state, ")");
  throw std::runtime_error(
      "System error: Endpoint::getState Mutex in undesired state (Return : " + std::to_string(state) + ")");
}

RecordRead RecordReader::read(const RecordName& name, RecordJudgement judgement, SegmentView* keep) {
  if (name.format() != 0) return {};
  ER_TEST_HOOK("record.opening");
  {
    const SegmentReader reader = openUnmapped(name);
    if (!reader.isOpen()) return {};
    // With `keep`, one mapping instead of two read calls: no dearer now, and
    // free to read again while it is kept.
    SegmentView view = keep != nullptr ? reader.view(*name.segmentSize()) : SegmentView();
    std::optional<DataPair> live;
    if (view.isMapped()) {
      const MappedAccess mapped;
      live = readLiveRecord(RecordBytes(view), name.dataLength());
    } else {
      live = readLiveRecord(RecordBytes(reader), name.dataLength());
    }
    if (live) {
      if (view.isMapped()) *keep = std::move(view);
      return {RecordRead::Live, std::move(*live)};
    }
  }
  SharedMemory segment = findSegment(name, trustee_);
  if (!segment.isAttached()) return {};
  return readMappedRecord(segment, name, trustee_, judgement);
}

std::optional<RecordReader::LiveMark> RecordReader::liveMarkIn(const SegmentView& view) noexcept {
  const MappedAccess mapped;
  RecordHeader header;
  if (!RecordBytes(view).read(0, &header, sizeof header)) return std::nullopt;
  if (header.livenessFlag != 1 || !PThreadRobustLockGuard::heldInCopy(header.livenessMutex)) return std::nullopt;
  return LiveMark{lockword::holder(lockword::of(header.livenessMutex)), header.firstLength};
}

bool RecordReader::isPublished(const RecordName& name) {
  if (name.format() != 0) return false;
  {
    const SegmentReader reader = openUnmapped(name);
    if (!reader.isOpen()) return false;
    if (readLiveHeader(RecordBytes(reader))) return true;
  }
  SharedMemory segment = findSegment(name, trustee_);
  return segment.isAttached() && classify(segment, name.pid(), RecordJudgement::Listing) != Stale;
}

RecordInspection RecordReader::inspect(const RecordName& name) {
  const MappedAccess mapped;
  SharedMemory segment = findSegment(name, trustee_);
  if (!segment.isAttached()) return {};
  RecordInspection inspection{true, classify(segment, name.pid(), RecordJudgement::Listing), std::nullopt};
  const std::uint64_t firstLength = recordHeaderOf(segment).firstLength;
  if (inspection.state == Live && firstLength <= name.dataLength()) {
    inspection.data = splitRecordData(storedBytes(segment, name), firstLength);
  }
  return inspection;
}

bool RecordReader::removeUnreadable(const RecordName& name) {
  const std::optional<std::size_t> size = name.segmentSize();
  return size && agent::spf::sharedmemory::removeUnclaimedSegment(trustee_, name.text(), *size);
}

std::vector<std::string> RecordReader::segmentNames(const std::string& prefix, bool* complete) const {
  if (folder_.isOpen()) return folder_.segmentNames(prefix, complete);
  return agent::spf::sharedmemory::listSegmentNames(trustee_, prefix, complete);
}

std::vector<std::string> RecordReader::liveNames() {
  std::vector<std::string> names;
  for (std::string& text : segmentNames(recordPrefix)) {
    const RecordName name(std::move(text));
    if (name.format() != 0) continue;
    const SegmentReader reader = openUnmapped(name);
    if (reader.isOpen() && readLiveHeader(RecordBytes(reader))) names.push_back(name.text());
  }
  return names;
}

SegmentReader RecordReader::openUnmapped(const RecordName& name) const {
  // Unopened, and not logged, for a length that no segment could have, as
  // findSegment() finds nothing for it.
  const std::optional<std::size_t> size = name.segmentSize();
  if (!size) return SegmentReader();
  return SegmentReader::open(folder_, name.text(), *size, trustee_, defaultSpecification);
}

std::vector<std::vector<std::string>> liveRecordNames(const std::string& trustee) {
  std::vector<std::vector<std::string>> entries;
  for (std::string& name : RecordReader(trustee).liveNames()) entries.push_back({std::move(name)});
  return entries;
}

}  // namespace agent::spf::endpointregistry
