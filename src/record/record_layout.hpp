// The byte layout of a record segment, and access to its fields.
//
// A record segment, named by recordName() (directory/segment_names.hpp), is
// l + 57 bytes, l being the total length of the two data strings; native
// (little-endian) byte order:
//   0       u8        livenessFlag   1 while the publisher holds the mutex;
//                                    written only by atomic exchange
//   1       7 bytes   padding
//   8       40 bytes  livenessMutex  robust, process-shared pthread mutex
//   48      u64       firstLength    length of the first data string
//   56      l bytes   data           first string then second, no separator
//   56 + l  1 byte    reserved       written by nobody, read by nobody
//
// Everything but the publisher's own segment is written by other processes
// and is not trusted: readers check firstLength against l before they slice.
#pragma once

#include <pthread.h>
#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <utility>

#include <agent/spf/sharedmemory/shared_memory.hpp>

namespace agent::spf::endpointregistry {

struct RecordHeader {
  std::uint8_t livenessFlag;
  std::uint8_t padding[7];
  pthread_mutex_t livenessMutex;
  std::uint64_t firstLength;
};
static_assert(offsetof(RecordHeader, livenessFlag) == 0);
static_assert(offsetof(RecordHeader, livenessMutex) == 8);
static_assert(offsetof(RecordHeader, firstLength) == 48);
static_assert(sizeof(RecordHeader) == 56);

// Where the data begins.
inline constexpr std::size_t recordDataOffset = sizeof(RecordHeader);
// The byte after the data.
inline constexpr std::size_t recordReservedBytes = 1;
// Bytes of a record segment around its data.
inline constexpr std::size_t recordFrameBytes = recordDataOffset + recordReservedBytes;
static_assert(recordFrameBytes == 57);

// Size of the record segment for l bytes of data (l no larger than what
// checkedRecordSegmentSize() accepts).
inline constexpr std::size_t recordSegmentSize(std::size_t dataLength) { return dataLength + recordFrameBytes; }

// The same, or nothing when no segment could have that size (a record name
// can claim any length).
inline constexpr std::optional<std::size_t> checkedRecordSegmentSize(unsigned long dataLength) {
  if (dataLength > std::numeric_limits<std::size_t>::max() - recordFrameBytes) return std::nullopt;
  return recordSegmentSize(dataLength);
}

// The data pair held by `joined` (the record's l data bytes) whose first
// string is `firstLength` bytes long. Throws std::out_of_range when
// firstLength exceeds the data: callers that must not throw check first.
inline std::pair<std::string, std::string> splitRecordData(std::string joined, std::uint64_t firstLength) {
  std::string second = joined.substr(firstLength);
  joined.resize(firstLength);
  return {std::move(joined), std::move(second)};
}

// The fields of a mapped record segment. The caller keeps a MappedAccess
// (agent/spf/sharedmemory/mapped_access.hpp) around every use: another
// process may cut the segment short at any moment.
inline RecordHeader& recordHeaderOf(agent::spf::sharedmemory::SharedMemory& segment) {
  return *static_cast<RecordHeader*>(segment.getPointer());
}

inline unsigned char* recordDataOf(agent::spf::sharedmemory::SharedMemory& segment) {
  return static_cast<unsigned char*>(segment.getPointer()) + recordDataOffset;
}

// Writes the data pair into a new record segment whose name gives
// `dataLength` (the two strings' total length): the data bytes and the first
// length. Never writes beyond the data bytes.
inline void storeRecordData(agent::spf::sharedmemory::SharedMemory& segment,
                            const std::pair<std::string, std::string>& data, unsigned long dataLength) {
  unsigned char* out = recordDataOf(segment);
  const std::size_t firstBytes = std::min<std::size_t>(data.first.size(), dataLength);
  std::memcpy(out, data.first.data(), firstBytes);
  std::memcpy(out + firstBytes, data.second.data(), std::min<std::size_t>(data.second.size(), dataLength - firstBytes));
  recordHeaderOf(segment).firstLength = data.first.size();
}

// True when the segment holds `data` as storeRecordData() wrote it: the
// first string's length and every data byte. Reads through the mapping; a
// caller that may meet a segment cut short reads under MappedAccess.
inline bool holdsRecordData(agent::spf::sharedmemory::SharedMemory& segment,
                            const std::pair<std::string, std::string>& data, unsigned long dataLength) {
  if (data.first.size() + data.second.size() != dataLength) return false;
  const unsigned char* stored = recordDataOf(segment);
  return recordHeaderOf(segment).firstLength == data.first.size() &&
         std::memcmp(stored, data.first.data(), data.first.size()) == 0 &&
         std::memcmp(stored + data.first.size(), data.second.data(), data.second.size()) == 0;
}

inline std::atomic_ref<std::uint8_t> livenessFlagOf(agent::spf::sharedmemory::SharedMemory& segment) {
  return std::atomic_ref<std::uint8_t>(recordHeaderOf(segment).livenessFlag);
}

}  // namespace agent::spf::endpointregistry
