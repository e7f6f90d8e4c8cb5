// The byte layout of a name directory's segments, and the reading of it
// that every part of the directory code shares (the tool's inspect too).
//
// Base segment "<name>v<version>", 96 bytes, native (little-endian) order:
//   0  u32        initializerPid   0, or the pid that claimed initialisation
//   4  u8         initialized      1 once initialisation completed
//   5  u8         activeSlot       0 or 1
//   6  2 bytes    padding
//   8  u64[2]     rowWidth         per slot
//   24 u64[2]     rowCount         per slot
//   40 u64[2]     containerNumber  per slot
//   56 40 bytes   mutex            robust, process-shared, error-checking
// Container segment "<name>v<version><number>", rowCount x rowWidth + 9 bytes:
//   0  8 bytes    unused
//   8 + i*rowWidth  row i: count byte n (0 = free, signed; negative reads as
//                   1), then n strings, each followed by a zero byte
//   end           1 unused byte
//
// The bytes are written by other processes and are not trusted: a descriptor
// that cannot describe a container (checkedContainerSize) leaves no container
// to read, and a base whose mutex, `initialized` or `activeSlot` holds a value
// no writer writes is damaged (looksDamaged).
#pragma once

#include <pthread.h>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <agent/spf/sharedmemory/shared_memory.hpp>

#include "directory/container_rows.hpp"

namespace agent::spf::endpointregistry {

struct NamedStringArrayBase {
  std::uint32_t initializerPid;
  std::uint8_t initialized;
  std::uint8_t activeSlot;
  std::uint8_t padding[2];
  std::uint64_t rowWidth[2];
  std::uint64_t rowCount[2];
  std::uint64_t containerNumber[2];
  pthread_mutex_t mutex;
};
static_assert(sizeof(NamedStringArrayBase) == 96);
static_assert(offsetof(NamedStringArrayBase, initialized) == 4);
static_assert(offsetof(NamedStringArrayBase, activeSlot) == 5);
static_assert(offsetof(NamedStringArrayBase, rowWidth) == 8);
static_assert(offsetof(NamedStringArrayBase, rowCount) == 24);
static_assert(offsetof(NamedStringArrayBase, containerNumber) == 40);
static_assert(offsetof(NamedStringArrayBase, mutex) == 56);

inline constexpr std::size_t directoryBaseSize = sizeof(NamedStringArrayBase);

inline NamedStringArrayBase& headerOf(agent::spf::sharedmemory::SharedMemory& base) {
  return *static_cast<NamedStringArrayBase*>(base.getPointer());
}

// activeSlot is meant to be 0 or 1; any other value is read as its low bit.
inline unsigned activeSlotOf(const NamedStringArrayBase& header) { return header.activeSlot & 1u; }

// Only the value 1 counts as initialised.
inline bool isInitialized(NamedStringArrayBase& header) {
  return std::atomic_ref<std::uint8_t>(header.initialized).load() == 1;
}

// What in a base no writer writes: `initialized` or `activeSlot` beyond 1,
// or a mutex not of the kind directories are made with (zero is allowed only
// before initialisation).
struct BaseDamage {
  bool initializedOutOfRange = false;
  bool activeSlotOutOfRange = false;
  bool mutexOfForeignKind = false;
  bool any() const noexcept { return initializedOutOfRange || activeSlotOutOfRange || mutexOfForeignKind; }
};
BaseDamage damageOf(const NamedStringArrayBase& header) noexcept;
inline bool looksDamaged(const NamedStringArrayBase& header) noexcept { return damageOf(header).any(); }

// The container that one descriptor slot describes.
struct ContainerShape {
  unsigned long number = 0;
  unsigned long rowCount = 0;
  unsigned long rowWidth = 0;
  std::optional<std::size_t> size;  // empty when the descriptor is absurd
};

inline ContainerShape shapeOf(const NamedStringArrayBase& header, unsigned slot) {
  ContainerShape shape{header.containerNumber[slot], header.rowCount[slot], header.rowWidth[slot], std::nullopt};
  shape.size = checkedContainerSize(shape.rowWidth, shape.rowCount);
  return shape;
}

// True when `container` maps every byte `shape` describes.
inline bool covers(const agent::spf::sharedmemory::SharedMemory& container, const ContainerShape& shape) {
  return shape.size && container.isAttached() && container.getSize() >= *shape.size;
}

// The rows of container bytes that hold all of `shape` (a mapped container
// that covers() it, or a copy of one).
inline ContainerRows rowsOf(unsigned char* containerBytes, const ContainerShape& shape) {
  return ContainerRows(containerBytes + ContainerRows::headerBytes, shape.rowCount, shape.rowWidth);
}
inline ContainerRows rowsOf(agent::spf::sharedmemory::SharedMemory& container, const ContainerShape& shape) {
  return rowsOf(static_cast<unsigned char*>(container.getPointer()), shape);
}

// Removes the trustee's segment `name` whatever its size; false when it
// could not be found.
bool removeSegment(const std::string& name, const std::string& trustee,
                   agent::spf::sharedmemory::SharedMemory::ImplementationSpecifications implementation);

// "<baseName><number>", the name of a container.
inline std::string containerName(const std::string& baseName, unsigned long number) {
  return baseName + std::to_string(number);
}

}  // namespace agent::spf::endpointregistry
