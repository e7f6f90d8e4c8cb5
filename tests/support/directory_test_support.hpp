// Helpers shared by the name-directory tests: a unique directory name with
// clean-up of its segments, the fields of a base read straight from its file,
// and segments planted by hand.
#pragma once

#include <gtest/gtest.h>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "concurrency/robust_lock_guard.hpp"
#include "directory/named_string_array.hpp"
#include "support/shm_files.hpp"

namespace er::test {

using agent::spf::endpointregistry::NamedStringArray;
using agent::spf::endpointregistry::NamedStringArrayBase;
using agent::spf::endpointregistry::PThreadRobustLockGuard;
using SharedMemory = agent::spf::sharedmemory::SharedMemory;
using Entry = NamedStringArray::Entry;

// A directory of the user's scope under a name no other test uses; every
// segment whose name begins with it is removed when the object goes, and
// before it is used (a run that was killed may have left segments of a
// process that had the same pid).
struct TestDirectory {
  explicit TestDirectory(const std::string& stem = "erTestDir")
      : name(uniqueName(stem)), cleanup(userScope(), {name + "v"}) {
    ShmCleanup leftovers(userScope(), {name + "v"});
  }

  std::string baseFile() const { return userScope() + "/" + name + "v0"; }
  std::string containerFile(unsigned long number) const {
    return userScope() + "/" + name + "v0" + std::to_string(number);
  }
  std::set<std::string> files() const { return filesIn(userScope(), name + "v"); }
  std::string segment(const std::string& suffix) const { return name + "v0" + suffix; }

  std::string name;
  ShmCleanup cleanup;
};

inline std::uint64_t readU64(const std::vector<unsigned char>& bytes, std::size_t offset) {
  std::uint64_t value = 0;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

// The fields of a base segment as its file holds them.
struct BaseFields {
  std::uint32_t initializerPid = 0;
  unsigned initialized = 0;
  unsigned activeSlot = 0;
  std::uint64_t rowWidth[2] = {0, 0};
  std::uint64_t rowCount[2] = {0, 0};
  std::uint64_t containerNumber[2] = {0, 0};
};

inline BaseFields readBase(const std::string& path) {
  const std::vector<unsigned char> bytes = readBytes(path);
  BaseFields fields;
  if (bytes.size() < sizeof(NamedStringArrayBase)) {
    ADD_FAILURE() << path << " holds " << bytes.size() << " bytes";
    return fields;
  }
  std::memcpy(&fields.initializerPid, bytes.data(), 4);
  fields.initialized = bytes[4];
  fields.activeSlot = bytes[5];
  for (int slot = 0; slot < 2; ++slot) {
    fields.rowWidth[slot] = readU64(bytes, 8 + 8 * slot);
    fields.rowCount[slot] = readU64(bytes, 24 + 8 * slot);
    fields.containerNumber[slot] = readU64(bytes, 40 + 8 * slot);
  }
  return fields;
}

// Creates a persistent segment of the user's scope holding `bytes`.
inline void plantSegment(const std::string& name, const std::vector<unsigned char>& bytes) {
  SharedMemory segment = SharedMemory::create(name, bytes.size(), "", SharedMemory::ImplementationSpecifications{});
  ASSERT_TRUE(segment.isAttached()) << name;
  std::memcpy(segment.getPointer(), bytes.data(), bytes.size());
  segment.makePersistent();
}

// Creates an initialised base (working mutex, initialized = 1) whose other
// fields are `fields`.
inline void plantBase(const std::string& name, const BaseFields& fields) {
  SharedMemory segment =
      SharedMemory::create(name, sizeof(NamedStringArrayBase), "", SharedMemory::ImplementationSpecifications{});
  ASSERT_TRUE(segment.isAttached()) << name;
  auto* base = static_cast<NamedStringArrayBase*>(segment.getPointer());
  PThreadRobustLockGuard::initializeMutex(&base->mutex);
  base->initializerPid = fields.initializerPid;
  base->initialized = static_cast<std::uint8_t>(fields.initialized);
  base->activeSlot = static_cast<std::uint8_t>(fields.activeSlot);
  for (int slot = 0; slot < 2; ++slot) {
    base->rowWidth[slot] = fields.rowWidth[slot];
    base->rowCount[slot] = fields.rowCount[slot];
    base->containerNumber[slot] = fields.containerNumber[slot];
  }
  segment.makePersistent();
}

// Container bytes: 8 header bytes, the rows (each padded with zeros to
// `width`), one trailing byte.
inline std::vector<unsigned char> containerBytes(std::size_t width, const std::vector<std::string>& rows,
                                                 unsigned char trailing = 0) {
  std::vector<unsigned char> bytes(8, 0);
  for (const std::string& row : rows) {
    std::vector<unsigned char> padded(row.begin(), row.end());
    padded.resize(width, 0);
    bytes.insert(bytes.end(), padded.begin(), padded.end());
  }
  bytes.push_back(trailing);
  return bytes;
}

// The bytes of row `index` of a container file of rows of `width` bytes.
inline std::string rowOf(const std::vector<unsigned char>& container, std::size_t width, std::size_t index) {
  const std::size_t start = 8 + index * width;
  if (container.size() < start + width) return "<outside>";
  return std::string(container.begin() + static_cast<std::ptrdiff_t>(start),
                     container.begin() + static_cast<std::ptrdiff_t>(start + width));
}

}  // namespace er::test
