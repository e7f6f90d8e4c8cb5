// A directory of entries kept in shared memory, one per (name, version,
// trustee). An entry is a list of 1 to 127 strings.
//
// A directory is a fixed 96-byte base segment and a container segment of
// fixed-width rows. The container never grows in place: a change of
// dimensions builds the next-numbered container, copies the used rows into it
// compacted, and flips one byte of the base. Two descriptor slots let the
// next writer clean up a switch that a crash interrupted.
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
// Every read and write of rows, descriptors and activeSlot happens under the
// base's mutex. Readers never trust the bytes: whatever a dead or buggy
// writer left, they stay inside the mapped segments.
//
// Damaged directories. A descriptor is absurd when its size overflows or it
// has rows of width 0. A directory whose active descriptor is absurd, or
// whose container is shorter than described, reads as empty (erase logs its
// container as not found), and the next insert rebuilds it empty under the
// next number, removing the old segment. Size alone is no damage: a
// directory of any size is read and kept; only an insert that would grow it
// beyond 32 MiB fails. An activeSlot other than 0 or 1 reads as its low bit;
// only initialized == 1 counts as initialised. A string runs to its zero
// byte or to the end of its row, whichever comes first.
//
// Initialisation is claimed through initializerPid. A claim by a process
// that is gone is cleared; one held for 3 seconds by a process that still
// exists (a reused pid, a stopped claimer) is withdrawn. Every step of the
// initialisation is an atomic write that only turns zero bytes into their
// initial values, and `initialized` is set only together with a claim that
// still stands, so a claimer that goes on after its claim was withdrawn
// changes nothing.
#pragma once

#include <pthread.h>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

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

class NamedStringArray {
 public:
  using SharedMemory = agent::spf::sharedmemory::SharedMemory;
  using Entry = std::vector<std::string>;

  static constexpr std::size_t baseSize = sizeof(NamedStringArrayBase);
  static constexpr std::size_t containerHeaderSize = ContainerRows::headerBytes;
  static constexpr std::size_t maxElements = 127;

  // `version` is not used: the base name always carries version 0.
  NamedStringArray(const std::string& name, unsigned long version, const std::string& trustee);

  // Adds an entry in the first free row, growing the directory as needed.
  // std::invalid_argument for more than 127 strings or no non-empty string.
  void insert(const Entry& entry);
  void insert(const std::string& element);
  // Frees the first row equal to the entry and compacts; logs (256) when the
  // base, the container or the entry is not there.
  void erase(const Entry& entry);
  void erase(const std::string& element);
  // The entries whose first string begins with `prefix`, in row order.
  std::vector<Entry> listEntries(const std::string& prefix);

  // Maintenance, each under the directory's lock. Frees every row whose
  // entry `doomed` picks (asked under the lock, so that no writer changes
  // the rows meanwhile) and compacts once; returns how many were freed.
  std::size_t eraseIf(const std::function<bool(const Entry&)>& doomed);
  // Removes the directory's container segments that it does not use (any
  // "<base><digits>" segment but the active container): left by writers
  // that died, or by damage. Returns how many were removed. Nothing is
  // removed while the base is missing or not initialised.
  std::size_t removeLeftoverContainers();

  // Makes the base ready; true once it is initialised (by anyone).
  bool initializeBase(SharedMemory& base);
  // Rebuilds the container for the current rows plus one of `requiredWidth`
  // bytes (none when 0), if its dimensions change.
  void reorganize(SharedMemory& base, SharedMemory& container, unsigned long requiredWidth);
  // Removes the half-built container an interrupted reorganisation left.
  void deleteInactiveContainer(SharedMemory& base, SharedMemory& container);

  static void deleteNamedStringArray(const std::string& name, unsigned long version, const std::string& trustee);
  // (rowCount, rowWidth) of the active container; (0, 0) if there is none.
  static std::pair<unsigned long, unsigned long> getDimensions(const std::string& name, unsigned long version,
                                                               const std::string& trustee);
  std::string getBaseTrustee();
  static std::string makeBaseName(const std::string& name, unsigned long version, const std::string& trustee);
  std::string makeContainerName(unsigned long number) const;
  static unsigned long containerSize(unsigned long rowWidth, unsigned long rowCount);

  void setRowIncrement(unsigned long increment) { rowIncrement = increment; }
  void setWidthIncrement(unsigned long increment) { widthIncrement = increment; }

 private:
  std::string baseName;
  std::string trustee;
  SharedMemory::ImplementationSpecifications implementationSpecifications{};
  unsigned long rowIncrement = 10;
  unsigned long widthIncrement = 4;
};

}  // namespace agent::spf::endpointregistry
