#include "raw_directory.hpp"

#include <cstring>
#include <optional>

#include <agent/spf/sharedmemory/mapped_access.hpp>
#include <agent/spf/sharedmemory/shared_memory.hpp>

#include "concurrency/robust_lock_guard.hpp"
#include "diagnostics/diagnostics.hpp"
#include "directory/named_string_array.hpp"
#include "directory/segment_names.hpp"

namespace agent::spf::endpointregistry::tool {
namespace {

using agent::spf::sharedmemory::SharedMemory;

constexpr int copyAttempts = 5;

constexpr SharedMemory::ImplementationSpecifications defaultSpecification{};

// rowCount x rowWidth + 9, or nothing when the descriptor is absurd.
std::optional<std::size_t> containerBytes(const RawSlot& slot) {
  return checkedContainerSize(slot.rowWidth, slot.rowCount);
}

// What in a base no writer writes.
std::vector<std::string> baseDamage(const NamedStringArrayBase& header) {
  std::vector<std::string> damage;
  if (header.initialized > 1) damage.push_back("initialized holds " + std::to_string(header.initialized));
  if (header.activeSlot > 1) damage.push_back("activeSlot holds " + std::to_string(header.activeSlot));
  const bool kindFits = header.initialized == 1 ? PThreadRobustLockGuard::hasOwnKind(&header.mutex)
                                                : PThreadRobustLockGuard::hasUnsetOrOwnKind(&header.mutex);
  if (!kindFits) {
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

// The strings of one row, read the way the library reads them: from byte 1,
// each up to its zero byte or the row's end, at most `count` of them.
std::vector<std::string> rowStrings(const unsigned char* row, std::size_t width, unsigned count) {
  std::vector<std::string> strings;
  std::size_t start = 1;
  for (unsigned k = 0; k < count && start < width; ++k) {
    const void* zero = std::memchr(row + start, 0, width - start);
    const std::size_t end =
        zero == nullptr ? width : static_cast<std::size_t>(static_cast<const unsigned char*>(zero) - row);
    strings.emplace_back(reinterpret_cast<const char*>(row + start), end - start);
    start = end + 1;
  }
  return strings;
}

void parseRows(const std::vector<unsigned char>& bytes, const RawSlot& slot, RawDirectory& directory) {
  for (std::uint64_t i = 0; i < slot.rowCount; ++i) {
    const unsigned char* row = bytes.data() + NamedStringArray::containerHeaderSize + i * slot.rowWidth;
    const auto countByte = static_cast<signed char>(row[0]);
    if (countByte == 0) {
      ++directory.freeRows;
      continue;
    }
    const unsigned count = countByte < 0 ? 1u : static_cast<unsigned>(countByte);
    directory.rows.push_back({static_cast<unsigned long>(i), countByte, rowStrings(row, slot.rowWidth, count)});
  }
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
    directory.containerName = array.makeContainerName(slot.containerNumber);
    const std::optional<std::size_t> size = containerBytes(slot);
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
      const std::vector<unsigned char> bytes(start, start + *size);
      parseRows(bytes, slot, directory);
      std::size_t malformed = 0;
      for (const RawRow& row : directory.rows) {
        if (row.countByte != 1 || row.strings.size() != 1 || row.strings.front().rfind(recordPrefix, 0) != 0) {
          ++malformed;
        }
      }
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
