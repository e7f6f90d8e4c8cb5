#include "endpoint/endpoint_impl.hpp"

#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>
#include <optional>
#include <stdexcept>

#include <agent/spf/sharedmemory/mapped_access.hpp>

#include "diagnostics/diagnostics.hpp"
#include "diagnostics/test_hooks.hpp"
#include "directory/segment_names.hpp"
#include "endpoint/record_bytes.hpp"
#include "healing/held_records.hpp"
#include "healing/publication_watch.hpp"

namespace agent::spf::endpointregistry {
namespace {

using agent::spf::sharedmemory::MappedAccess;
using agent::spf::sharedmemory::SegmentReader;
using agent::spf::sharedmemory::SharedMemory;

constexpr SharedMemory::ImplementationSpecifications defaultSpecification{};

using recordbytes::dataOf;
using recordbytes::headerOf;
using recordbytes::livenessFlagOf;

}  // namespace

Endpoint::Impl::Impl(const DataPair& data, const std::string& groupTagArgument, const std::string& trusteeArgument)
    : trustee(checkTrustee(trusteeArgument)),
      groupTag(groupTagArgument),
      name(recordName(data, groupTagArgument, 0, trustee)),
      sharedMemory(createSharedMemory(data)),
      livenessLock(getLivenessLock()),
      directoryEntry(name, trustee),
      data(data) {
  // From now on the process heals the record when it is lost.
  watch = healing::watchRecord(trustee, name);
  try {
    HeldRecords::add(*this);
  } catch (...) {
    healing::unwatchRecord(watch);
    throw;
  }
  ER_TEST_HOOK("record.published");
}

Endpoint::Impl::~Impl() {
  const MappedAccess mapped;
  // From here on readers classify the record by the publisher's existence
  // and no longer read its data; the members then go in reverse order: the
  // name leaves the directory, the mutex is unlocked and destroyed, the
  // segment is released.
  if (inheritedByFork()) return;
  // No longer healed; the watch goes before the segment does.
  HeldRecords::remove(*this);
  healing::unwatchRecord(watch);
  if (sharedMemory.isAttached()) livenessFlagOf(sharedMemory).exchange(0);
  ER_TEST_HOOK("record.withdrawing");
}

bool Endpoint::Impl::inheritedByFork() const { return recordPid(name) != static_cast<unsigned long>(getpid()); }

std::string Endpoint::Impl::getGroupTag() const { return groupTag; }

std::string Endpoint::Impl::getTrustee() const { return trustee; }

Endpoint::Impl::DataPair Endpoint::Impl::getDataPair() {
  // What the record's segment holds; the data it was published with when
  // the segment cannot be read (lost, or being published again).
  DataPair read = getDataPair(name, trustee);
  if (read.first.empty() && read.second.empty()) return data;
  return read;
}

SharedMemory Endpoint::Impl::createSharedMemory(const DataPair& data) {
  const MappedAccess mapped;
  // Reclaims a stale segment of the same name, left by a crashed process
  // that had the same process id, so that the creation below can succeed.
  (void)getDataPair(name, trustee);

  const unsigned long dataLength = recordDataLength(name);
  SharedMemory segment = SharedMemory::create(name, recordSegmentSize(dataLength), trustee, defaultSpecification);
  if (!segment.isAttached()) {
    logMessage(mainLogger(), Error, "Endpoint::createSharedMemory Failed to create the shared memory");
    throw std::runtime_error("System error: Endpoint::createSharedMemory: Failed to create shared memory");
  }
  unsigned char* out = dataOf(segment);
  const std::size_t firstBytes = std::min<std::size_t>(data.first.size(), dataLength);
  std::memcpy(out, data.first.data(), firstBytes);
  std::memcpy(out + firstBytes, data.second.data(), std::min<std::size_t>(data.second.size(), dataLength - firstBytes));
  headerOf(segment).firstLength = data.first.size();
  ER_TEST_HOOK("record.created");
  return segment;
}

PThreadRobustLockGuard Endpoint::Impl::getLivenessLock() {
  const MappedAccess mapped;
  if (!sharedMemory.isAttached()) {
    logMessage(mainLogger(), Error, "Endpoint::getLivenessLock Failed to get the liveness lock");
    throw std::runtime_error("System error: Endpoint::getLivenessLockFailed to get liveness lock");
  }
  pthread_mutex_t* mutex = &headerOf(sharedMemory).livenessMutex;
  PThreadRobustLockGuard::initializeMutex(mutex);
  PThreadRobustLockGuard guard(mutex, LockTerm::Lasting);
  guard.setDestroyOnRelease();
  livenessFlagOf(sharedMemory).exchange(1);
  // From here the flag and the lock tell readers that the record lives.
  sharedMemory.endCreation();
  ER_TEST_HOOK("record.locked");
  return guard;
}

SharedMemory Endpoint::Impl::findSharedMemory(const std::string& name, const std::string& trustee) {
  const unsigned long dataLength = recordDataLength(name);
  // A name can claim any length; one that no segment could have is not found.
  if (dataLength > std::numeric_limits<std::size_t>::max() - recordSegmentSize(0)) return SharedMemory();
  return SharedMemory::find(name, recordSegmentSize(dataLength), trustee, defaultSpecification);
}

namespace {

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
  if (judgement == RecordJudgement::Listing && getpgid(static_cast<pid_t>(pid)) != -1) return Transient;
  return segment.isClaimed() ? Transient : Stale;
}

}  // namespace

RecordState Endpoint::Impl::getState(SharedMemory& segment, unsigned long pid) {
  return classify(segment, pid, RecordJudgement::Listing);
}

RecordState Endpoint::Impl::classify(SharedMemory& segment, unsigned long pid, RecordJudgement judgement) {
  const MappedAccess mapped;
  if (!segment.isAttached()) return Transient;
  if (livenessFlagOf(segment).load(std::memory_order_relaxed) == 0) return stateOfUnflagged(segment, pid, judgement);
  ER_TEST_HOOK("record.probing");
  const int state = PThreadRobustLockGuard::getMutexState(&headerOf(segment).livenessMutex);
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

namespace {

// The record's header, when it shows the record live: flag set, liveness
// mutex held (what a probe of the mutex would answer with EBUSY).
std::optional<RecordHeader> readLiveHeader(const SegmentReader& reader) {
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
std::optional<Endpoint::Impl::DataPair> readLiveRecord(const SegmentReader& reader, unsigned long dataLength) {
  const std::optional<RecordHeader> header = readLiveHeader(reader);
  if (!header || header->firstLength > dataLength) return std::nullopt;
  std::string bytes(recordDataOffset + dataLength, '\0');
  if (!reader.read(0, bytes.data(), bytes.size()) || std::memcmp(bytes.data(), &*header, sizeof *header) != 0) {
    return std::nullopt;
  }
  std::string second = bytes.substr(recordDataOffset + header->firstLength);
  bytes.resize(recordDataOffset + header->firstLength);
  bytes.erase(0, recordDataOffset);
  return Endpoint::Impl::DataPair{std::move(bytes), std::move(second)};
}

// Opens a record for reading without mapping it, as findSharedMemory finds
// it (unopened, and not logged, for a length that no segment could have).
SegmentReader openRecordReader(const std::string& name, const std::string& trustee, const RecordReadSession& session) {
  const unsigned long dataLength = recordDataLength(name);
  if (dataLength > std::numeric_limits<std::size_t>::max() - recordSegmentSize(0)) return SegmentReader();
  return SegmentReader::open(session.scopeFolder(), name, recordSegmentSize(dataLength), trustee, defaultSpecification);
}

// The mapped path: probes the record's mutex itself, reads a live record,
// clears a stale one away.
RecordRead readMappedRecord(SharedMemory& segment, const std::string& name, const std::string& trustee,
                            unsigned long pid, RecordJudgement judgement) {
  const MappedAccess mapped;
  switch (Endpoint::Impl::classify(segment, pid, judgement)) {
    case Stale:
      // Only the reader whose exchange saw the flag set destroys the mutex.
      if (livenessFlagOf(segment).exchange(0) != 0) pthread_mutex_destroy(&headerOf(segment).livenessMutex);
      segment.markForDeletion();
      ER_TEST_HOOK("record.reclaiming");
      eraseDirectoryName(name, trustee);
      return {RecordRead::Reclaimed, {}};
    case Live: {
      const std::string joined(reinterpret_cast<const char*>(dataOf(segment)), recordDataLength(name));
      const std::uint64_t firstLength = headerOf(segment).firstLength;
      std::string second = joined.substr(firstLength);
      std::string first = joined.substr(0, firstLength);
      // A copy taken while the publisher tore the record down is dropped.
      if (Endpoint::Impl::getState(segment, pid) != Live) return {RecordRead::Transient, {}};
      return {RecordRead::Live, {std::move(first), std::move(second)}};
    }
    default:
      return {RecordRead::Transient, {}};
  }
}

}  // namespace

bool removeUnreadableRecord(const std::string& name, const std::string& trustee) {
  const unsigned long dataLength = recordDataLength(name);
  if (dataLength > std::numeric_limits<std::size_t>::max() - recordSegmentSize(0)) return false;
  return agent::spf::sharedmemory::removeUnclaimedSegment(trustee, name, recordSegmentSize(dataLength));
}

std::vector<std::vector<std::string>> liveRecordNames(const std::string& trustee) {
  std::vector<std::vector<std::string>> names;
  const RecordReadSession session(trustee);
  for (std::string& name : agent::spf::sharedmemory::listSegmentNames(trustee, recordPrefix)) {
    if (recordFormat(name) != 0) continue;
    const SegmentReader reader = openRecordReader(name, trustee, session);
    if (reader.isOpen() && readLiveHeader(reader)) names.push_back({std::move(name)});
  }
  return names;
}

RecordReadSession::RecordReadSession(const std::string& trustee)
    : folder(agent::spf::sharedmemory::ScopeFolder::open(trustee)) {}

Endpoint::Impl::DataPair Endpoint::Impl::getDataPair(const std::string& name, const std::string& trustee) {
  RecordReadSession once;
  return getDataPair(name, trustee, once);
}

Endpoint::Impl::DataPair Endpoint::Impl::getDataPair(const std::string& name, const std::string& trustee,
                                                     RecordReadSession& session) {
  return readRecord(name, trustee, session, RecordJudgement::Listing).data;
}

RecordRead Endpoint::Impl::readRecord(const std::string& name, const std::string& trustee, RecordReadSession& session,
                                      RecordJudgement judgement) {
  if (recordFormat(name) != 0) return {};
  // A name without a segment reads as nothing and stays in the directory:
  // erasing it is explicit maintenance (garbage_collection.hpp), which first
  // makes sure that the segment is really absent.
  {
    const SegmentReader reader = openRecordReader(name, trustee, session);
    if (!reader.isOpen()) return {};
    if (auto live = readLiveRecord(reader, recordDataLength(name))) return {RecordRead::Live, std::move(*live)};
  }
  SharedMemory segment = findSharedMemory(name, trustee);
  if (!segment.isAttached()) return {};
  return readMappedRecord(segment, name, trustee, recordPid(name), judgement);
}

std::vector<std::string> Endpoint::Impl::filterNames(const std::string& groupTag, const std::string& trustee) {
  return listDirectoryNames(groupPrefix(groupTag), trustee);
}

std::size_t Endpoint::Impl::countSynonymEndpoints(const DataPair& data, const std::string& groupTag) {
  std::size_t count = 0;
  RecordReadSession session;
  for (const std::string& name : listDirectoryNames(synonymPrefix(data, groupTag), "")) {
    {
      const SegmentReader reader = openRecordReader(name, "", session);
      if (!reader.isOpen()) continue;
      if (readLiveHeader(reader)) {
        ++count;
        continue;
      }
    }
    SharedMemory segment = findSharedMemory(name, "");
    if (segment.isAttached() && getState(segment, recordPid(name)) != Stale) ++count;
  }
  return count;
}

}  // namespace agent::spf::endpointregistry
