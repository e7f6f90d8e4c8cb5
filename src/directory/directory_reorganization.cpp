// The directory's containers replaced by new ones: compacted and resized
// (reorganize), or rebuilt from what can be read and what its Recovery
// yields (rebuild).
#include <algorithm>
#include <atomic>
#include <cstring>
#include <stdexcept>

#include "diagnostics/diagnostics.hpp"
#include "diagnostics/test_hooks.hpp"
#include "directory/directory_rebuild.hpp"
#include "directory/named_string_array.hpp"

namespace agent::spf::endpointregistry {
namespace {

using SharedMemory = NamedStringArray::SharedMemory;

[[noreturn]] void failToGrow() {
  logMessage(mainLogger(), Error, "NamedStringArray::reorganize: ", "The directory would exceed its size limit.");
  throw std::runtime_error("System error: Endpoint::NamedStringArray::reorganize: Directory size limit exceeded");
}

// The size of a container of `count` rows of `width` bytes that a writer
// may make: within the growth limit, unless the old container (of
// `oldSize` bytes) was larger already.
std::size_t grownSize(std::optional<unsigned long> width, std::optional<unsigned long> count, std::size_t oldSize) {
  if (!width || !count) failToGrow();
  const std::optional<std::size_t> size = checkedContainerSize(*width, *count);
  if (!size || (*size > maxGrownContainerBytes && *size > oldSize)) failToGrow();
  return *size;
}

}  // namespace

bool removeSegment(const std::string& name, const std::string& trustee,
                   SharedMemory::ImplementationSpecifications implementation) {
  // Only its name is needed, so it is opened with the smallest size.
  SharedMemory segment = SharedMemory::find(name, 1, trustee, implementation);
  if (!segment.isAttached()) return false;
  segment.markForDeletion();
  return true;
}

void NamedStringArray::reorganize(SharedMemory& base, SharedMemory& container, unsigned long requiredWidth) {
  deleteInactiveContainer(base, container);
  NamedStringArrayBase& header = headerOf(base);
  const ContainerShape old = shapeOf(header, activeSlotOf(header));
  // A container that cannot be read at its described size (absurd
  // descriptor, missing or short segment) is treated as empty and replaced.
  const bool usable = covers(container, old);

  const ContainerRows::Usage usage = usable ? rowsOf(container, old).usage() : ContainerRows::Usage{};
  const std::optional<unsigned long> newCount = roundUp(usage.usedRows + (requiredWidth != 0 ? 1 : 0), rowIncrement);
  const std::optional<unsigned long> newWidth =
      roundUp(std::max<unsigned long>(requiredWidth, usage.maxLength), widthIncrement);
  if (usable && newCount && newWidth && *newCount == old.rowCount && *newWidth == old.rowWidth) return;
  // A directory larger than this library grows one is kept as it is read;
  // only growing past the limit is refused.
  (void)grownSize(newWidth, newCount, usable ? *old.size : 0);

  SharedMemory fresh = makeNextContainer(header, *newWidth, *newCount);
  if (usable) {
    ContainerRows freshRows = rowsOf(fresh, shapeOf(header, activeSlotOf(header) ^ 1u));
    rowsOf(container, old).copyUsedRowsTo(freshRows, usage.maxLength);
  }
  switchTo(base, container, fresh);
}

bool NamedStringArray::needsRebuild(SharedMemory& base, SharedMemory& container, bool lost) {
  if (recovery.entries == nullptr) return false;
  NamedStringArrayBase& header = headerOf(base);
  const ContainerShape active = shapeOf(header, activeSlotOf(header));
  if (lost || !covers(container, active)) return true;
  // Never used: its entries, if any, were lost with a directory before it.
  if (active.number == 1 && active.rowCount == 0) return true;
  if (recovery.wellFormedRow == nullptr) return false;
  const ContainerRows rows = rowsOf(container, active);
  for (unsigned long row = 0; row < rows.rowCount(); ++row) {
    if (rows.elementCount(row) != 0 && !recovery.wellFormedRow(rows, row)) return true;
  }
  return false;
}

std::size_t NamedStringArray::rebuild(SharedMemory& base, SharedMemory& container, unsigned long requiredWidth,
                                      const Entry* excluded, const std::vector<Entry>& recovered) {
  deleteInactiveContainer(base, container);
  NamedStringArrayBase& header = headerOf(base);
  const ContainerShape old = shapeOf(header, activeSlotOf(header));
  const bool readable = covers(container, old);
  const std::optional<ContainerRows> oldRows =
      readable ? std::optional<ContainerRows>(rowsOf(container, old)) : std::nullopt;
  const std::optional<RebuildPlan> plan = planRebuild(oldRows ? &*oldRows : nullptr, recovery.wellFormedRow, recovered,
                                                      excluded, requiredWidth, rowIncrement, widthIncrement);
  (void)grownSize(plan ? std::optional<unsigned long>(plan->rowWidth) : std::nullopt,
                  plan ? std::optional<unsigned long>(plan->rowCount) : std::nullopt, readable ? *old.size : 0);

  SharedMemory fresh = makeNextContainer(header, plan->rowWidth, plan->rowCount);
  ContainerRows rows = rowsOf(fresh, shapeOf(header, activeSlotOf(header) ^ 1u));
  writePlan(*plan, rows);
  switchTo(base, container, fresh);
  if (!plan->entries.empty()) {
    logMessage(mainLogger(), RefusedRequest, "NamedStringArray::rebuild(): ", "Directory ", baseName, " rebuilt with ",
               plan->entries.size(), " entries.");
  }
  return plan->entries.size();
}

SharedMemory NamedStringArray::makeNextContainer(NamedStringArrayBase& header, unsigned long width,
                                                 unsigned long count) {
  const unsigned active = activeSlotOf(header);
  const unsigned inactive = active ^ 1u;
  const unsigned long number = header.containerNumber[active];
  const unsigned long newNumber = number + 1 == 0 ? 1 : number + 1;
  const std::size_t size = *checkedContainerSize(width, count);
  header.rowCount[inactive] = count;
  header.containerNumber[inactive] = newNumber;
  header.rowWidth[inactive] = width;

  const std::string freshName = makeContainerName(newNumber);
  SharedMemory fresh = SharedMemory::createOrFind(freshName, size, trustee, implementationSpecifications);
  if (!fresh.isAttached()) {
    // Only a damaged directory leaves a segment under the next number, and
    // one too small to be found blocks the name: it goes, and one more try.
    removeSegment(freshName, trustee, implementationSpecifications);
    fresh = SharedMemory::createOrFind(freshName, size, trustee, implementationSpecifications);
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
    std::memset(fresh.getPointer(), 0, size);
  }
  return fresh;
}

void NamedStringArray::switchTo(SharedMemory& base, SharedMemory& container, SharedMemory& fresh) {
  NamedStringArrayBase& header = headerOf(base);
  const unsigned active = activeSlotOf(header);
  const unsigned long oldNumber = header.containerNumber[active];
  ER_TEST_HOOK("directory.reorganize.created");
  // The flip: from here on readers see the new container.
  std::atomic_ref<std::uint8_t>(header.activeSlot)
      .store(static_cast<std::uint8_t>(active ^ 1u), std::memory_order_release);
  if (container.isAttached()) {
    container.markForDeletion();
  } else {
    removeSegment(makeContainerName(oldNumber), trustee, implementationSpecifications);
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

}  // namespace agent::spf::endpointregistry
