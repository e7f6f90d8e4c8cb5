#include "endpoint/endpoint_impl.hpp"

#include <unistd.h>
#include <stdexcept>

#include <agent/spf/sharedmemory/mapped_access.hpp>

#include "diagnostics/diagnostics.hpp"
#include "diagnostics/test_hooks.hpp"
#include "directory/segment_names.hpp"
#include "healing/held_records.hpp"
#include "healing/publication_watch.hpp"
#include "record/record_layout.hpp"

namespace agent::spf::endpointregistry {
namespace {

using agent::spf::sharedmemory::MappedAccess;
using agent::spf::sharedmemory::SharedMemory;

constexpr SharedMemory::ImplementationSpecifications defaultSpecification{};

}  // namespace

Endpoint::Impl::Impl(const DataPair& data, const std::string& groupTagArgument, const std::string& trusteeArgument)
    : trustee(checkTrustee(trusteeArgument)),
      groupTag(groupTagArgument),
      name(recordName(data, groupTagArgument, 0, trustee)),
      sharedMemory(createSharedMemory(data)),
      livenessLock(getLivenessLock()),
      directoryEntry(name, trustee),
      data(data) {
  // Named and live: watchers of the scope folder hear of it now.
  sharedMemory.touch();
  // From now on the process heals the record when it is lost.
  bool gone = false;
  watch = healing::watchRecord(trustee, name, &gone);
  try {
    HeldRecords::add(*this);
  } catch (...) {
    healing::unwatchRecord(watch);
    throw;
  }
  if (gone) healing::requestHealing({trustee}, false);
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
  storeRecordData(segment, data, dataLength);
  ER_TEST_HOOK("record.created");
  return segment;
}

PThreadRobustLockGuard Endpoint::Impl::getLivenessLock() {
  const MappedAccess mapped;
  if (!sharedMemory.isAttached()) {
    logMessage(mainLogger(), Error, "Endpoint::getLivenessLock Failed to get the liveness lock");
    throw std::runtime_error("System error: Endpoint::getLivenessLockFailed to get liveness lock");
  }
  PThreadRobustLockGuard guard = lockAsLive(sharedMemory);
  ER_TEST_HOOK("record.locked");
  return guard;
}

PThreadRobustLockGuard Endpoint::Impl::lockAsLive(SharedMemory& segment) {
  pthread_mutex_t* mutex = &recordHeaderOf(segment).livenessMutex;
  PThreadRobustLockGuard::initializeMutex(mutex);
  PThreadRobustLockGuard guard(mutex, LockTerm::Lasting);
  guard.setDestroyOnRelease();
  livenessFlagOf(segment).exchange(1);
  // From here the flag and the lock tell readers that the record lives.
  segment.endCreation();
  return guard;
}

SharedMemory Endpoint::Impl::findSharedMemory(const std::string& name, const std::string& trustee) {
  return RecordReader::findSegment(RecordName(name), trustee);
}

RecordState Endpoint::Impl::getState(SharedMemory& segment, unsigned long pid) {
  return RecordReader::classify(segment, pid, RecordJudgement::Listing);
}

Endpoint::Impl::DataPair Endpoint::Impl::getDataPair(const std::string& name, const std::string& trustee) {
  return RecordReader(trustee).read(RecordName(name)).data;
}

std::vector<std::string> Endpoint::Impl::filterNames(const std::string& groupTag, const std::string& trustee) {
  return listDirectoryNames(groupPrefix(groupTag), trustee);
}

std::size_t Endpoint::Impl::countSynonymEndpoints(const DataPair& data, const std::string& groupTag) {
  std::size_t count = 0;
  RecordReader reader("");
  for (std::string& name : listDirectoryNames(synonymPrefix(data, groupTag), "")) {
    if (reader.isPublished(RecordName(std::move(name)))) ++count;
  }
  return count;
}

}  // namespace agent::spf::endpointregistry
