#include "raw_directory.hpp"

#include <cstring>
#include <optional>

#include <agent/spf/sharedmemory/mapped_access.hpp>
#include <agent/spf/sharedmemory/shared_memory.hpp>

#include "diagnostics/diagnostics.hpp"
#include "directory/directory_entry.hpp"
#include "directory/directory_layout.hpp"
#include "directory/named_string_array.hpp"
#include "directory/segment_names.hpp"

namespace agent::spf::endpointregistry::tool {
namespace {

using agent::spf::sharedmemory::SharedMemory;

constexpr int copyAttempts = 5;

constexpr SharedMemory::ImplementationSpecifications defaultSpecification{};

// What in a base no writer writes, in words.
std::vector<std::string> baseDamage(const NamedStringArrayBase& header) {
  const BaseDamage found = damageOf(header);
  std::vector<std::string> damage;
  if (found.initializedOutOfRange) damage.push_back("initialized holds " + std::to_string(header.initialized));
  if (found.activeSlotOutOfRange) damage.push_back("activeSlot holds " + std::to_string(header.activeSlot));
  if (found.mutexOfForeignKind) {
    damage.push_back("the mutex is of kind " + std::to_string(header.mutex.__data.__kind) +
                     ", not the one a directory is made with");
  }
  return damage;
}

void copyHeader(const SharedMemory& base, RawDirectory& directory) {
  NamedStringArrayBase header;
  std::memcpy(&header, base.getPointer(), sizeof header);
  directory.damage = baseDamage(header);
  directory.initializerPid = header.initializerPid;
  directory.initialized = header.initialized;
  directory.activeSlotByte = header.activeSlot;
  for (unsigned slot = 0; slot < 2; ++slot) {
    directory.slots[slot] = {header.rowWidth[slot], header.rowCount[slot], header.containerNumber[slot]};
  }
}

bool sameDescriptor(const RawDirectory& a, const RawDirectory& b) {
  const RawSlot& x = a.slots[a.activeSlot()];
  const RawSlot& y = b.slots[b.activeSlot()];
  return a.activeSlotByte == b.activeSlotByte && x.rowWidth == y.rowWidth && x.rowCount == y.rowCount &&
         x.containerNumber == y.containerNumber;
}

// The used rows of a copied container, read the way the library reads them;
// returns how many of them are not well formed.
std::size_t parseRows(std::vector<unsigned char>& bytes, const ContainerShape& shape, RawDirectory& directory) {
  const ContainerRows rows = rowsOf(bytes.data(), shape);
  std::size_t malformed = 0;
  for (unsigned long i = 0; i < rows.rowCount(); ++i) {
    if (rows.elementCount(i) == 0) {
      ++directory.freeRows;
      continue;
    }
    directory.rows.push_back({i, rows.countByte(i), rows.entryAt(i)});
    if (!wellFormedRecordRow(rows, i)) ++malformed;
  }
  return malformed;
}

}  // namespace

RawDirectory readRawDirectory(const std::string& trustee) {
  // Another process may truncate what is mapped here at any moment.
  const agent::spf::sharedmemory::MappedAccess mapped;
  RawDirectory directory;
  directory.trustee = trustee;
  directory.baseName = NamedStringArray::makeBaseName(registryDirectoryName, 0, trustee);
  const SharedMemory base =
      SharedMemory::find(directory.baseName, NamedStringArray::baseSize, trustee, defaultSpecification);
  if (!base.isAttached()) {
    if (agent::spf::sharedmemory::segmentPresence(trustee, directory.baseName) ==
        agent::spf::sharedmemory::SegmentPresence::Present) {
      directory.damage.push_back("the base exists but cannot be read (shorter than its " +
                                 std::to_string(NamedStringArray::baseSize) + " bytes, or refused)");
    }
    return directory;
  }
  directory.baseFound = true;
  const NamedStringArray array(registryDirectoryName, 0, trustee);

  for (int attempt = 0; attempt < copyAttempts; ++attempt) {
    copyHeader(base, directory);
    directory.containerName.clear();
    directory.containerFound = false;
    directory.problem.clear();
    directory.freeRows = 0;
    directory.rows.clear();
    if (directory.initialized != 1) {
      directory.problem = "the base is not initialised";
      return directory;
    }
    const RawSlot slot = directory.slots[directory.activeSlot()];
    const ContainerShape shape{slot.containerNumber, slot.rowCount, slot.rowWidth,
                               checkedContainerSize(slot.rowWidth, slot.rowCount)};
    directory.containerName = array.makeContainerName(slot.containerNumber);
    const std::optional<std::size_t> size = shape.size;
    if (!size) {
      directory.problem = "the active descriptor is out of bounds";
      return directory;
    }
    const SharedMemory container = SharedMemory::find(directory.containerName, *size, trustee, defaultSpecification);
    if (!container.isAttached()) {
      directory.problem = "the active container is missing or smaller than described";
    } else {
      directory.containerFound = true;
      const auto* start = static_cast<const unsigned char*>(container.getPointer());
      std::vector<unsigned char> bytes(start, start + *size);
      const std::size_t malformed = parseRows(bytes, shape, directory);
      if (malformed != 0) directory.damage.push_back(std::to_string(malformed) + " used row(s) hold no record name");
    }
    RawDirectory after;
    copyHeader(base, after);
    if (sameDescriptor(directory, after)) return directory;
  }
  directory.problem = "the directory kept changing while it was read";
  return directory;
}

}  // namespace agent::spf::endpointregistry::tool
