// Maintenance of a directory, each step under its lock: rows erased by a
// predicate, unused containers removed, and a damaged or lost directory
// rebuilt from its Recovery.
#include <agent/spf/sharedmemory/mapped_access.hpp>

#include "concurrency/robust_lock_guard.hpp"
#include "directory/named_string_array.hpp"

namespace agent::spf::endpointregistry {
namespace {

using agent::spf::sharedmemory::MappedAccess;
using SharedMemory = NamedStringArray::SharedMemory;

}  // namespace

std::size_t NamedStringArray::eraseIf(const std::function<bool(const Entry&)>& doomed) {
  const MappedAccess mapped;
  SharedMemory base = SharedMemory::find(baseName, baseSize, trustee, implementationSpecifications);
  if (!base.isAttached()) return 0;
  NamedStringArrayBase& header = headerOf(base);
  if (!isInitialized(header)) return 0;
  const std::optional<PThreadRobustLockGuard> guard = lockBase(header);
  if (!guard) return 0;
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
  const MappedAccess mapped;
  SharedMemory base = SharedMemory::find(baseName, baseSize, trustee, implementationSpecifications);
  if (!base.isAttached()) return 0;
  NamedStringArrayBase& header = headerOf(base);
  if (!isInitialized(header)) return 0;
  const std::optional<PThreadRobustLockGuard> guard = lockBase(header);
  if (!guard) return 0;
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

bool NamedStringArray::repair() {
  const MappedAccess mapped;
  if (recovery.entries == nullptr) return false;
  // A missing directory is made anew only when there is something to put in it.
  std::vector<Entry> recovered;
  bool recoveredYet = false;
  const SharedMemory existing = SharedMemory::find(baseName, baseSize, trustee, implementationSpecifications);
  if (!existing.isAttached()) {
    recovered = recovery.entries(trustee);
    recoveredYet = true;
    if (recovered.empty()) return false;
  }
  bool replaced = false;
  SharedMemory base = openBaseForWriting(&replaced);
  awaitInitialized(base);
  std::optional<PThreadRobustLockGuard> guard = lockBase(headerOf(base));
  if (!guard) {
    base = openBaseForWriting(&replaced);
    awaitInitialized(base);
    guard = lockBase(headerOf(base));
    if (!guard) return replaced;
  }
  bool lost = false;
  SharedMemory container = openActiveContainer(base, lost);
  if (!needsRebuild(base, container, lost)) return replaced;
  if (!recoveredYet) recovered = recovery.entries(trustee);
  // Nothing to rebuild a never-used directory with: it stays as it is.
  const ContainerShape active = shapeOf(headerOf(base), activeSlotOf(headerOf(base)));
  if (recovered.empty() && !lost && active.number == 1 && active.rowCount == 0) return replaced;
  rebuild(base, container, 0, nullptr, recovered);
  return true;
}

}  // namespace agent::spf::endpointregistry
