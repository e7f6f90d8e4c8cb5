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

// Limits on what a descriptor may describe. The bytes of the base are written
// by other processes and are not trusted: a descriptor beyond these limits
// (or one whose rows have no room for their count byte) is absurd. Readers
// treat a directory with an absurd active descriptor as empty; writers
// rebuild it as empty. The limits keep every mapping and every listing
// bounded: a listing holds at most one std::string per container byte, so
// 32 MiB of container cannot make it allocate more than about 1 GiB.
constexpr std::size_t maxContainerBytes = std::size_t{32} << 20;
constexpr unsigned long maxRowCount = 1ul << 20;

// An initialisation claim held this long by a process that still exists is
// taken to be stale (a reused pid, or garbage in the base).
constexpr auto staleClaimTimeout = std::chrono::seconds(3);

NamedStringArrayBase& headerOf(SharedMemory& base) { return *static_cast<NamedStringArrayBase*>(base.getPointer()); }

// activeSlot is meant to be 0 or 1; any other value is read as its low bit.
unsigned activeSlotOf(const NamedStringArrayBase& header) { return header.activeSlot & 1u; }

bool isInitialized(NamedStringArrayBase& header) {
  return std::atomic_ref<std::uint8_t>(header.initialized).load() == 1;
}

// rowCount x rowWidth + 9, or nothing when that overflows or breaks the limits.
std::optional<std::size_t> checkedContainerSize(unsigned long rowWidth, unsigned long rowCount) {
  if (rowCount > maxRowCount) return std::nullopt;
  if (rowCount == 0) return NamedStringArray::containerHeaderSize + 1;
  if (rowWidth == 0) return std::nullopt;  // rows without room for a count byte
  if (rowWidth > (maxContainerBytes - NamedStringArray::containerHeaderSize - 1) / rowCount) return std::nullopt;
  return rowWidth * rowCount + NamedStringArray::containerHeaderSize + 1;
}

// The container one descriptor slot describes.
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

unsigned char* rowAt(SharedMemory& container, const ContainerShape& shape, unsigned long index) {
  return static_cast<unsigned char*>(container.getPointer()) + NamedStringArray::containerHeaderSize +
         index * shape.rowWidth;
}

// The element count of a row: 0 for a free row; a negative count byte reads as 1.
unsigned elementCount(const unsigned char* row) {
  const auto count = static_cast<signed char>(row[0]);
  return count < 0 ? 1u : static_cast<unsigned>(count);
}

// End of the string that starts at `start`: its zero byte, or the row's end
// when the row holds none. Never looks past the row.
std::size_t stringEnd(const unsigned char* row, std::size_t width, std::size_t start) {
  const void* zero = std::memchr(row + start, 0, width - start);
  return zero == nullptr ? width : static_cast<std::size_t>(static_cast<const unsigned char*>(zero) - row);
}

// Up to `count` strings of a row, read from byte 1; stops early when the next
// string would start beyond the row's last byte.
NamedStringArray::Entry readStrings(const unsigned char* row, std::size_t width, unsigned count) {
  NamedStringArray::Entry strings;
  std::size_t start = 1;
  for (unsigned k = 0; k < count && start < width; ++k) {
    const std::size_t end = stringEnd(row, width, start);
    strings.emplace_back(reinterpret_cast<const char*>(row + start), end - start);
    start = end + 1;
  }
  return strings;
}

// True when the row's first string begins with `prefix`.
bool firstStringStartsWith(const unsigned char* row, std::size_t width, const std::string& prefix) {
  if (width < 2) return false;  // no byte for a first string
  const std::size_t length = stringEnd(row, width, 1) - 1;
  return length >= prefix.size() && std::memcmp(row + 1, prefix.data(), prefix.size()) == 0;
}

// True when the row holds exactly the strings of `entry` (a free row matches
// the empty entry).
bool rowMatches(const unsigned char* row, std::size_t width, const NamedStringArray::Entry& entry) {
  if (elementCount(row) != entry.size()) return false;
  std::size_t start = 1;
  for (const std::string& element : entry) {
    if (start >= width) return false;
    const std::size_t end = stringEnd(row, width, start);
    if (end - start != element.size() || std::memcmp(row + start, element.data(), element.size()) != 0) return false;
    start = end + 1;
  }
  return true;
}

// Bytes of a used row that a copy must keep: up to and including the zero
// byte of its last string, found without looking at the row's last byte; the
// whole width when the zeros run out or the count byte is negative.
std::size_t usedLength(const unsigned char* row, std::size_t width) {
  const auto count = static_cast<signed char>(row[0]);
  if (count < 0 || width < 2) return width;
  const std::size_t limit = width - 1;
  std::size_t position = 1;
  for (int k = 0; k < count; ++k) {
    const void* zero = position < limit ? std::memchr(row + position, 0, limit - position) : nullptr;
    if (zero == nullptr) return width;
    position = static_cast<std::size_t>(static_cast<const unsigned char*>(zero) - row) + 1;
  }
  return position;
}

// `value` rounded up to a multiple of `increment` (an increment of 0 counts
// as 1); nothing on overflow.
std::optional<unsigned long> roundUp(unsigned long value, unsigned long increment) {
  if (increment == 0) increment = 1;
  const unsigned long remainder = value % increment;
  if (remainder == 0) return value;
  if (value > ~0ul - (increment - remainder)) return std::nullopt;
  return value + (increment - remainder);
}

std::string containerName(const std::string& baseName, unsigned long number) {
  return baseName + std::to_string(number);
}

// Removes the name of a segment whatever its size; only its name is needed,
// so it is opened with the smallest size.
void removeSegment(const std::string& name, const std::string& trustee,
                   SharedMemory::ImplementationSpecifications specifications) {
  SharedMemory segment = SharedMemory::find(name, 1, trustee, specifications);
  if (segment.isAttached()) segment.markForDeletion();
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
  return rowWidth * rowCount + containerHeaderSize + 1;
}

void NamedStringArray::insert(const std::string& element) { insert(Entry{element}); }
void NamedStringArray::erase(const std::string& element) { erase(Entry{element}); }

bool NamedStringArray::initializeBase(SharedMemory& base) {
  if (!base.isAttached()) return false;
  if (base.isCreator()) base.makePersistent();
  NamedStringArrayBase& header = headerOf(base);
  std::atomic_ref<std::uint32_t> initializerPid(header.initializerPid);
  std::uint32_t claimer = 0;
  if (!initializerPid.compare_exchange_strong(claimer, static_cast<std::uint32_t>(getpid()))) {
    if (isInitialized(header)) return true;
    if (getpgid(static_cast<pid_t>(claimer)) == -1) initializerPid.exchange(0);
    return false;
  }
  ER_TEST_HOOK("directory.initialize.claimed");
  PThreadRobustLockGuard::initializeMutex(&header.mutex);
  header.containerNumber[activeSlotOf(header)] = 1;
  std::uint8_t before = 0;
  if (std::atomic_ref<std::uint8_t>(header.initialized).compare_exchange_strong(before, 1)) return true;
  logMessage(mainLogger(), Error, "NamedStringArray::initializeBase: ", "Inconsistent initial state of base.");
  throw std::runtime_error("System Error: Endpoint::NamedStringArray::initializeBase: Inconsistent initial state");
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
  if (!covers(container, shape) || shape.rowWidth < requiredWidth) return;
  for (unsigned long i = 0; i < shape.rowCount; ++i) {
    unsigned char* row = rowAt(container, shape, i);
    if (row[0] != 0) continue;
    std::size_t position = 1;
    for (const std::string& element : entry) {
      std::memcpy(row + position, element.data(), element.size());
      position += element.size();
      row[position++] = 0;
    }
    ER_TEST_HOOK("directory.row.written");
    // The count byte goes last: a writer that dies before it leaves the row free.
    std::atomic_ref<unsigned char>(row[0]).store(static_cast<unsigned char>(entry.size()), std::memory_order_release);
    return;
  }
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
  for (unsigned long i = 0; i < shape.rowCount; ++i) {
    unsigned char* row = rowAt(container, shape, i);
    if (!rowMatches(row, shape.rowWidth, entry)) continue;
    std::atomic_ref<unsigned char>(row[0]).store(0, std::memory_order_release);
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
  for (unsigned long i = 0; i < shape.rowCount; ++i) {
    const unsigned char* row = rowAt(container, shape, i);
    const unsigned count = elementCount(row);
    if (count == 0 || !firstStringStartsWith(row, shape.rowWidth, prefix)) continue;
    entries.push_back(readStrings(row, shape.rowWidth, count));
  }
  return entries;
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

  unsigned long used = 0;
  std::size_t maxLength = 0;
  if (usable) {
    for (unsigned long i = 0; i < old.rowCount; ++i) {
      const unsigned char* row = rowAt(container, old, i);
      if (row[0] == 0) continue;
      ++used;
      maxLength = std::max(maxLength, usedLength(row, old.rowWidth));
    }
  }
  const std::optional<unsigned long> newCount = roundUp(used + (requiredWidth != 0 ? 1 : 0), rowIncrement);
  const std::optional<unsigned long> newWidth =
      roundUp(std::max<unsigned long>(requiredWidth, maxLength), widthIncrement);
  if (!newCount || !newWidth) failToGrow();
  if (usable && *newCount == old.rowCount && *newWidth == old.rowWidth) return;
  const std::optional<std::size_t> newSize = checkedContainerSize(*newWidth, *newCount);
  if (!newSize) failToGrow();

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

  const ContainerShape next{newNumber, *newCount, *newWidth, newSize};
  unsigned long target = 0;
  for (unsigned long i = 0; usable && maxLength != 0 && i < old.rowCount; ++i) {
    const unsigned char* row = rowAt(container, old, i);
    if (row[0] == 0) continue;
    std::memcpy(rowAt(fresh, next, target++), row, maxLength);
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
  const SharedMemory::ImplementationSpecifications specifications{};
  SharedMemory base = SharedMemory::find(baseName, baseSize, "", specifications);
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
  removeSegment(containerName(baseName, header.containerNumber[active]), "", specifications);
  // The container an interrupted reorganisation left, if any.
  const unsigned long leftover = header.containerNumber[active ^ 1u];
  if (leftover != 0 && leftover != header.containerNumber[active]) {
    removeSegment(containerName(baseName, leftover), "", specifications);
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
