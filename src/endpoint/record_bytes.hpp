// Access to the fields of a mapped record segment (layout in
// endpoint_impl.hpp). The caller keeps a MappedAccess around every use.
#pragma once

#include <atomic>
#include <cstdint>

#include <agent/spf/sharedmemory/shared_memory.hpp>

#include "endpoint/endpoint_impl.hpp"

namespace agent::spf::endpointregistry::recordbytes {

inline RecordHeader& headerOf(agent::spf::sharedmemory::SharedMemory& segment) {
  return *static_cast<RecordHeader*>(segment.getPointer());
}

inline unsigned char* dataOf(agent::spf::sharedmemory::SharedMemory& segment) {
  return static_cast<unsigned char*>(segment.getPointer()) + recordDataOffset;
}

inline std::atomic_ref<std::uint8_t> livenessFlagOf(agent::spf::sharedmemory::SharedMemory& segment) {
  return std::atomic_ref<std::uint8_t>(headerOf(segment).livenessFlag);
}

}  // namespace agent::spf::endpointregistry::recordbytes
