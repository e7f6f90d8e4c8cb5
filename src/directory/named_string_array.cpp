#include "directory/named_string_array.hpp"

#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <optional>
#include <stdexcept>

#include "concurrency/robust_lock_guard.hpp"
#include "diagnostics/diagnostics.hpp"
#include "diagnostics/test_hooks.hpp"

namespace agent::spf::endpointregistry {
namespace {

using SharedMemory = NamedStringArray::SharedMemory;

// An initialisation claim held this long by a process that still exists is
// taken to be stale (a reused pid, or garbage in the base).
constexpr auto staleClaimTimeout = std::chrono::seconds(3);

NamedStringArrayBase& headerOf(SharedMemory& base) { return *static_cast<NamedStringArrayBase*>(base.getPointer()); }

// activeSlot is meant to be 0 or 1; any other value is read as its low bit.
unsigned activeSlotOf(const NamedStringArrayBase& header) { return header.activeSlot & 1u; }

bool isInitialized(NamedStringArrayBase& header) {
  return std::atomic_ref<std::uint8_t>(header.initialized).load() == 1;
}

// The container one descriptor slot describes. The bytes of the base are
// written by other processes and are not trusted: a descriptor that cannot
// describe a container (checkedContainerSize) makes readers treat the
// directory as empty and writers rebuild it as empty.
struct ContainerShape {
  unsigned long number = 0;
  unsigned long rowCount = 0;
  unsigned long rowWidth = 0;
  std::optional<std::size_t> size;  // empty when the descriptor is absurd
};

ContainerShape shapeOf(const NamedStringArrayBase& header, unsigned slot) {
  ContainerShape shape{header.containerNumber[slot], header.rowCount[slot], header.rowWidth[slot], std::nullopt};
  shape.size = checkedContainerSize(shape.rowWidth, shape.rowCount);
  return shape;
}

// True when `container` maps every byte `shape` describes.
bool covers(const SharedMemory& container, const ContainerShape& shape) {
  return shape.size && container.isAttached() && container.getSize() >= *shape.size;
}

// The rows of a container that covers() its shape.
ContainerRows rowsOf(SharedMemory& container, const ContainerShape& shape) {
  return ContainerRows(static_cast<unsigned char*>(container.getPointer()) + NamedStringArray::containerHeaderSize,
                       shape.rowCount, shape.rowWidth);
}

std::string containerName(const std::string& baseName, unsigned long number) {
  return baseName + std::to_string(number);
}

// Removes the name of a segment whatever its size; only its name is needed,
// so it is opened with the smallest size. False when it could not be found.
bool removeSegment(const std::string& name, const std::string& trustee,
                   SharedMemory::ImplementationSpecifications implementation) {
  SharedMemory segment = SharedMemory::find(name, 1, trustee, implementation);
  if (!segment.isAttached()) return false;
  segment.markForDeletion();
  return true;
}

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

[[noreturn]] void failToGrow() {
  logMessage(mainLogger(), Error, "NamedStringArray::reorganize: ", "The directory would exceed its size limit.");
  throw std::runtime_error("System error: Endpoint::NamedStringArray::reorganize: Directory size limit exceeded");
}

}  // namespace

NamedStringArray::NamedStringArray(const std::string& name, unsigned long, const std::string& trustee)
    : baseName(makeBaseName(name, 0, trustee)), trustee(trustee) {}

std::string NamedStringArray::makeBaseName(const std::string& name, unsigned long version, const std::string&) {
  if (name.empty()) throw std::invalid_argument("NamedStringArray name cannot be empty.");
  return name + "v" + std::to_string(version);
}

std::string NamedStringArray::makeContainerName(unsigned long number) const { return containerName(baseName, number); }

unsigned long NamedStringArray::containerSize(unsigned long rowWidth, unsigned long rowCount) {
  return rowWidth * rowCount + ContainerRows::headerBytes + ContainerRows::trailerBytes;
}

void NamedStringArray::insert(const std::string& element) { insert(Entry{element}); }
void NamedStringArray::erase(const std::string& element) { erase(Entry{element}); }

bool NamedStringArray::initializeBase(SharedMemory& base) {
  if (!base.isAttached()) return false;
  if (base.isCreator()) base.makePersistent();
  NamedStringArrayBase& header = headerOf(base);
  std::atomic_ref<std::uint32_t> initializerPid(header.initializerPid);
  const auto self = static_cast<std::uint32_t>(getpid());
  std::uint32_t claimer = 0;
  if (!initializerPid.compare_exchange_strong(claimer, self)) {
    if (isInitialized(header)) return true;
    if (getpgid(static_cast<pid_t>(claimer)) == -1) initializerPid.exchange(0);
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

void NamedStringArray::insert(const Entry& entry) {
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

  SharedMemory base = SharedMemory::createOrFind(baseName, baseSize, trustee, implementationSpecifications);
  if (!base.isAttached()) {
    logMessage(mainLogger(), Error, "NamedStringArray::insert(): ", "Base shared memory could not be opened.");
    throw std::runtime_error(
        "System error: Endpoint::NamedStringArray::insert: Base shared memory could not be opened");
  }
  NamedStringArrayBase& header = headerOf(base);

  // Spin until this or another process has initialised the base. A claim by a
  // process that has gone is cleared by initializeBase(); one that outlives
  // any real initialisation by far is withdrawn here, so that a reused pid or
  // a garbage claim cannot hold inserters forever.
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

  PThreadRobustLockGuard guard(&header.mutex);
  const ContainerShape active = shapeOf(header, activeSlotOf(header));
  // An absurd active descriptor leaves `container` unattached; reorganize()
  // then rebuilds the directory as empty.
  SharedMemory container;
  if (active.size) {
    container = SharedMemory::createOrFind(makeContainerName(active.number), *active.size, trustee,
                                           implementationSpecifications);
    if (container.isCreator()) container.makePersistent();
  }
  reorganize(base, container, requiredWidth);

  const ContainerShape shape = shapeOf(header, activeSlotOf(header));
  if (!covers(container, shape)) return;
  ContainerRows rows = rowsOf(container, shape);
  const std::optional<unsigned long> freeRow = rows.firstFreeRow();
  if (!freeRow || !rows.writeStrings(*freeRow, entry)) return;
  ER_TEST_HOOK("directory.row.written");
  // The count byte goes last: a writer that dies before it leaves the row free.
  rows.setCount(*freeRow, static_cast<unsigned char>(entry.size()));
}

void NamedStringArray::erase(const Entry& entry) {
  SharedMemory base = SharedMemory::find(baseName, baseSize, trustee, implementationSpecifications);
  if (!base.isAttached()) {
    logMessage(mainLogger(), RefusedRequest, "NamedStringArray::erase(): ", "Base shared memory could not be found.");
    return;
  }
  NamedStringArrayBase& header = headerOf(base);
  if (!isInitialized(header)) return;
  PThreadRobustLockGuard guard(&header.mutex);
  const ContainerShape shape = shapeOf(header, activeSlotOf(header));
  SharedMemory container;
  if (shape.size) {
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
  std::vector<Entry> entries;
  SharedMemory base = SharedMemory::find(baseName, baseSize, trustee, implementationSpecifications);
  if (!base.isAttached()) return entries;
  NamedStringArrayBase& header = headerOf(base);
  if (!isInitialized(header)) return entries;
  PThreadRobustLockGuard guard(&header.mutex);
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

std::size_t NamedStringArray::eraseIf(const std::function<bool(const Entry&)>& doomed) {
  SharedMemory base = SharedMemory::find(baseName, baseSize, trustee, implementationSpecifications);
  if (!base.isAttached()) return 0;
  NamedStringArrayBase& header = headerOf(base);
  if (!isInitialized(header)) return 0;
  PThreadRobustLockGuard guard(&header.mutex);
  const ContainerShape shape = shapeOf(header, activeSlotOf(header));
  if (shape.rowCount == 0 || !shape.size) return 0;
  SharedMemory container =
      SharedMemory::find(makeContainerName(shape.number), *shape.size, trustee, implementationSpecifications);
  if (!covers(container, shape)) return 0;
  ContainerRows rows = rowsOf(container, shape);
  std::size_t erased = 0;
  for (unsigned long row = 0; row < rows.rowCount(); ++row) {
    if (rows.elementCount(row) == 0 || !doomed(rows.entryAt(row))) continue;
    rows.setCount(row, 0);
    ++erased;
  }
  if (erased != 0) reorganize(base, container, 0);
  return erased;
}

std::size_t NamedStringArray::removeLeftoverContainers() {
  SharedMemory base = SharedMemory::find(baseName, baseSize, trustee, implementationSpecifications);
  if (!base.isAttached()) return 0;
  NamedStringArrayBase& header = headerOf(base);
  if (!isInitialized(header)) return 0;
  PThreadRobustLockGuard guard(&header.mutex);
  // Writers make containers only under this lock: every other one is unused.
  const std::string active = makeContainerName(header.containerNumber[activeSlotOf(header)]);
  std::size_t removed = 0;
  for (const std::string& name : agent::spf::sharedmemory::listSegmentNames(trustee, baseName)) {
    const std::string number = name.substr(baseName.size());
    if (number.empty() || number.find_first_not_of("0123456789") != std::string::npos || name == active) continue;
    if (removeSegment(name, trustee, implementationSpecifications)) ++removed;
  }
  const unsigned inactive = activeSlotOf(header) ^ 1u;
  header.rowCount[inactive] = header.containerNumber[inactive] = header.rowWidth[inactive] = 0;
  return removed;
}

void NamedStringArray::reorganize(SharedMemory& base, SharedMemory& container, unsigned long requiredWidth) {
  deleteInactiveContainer(base, container);
  NamedStringArrayBase& header = headerOf(base);
  const unsigned active = activeSlotOf(header);
  const unsigned inactive = active ^ 1u;
  const ContainerShape old = shapeOf(header, active);
  // A container that cannot be read at its described size (absurd
  // descriptor, missing or short segment) is treated as empty and replaced.
  const bool usable = covers(container, old);

  const ContainerRows::Usage usage = usable ? rowsOf(container, old).usage() : ContainerRows::Usage{};
  const unsigned long used = usage.usedRows;
  const std::size_t maxLength = usage.maxLength;
  const std::optional<unsigned long> newCount = roundUp(used + (requiredWidth != 0 ? 1 : 0), rowIncrement);
  const std::optional<unsigned long> newWidth =
      roundUp(std::max<unsigned long>(requiredWidth, maxLength), widthIncrement);
  if (!newCount || !newWidth) failToGrow();
  if (usable && *newCount == old.rowCount && *newWidth == old.rowWidth) return;
  const std::optional<std::size_t> newSize = checkedContainerSize(*newWidth, *newCount);
  // A directory larger than this library grows one is kept as it is read;
  // only growing past the limit is refused.
  const std::size_t oldSize = usable ? *old.size : 0;
  if (!newSize || (*newSize > maxGrownContainerBytes && *newSize > oldSize)) failToGrow();

  const unsigned long newNumber = old.number + 1 == 0 ? 1 : old.number + 1;
  header.rowCount[inactive] = *newCount;
  header.containerNumber[inactive] = newNumber;
  header.rowWidth[inactive] = *newWidth;

  const std::string freshName = makeContainerName(newNumber);
  SharedMemory fresh = SharedMemory::createOrFind(freshName, *newSize, trustee, implementationSpecifications);
  if (!fresh.isAttached()) {
    // Only a damaged directory leaves a segment under the next number, and
    // one too small to be found blocks the name: it goes, and one more try.
    removeSegment(freshName, trustee, implementationSpecifications);
    fresh = SharedMemory::createOrFind(freshName, *newSize, trustee, implementationSpecifications);
  }
  if (!fresh.isAttached()) {
    header.rowCount[inactive] = header.containerNumber[inactive] = header.rowWidth[inactive] = 0;
    logMessage(mainLogger(), Error, "NamedStringArray::reorganize: ", "Container shared memory could not be created.");
    throw std::runtime_error(
        "System error: Endpoint::NamedStringArray::reorganize: Container shared memory could not be created");
  }
  if (fresh.isCreator()) {
    fresh.makePersistent();
  } else {
    // A segment found under the next number was left by a damaged directory;
    // its old bytes must not show up as entries.
    std::memset(fresh.getPointer(), 0, *newSize);
  }

  if (usable) {
    ContainerRows freshRows = rowsOf(fresh, ContainerShape{newNumber, *newCount, *newWidth, newSize});
    rowsOf(container, old).copyUsedRowsTo(freshRows, maxLength);
  }

  ER_TEST_HOOK("directory.reorganize.created");
  // The flip: from here on readers see the new container.
  std::atomic_ref<std::uint8_t>(header.activeSlot)
      .store(static_cast<std::uint8_t>(inactive), std::memory_order_release);
  if (container.isAttached()) {
    container.markForDeletion();
  } else {
    removeSegment(makeContainerName(old.number), trustee, implementationSpecifications);
  }
  header.rowCount[active] = header.containerNumber[active] = header.rowWidth[active] = 0;
  container = std::move(fresh);
}

void NamedStringArray::deleteInactiveContainer(SharedMemory& base, SharedMemory&) {
  NamedStringArrayBase& header = headerOf(base);
  const unsigned active = activeSlotOf(header);
  const unsigned inactive = active ^ 1u;
  const unsigned long number = header.containerNumber[inactive];
  // Whatever its dimensions: the container of 0 rows that the erase of the
  // last entry builds, and the previous container of a writer that died
  // after the flip, are left behind as well. A damaged base may name the
  // active container in both slots; that one stays.
  if (number != 0 && number != header.containerNumber[active]) {
    removeSegment(makeContainerName(number), trustee, implementationSpecifications);
  }
  header.rowCount[inactive] = header.containerNumber[inactive] = header.rowWidth[inactive] = 0;
}

void NamedStringArray::deleteNamedStringArray(const std::string& name, unsigned long version, const std::string&) {
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
