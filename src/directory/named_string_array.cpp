#include "directory/named_string_array.hpp"

#include <unistd.h>
#include <atomic>
#include <chrono>
#include <cstring>
#include <optional>
#include <stdexcept>

#include <agent/spf/sharedmemory/mapped_access.hpp>

#include "concurrency/process_probe.hpp"
#include "concurrency/robust_lock_guard.hpp"
#include "diagnostics/diagnostics.hpp"
#include "diagnostics/test_hooks.hpp"

namespace agent::spf::endpointregistry {
namespace {

using agent::spf::sharedmemory::MappedAccess;
using SharedMemory = NamedStringArray::SharedMemory;

// An initialisation claim held this long by a process that still exists is
// taken to be stale (a reused pid, a stopped claimer, or garbage in the
// base).
constexpr auto staleClaimTimeout = std::chrono::seconds(3);

// The first eight bytes of the base, as one word: initializerPid,
// initialized, activeSlot and padding.
struct ClaimWord {
  std::uint32_t initializerPid;
  std::uint8_t initialized;
  std::uint8_t rest[3];
};
static_assert(sizeof(ClaimWord) == sizeof(std::uint64_t));
static_assert(offsetof(NamedStringArrayBase, initializerPid) == 0 && offsetof(NamedStringArrayBase, initialized) == 4);

// Sets `initialized` only while the claim is still `self`'s, in one atomic
// step, so that a claimer whose claim was withdrawn meanwhile never marks a
// base that another claimer is setting up. False when the claim is gone (the
// base is then whoever took it over's to finish). A claim that stands on a
// base marked initialised already is the inconsistency of a base claimed as
// fresh: logged and thrown.
bool markInitializedWhileClaimed(NamedStringArrayBase& header, std::uint32_t self) {
  auto* word = reinterpret_cast<std::uint64_t*>(&header);
  std::uint64_t seen = __atomic_load_n(word, __ATOMIC_SEQ_CST);
  for (;;) {
    ClaimWord current;
    std::memcpy(&current, &seen, sizeof current);
    if (current.initializerPid != self) return false;
    if (current.initialized != 0) {
      logMessage(mainLogger(), Error, "NamedStringArray::initializeBase: ", "Inconsistent initial state of base.");
      throw std::runtime_error("System Error: Endpoint::NamedStringArray::initializeBase: Inconsistent initial state");
    }
    ClaimWord done = current;
    done.initialized = 1;
    std::uint64_t desired = 0;
    std::memcpy(&desired, &done, sizeof desired);
    if (__atomic_compare_exchange_n(word, &seen, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) return true;
  }
}

[[noreturn]] void failToOpenBase() {
  logMessage(mainLogger(), Error, "NamedStringArray::insert(): ", "Base shared memory could not be opened.");
  throw std::runtime_error("System error: Endpoint::NamedStringArray::insert: Base shared memory could not be opened");
}

}  // namespace

BaseDamage damageOf(const NamedStringArrayBase& header) noexcept {
  const auto initialized = std::atomic_ref<std::uint8_t>(const_cast<std::uint8_t&>(header.initialized)).load();
  const auto activeSlot = std::atomic_ref<std::uint8_t>(const_cast<std::uint8_t&>(header.activeSlot)).load();
  BaseDamage damage;
  damage.initializedOutOfRange = initialized > 1;
  damage.activeSlotOutOfRange = activeSlot > 1;
  // The mutex is set up before `initialized` is set: once initialised, only
  // the kind directories are made with will do (a zeroed one would be a
  // mutex that nobody could ever take back from a dead holder).
  damage.mutexOfForeignKind = initialized == 1 ? !PThreadRobustLockGuard::hasOwnKind(&header.mutex)
                                               : !PThreadRobustLockGuard::hasUnsetOrOwnKind(&header.mutex);
  return damage;
}

NamedStringArray::NamedStringArray(const std::string& name, unsigned long, const std::string& trustee)
    : baseName(makeBaseName(name, 0, trustee)), trustee(trustee) {}

std::string NamedStringArray::makeBaseName(const std::string& name, unsigned long version, const std::string&) {
  if (name.empty()) throw std::invalid_argument("NamedStringArray name cannot be empty.");
  return name + "v" + std::to_string(version);
}

std::string NamedStringArray::makeContainerName(unsigned long number) const { return containerName(baseName, number); }

unsigned long NamedStringArray::containerSize(unsigned long rowWidth, unsigned long rowCount) {
  return rowWidth * rowCount + ContainerRows::frameBytes;
}

void NamedStringArray::insert(const std::string& element) { insert(Entry{element}); }
void NamedStringArray::erase(const std::string& element) { erase(Entry{element}); }

bool NamedStringArray::initializeBase(SharedMemory& base) {
  const MappedAccess mapped;
  if (!base.isAttached()) return false;
  if (base.isCreator()) base.makePersistent();
  NamedStringArrayBase& header = headerOf(base);
  std::atomic_ref<std::uint32_t> initializerPid(header.initializerPid);
  const auto self = static_cast<std::uint32_t>(getpid());
  std::uint32_t claimer = 0;
  if (!initializerPid.compare_exchange_strong(claimer, self)) {
    if (isInitialized(header)) return true;
    if (!processExists(claimer)) initializerPid.exchange(0);
    return false;
  }
  ER_TEST_HOOK("directory.initialize.claimed");
  // A claim can be withdrawn while its claimer still works (after a long
  // stop, or by a process in another pid namespace, to which the claimer's
  // pid means nothing), and then be taken by another process. So each step
  // is one atomic write that only turns the zero bytes of a new base into
  // their initial values: taken twice, or late, it changes nothing.
  PThreadRobustLockGuard::initializeZeroedMutex(&header.mutex);
  std::uint64_t none = 0;
  std::atomic_ref<std::uint64_t>(header.containerNumber[activeSlotOf(header)]).compare_exchange_strong(none, 1);
  if (markInitializedWhileClaimed(header, self)) return true;
  return isInitialized(header);
}

void NamedStringArray::insert(const Entry& entry) { (void)insertEntry(entry, false); }

bool NamedStringArray::insertUnlessPresent(const Entry& entry) { return insertEntry(entry, true); }

bool NamedStringArray::insertEntry(const Entry& entry, bool unlessPresent) {
  const MappedAccess mapped;
  if (entry.size() > maxElements) {
    logMessage(mainLogger(), Error,
               "NamedStringArray::insert(): ", "The new entry cannot have more than 127 elements.");
    throw std::invalid_argument("NamedStringArray new entry cannot have more than 127 elements");
  }
  std::size_t totalLength = 0;
  for (const std::string& element : entry) totalLength += element.size();
  if (entry.empty() || totalLength == 0) {
    logMessage(mainLogger(), Error, "NamedStringArray::insert(): ", "The new entry cannot be empty.");
    throw std::invalid_argument("NamedStringArray new entry cannot be empty");
  }
  const unsigned long requiredWidth = totalLength + entry.size() + 1;

  // A base found damaged when it is locked (cut or overwritten since it was
  // opened) is opened again, which replaces it.
  SharedMemory base = openBaseForWriting();
  awaitInitialized(base);
  std::optional<PThreadRobustLockGuard> guard = lockBase(headerOf(base));
  if (!guard) {
    base = openBaseForWriting();
    awaitInitialized(base);
    guard = lockBase(headerOf(base));
    if (!guard) failToOpenBase();
  }
  NamedStringArrayBase& header = headerOf(base);
  bool lost = false;
  SharedMemory container = openActiveContainer(base, lost);
  if (needsRebuild(base, container, lost)) {
    rebuild(base, container, requiredWidth, &entry, recovery.entries(trustee));
  }
  if (unlessPresent) {
    const ContainerShape shape = shapeOf(header, activeSlotOf(header));
    if (covers(container, shape) && rowsOf(container, shape).find(entry)) return false;
  }
  // An absurd active descriptor leaves `container` unattached; reorganize()
  // then rebuilds the directory as empty.
  reorganize(base, container, requiredWidth);

  const ContainerShape shape = shapeOf(header, activeSlotOf(header));
  if (!covers(container, shape)) return false;
  ContainerRows rows = rowsOf(container, shape);
  const std::optional<unsigned long> freeRow = rows.firstFreeRow();
  if (!freeRow || !rows.writeStrings(*freeRow, entry)) return false;
  ER_TEST_HOOK("directory.row.written");
  // The count byte goes last: a writer that dies before it leaves the row free.
  rows.setCount(*freeRow, static_cast<unsigned char>(entry.size()));
  return true;
}

SharedMemory NamedStringArray::openBaseForWriting(bool* replaced) {
  SharedMemory base = SharedMemory::createOrFind(baseName, baseSize, trustee, implementationSpecifications);
  if (recovery.entries != nullptr) {
    // A base too short to be found, that nobody is still creating, or one
    // holding what no writer writes, is replaced by a new one, which is then
    // rebuilt as never used. A process that still has the old one mapped
    // goes on with it until its next operation.
    bool replacing = false;
    if (!base.isAttached() && agent::spf::sharedmemory::removeUnclaimedSegment(trustee, baseName, baseSize)) {
      replacing = true;
    } else if (base.isAttached() && looksDamaged(headerOf(base))) {
      base.markForDeletion();
      replacing = true;
    }
    if (replacing) base = SharedMemory::createOrFind(baseName, baseSize, trustee, implementationSpecifications);
    if (replaced != nullptr) *replaced = replacing;
  }
  if (!base.isAttached()) failToOpenBase();
  return base;
}

void NamedStringArray::awaitInitialized(SharedMemory& base) {
  // Spin until this or another process has initialised the base. A claim by a
  // process that has gone is cleared by initializeBase(); one that outlives
  // any real initialisation by far is withdrawn here, so that a reused pid, a
  // stopped claimer or a garbage claim cannot hold inserters forever.
  NamedStringArrayBase& header = headerOf(base);
  std::uint32_t claimSeen = 0;
  auto claimSince = std::chrono::steady_clock::now();
  while (!initializeBase(base)) {
    std::atomic_ref<std::uint32_t> initializerPid(header.initializerPid);
    const std::uint32_t claim = initializerPid.load();
    const auto now = std::chrono::steady_clock::now();
    if (claim != claimSeen) {
      claimSeen = claim;
      claimSince = now;
    } else if (claim != 0 && now - claimSince > staleClaimTimeout) {
      std::uint32_t expected = claim;
      initializerPid.compare_exchange_strong(expected, 0);
      claimSince = now;
    }
  }
}

std::optional<PThreadRobustLockGuard> NamedStringArray::lockBase(NamedStringArrayBase& header) const {
  const bool heals = recovery.entries != nullptr;
  if (heals && looksDamaged(header)) return std::nullopt;
  try {
    return std::optional<PThreadRobustLockGuard>(std::in_place, &header.mutex);
  } catch (const std::runtime_error&) {
    // Refused for its kind: cut or overwritten since it was looked at.
    if (heals && !PThreadRobustLockGuard::hasOwnKind(&header.mutex)) return std::nullopt;
    throw;
  }
}

SharedMemory NamedStringArray::openActiveContainer(SharedMemory& base, bool& lost) {
  const ContainerShape active = shapeOf(headerOf(base), activeSlotOf(headerOf(base)));
  lost = false;
  SharedMemory container;
  if (!active.size) return container;
  const std::string name = makeContainerName(active.number);
  container = SharedMemory::createOrFind(name, *active.size, trustee, implementationSpecifications);
  if (!container.isAttached() && recovery.entries != nullptr &&
      agent::spf::sharedmemory::removeUnclaimedSegment(trustee, name, *active.size)) {
    container = SharedMemory::createOrFind(name, *active.size, trustee, implementationSpecifications);
  }
  if (container.isCreator()) {
    container.makePersistent();
    lost = active.rowCount > 0;
  }
  return container;
}

void NamedStringArray::erase(const Entry& entry) {
  const MappedAccess mapped;
  SharedMemory base = SharedMemory::find(baseName, baseSize, trustee, implementationSpecifications);
  if (!base.isAttached()) {
    logMessage(mainLogger(), RefusedRequest, "NamedStringArray::erase(): ", "Base shared memory could not be found.");
    return;
  }
  NamedStringArrayBase& header = headerOf(base);
  if (!isInitialized(header)) return;
  const std::optional<PThreadRobustLockGuard> guard = lockBase(header);
  const ContainerShape shape = shapeOf(header, activeSlotOf(header));
  SharedMemory container;
  if (shape.size && guard) {
    container = SharedMemory::find(makeContainerName(shape.number), *shape.size, trustee, implementationSpecifications);
  }
  if (!covers(container, shape)) {
    logMessage(mainLogger(), RefusedRequest,
               "NamedStringArray::erase(): ", "Container shared memory could not be found.");
    return;
  }
  ContainerRows rows = rowsOf(container, shape);
  if (const std::optional<unsigned long> row = rows.find(entry)) {
    rows.setCount(*row, 0);
    reorganize(base, container, 0);
    return;
  }
  logMessage(mainLogger(), RefusedRequest, "NamedStringArray::erase(): ", "Entry could not be found.");
}

std::vector<NamedStringArray::Entry> NamedStringArray::listEntries(const std::string& prefix) {
  const MappedAccess mapped;
  std::vector<Entry> entries;
  SharedMemory base = SharedMemory::find(baseName, baseSize, trustee, implementationSpecifications);
  if (!base.isAttached()) return entries;
  NamedStringArrayBase& header = headerOf(base);
  if (!isInitialized(header)) return entries;
  // A damaged base is not locked: its mutex may be of any kind.
  const std::optional<PThreadRobustLockGuard> guard = lockBase(header);
  if (!guard) return entries;
  // A writer that died inside a reorganisation left the container it was
  // building; it goes with this listing rather than with the next write.
  if (header.containerNumber[activeSlotOf(header) ^ 1u] != 0) {
    SharedMemory unused;
    deleteInactiveContainer(base, unused);
  }
  const ContainerShape shape = shapeOf(header, activeSlotOf(header));
  if (shape.rowCount == 0 || !shape.size) return entries;
  SharedMemory container =
      SharedMemory::find(makeContainerName(shape.number), *shape.size, trustee, implementationSpecifications);
  if (!covers(container, shape)) return entries;
  return rowsOf(container, shape).list(prefix);
}

void NamedStringArray::deleteNamedStringArray(const std::string& name, unsigned long version, const std::string&) {
  const MappedAccess mapped;
  const std::string baseName = makeBaseName(name, version, "");
  const SharedMemory::ImplementationSpecifications implementation{};
  SharedMemory base = SharedMemory::find(baseName, baseSize, "", implementation);
  if (!base.isAttached()) {
    logMessage(mainLogger(), RefusedRequest,
               "NamedStringArray::deleteNamedStringArray(): ", "Base shared memory could not be found.");
    return;
  }
  base.markForDeletion();
  NamedStringArrayBase& header = headerOf(base);
  if (!isInitialized(header)) return;
  PThreadRobustLockGuard guard(&header.mutex);
  guard.setDestroyOnRelease();
  const unsigned active = activeSlotOf(header);
  removeSegment(containerName(baseName, header.containerNumber[active]), "", implementation);
  // The container an interrupted reorganisation left, if any.
  const unsigned long leftover = header.containerNumber[active ^ 1u];
  if (leftover != 0 && leftover != header.containerNumber[active]) {
    removeSegment(containerName(baseName, leftover), "", implementation);
  }
}

std::pair<unsigned long, unsigned long> NamedStringArray::getDimensions(const std::string& name, unsigned long version,
                                                                        const std::string&) {
  const MappedAccess mapped;
  SharedMemory base =
      SharedMemory::find(makeBaseName(name, version, ""), baseSize, "", SharedMemory::ImplementationSpecifications{});
  if (!base.isAttached()) return {0, 0};
  NamedStringArrayBase& header = headerOf(base);
  if (!isInitialized(header)) return {0, 0};
  PThreadRobustLockGuard guard(&header.mutex);
  const ContainerShape shape = shapeOf(header, activeSlotOf(header));
  if (!shape.size) return {0, 0};
  return {shape.rowCount, shape.rowWidth};
}

std::string NamedStringArray::getBaseTrustee() {
  SharedMemory base = SharedMemory::find(baseName, baseSize, "", implementationSpecifications);
  return base.isAttached() ? base.getTrustee() : std::string();
}

}  // namespace agent::spf::endpointregistry
