#include "record_view.hpp"

#include <agent/spf/sharedmemory/mapped_access.hpp>

#include <cstring>
#include <exception>

#include "directory/segment_names.hpp"
#include "endpoint/endpoint_impl.hpp"

namespace agent::spf::endpointregistry::tool {
namespace {

using agent::spf::sharedmemory::SharedMemory;

const char* stateName(RecordState state) {
  switch (state) {
    case Stale:
      return "Stale";
    case Transient:
      return "Transient";
    case Live:
      return "Live";
  }
  return "Unknown";
}

// The data pair stored in a record segment, copied without any check of
// liveness; nothing when the stored first length is impossible.
std::optional<std::pair<std::string, std::string>> storedData(const SharedMemory& segment, unsigned long dataLength) {
  const auto* bytes = static_cast<const unsigned char*>(segment.getPointer());
  RecordHeader header;
  std::memcpy(&header, bytes, sizeof header);
  if (header.firstLength > dataLength) return std::nullopt;
  const std::string joined(reinterpret_cast<const char*>(bytes + recordDataOffset), dataLength);
  return std::make_pair(joined.substr(0, header.firstLength), joined.substr(header.firstLength));
}

}  // namespace

RecordView viewRecord(const RawRow& row, const std::string& trustee) {
  const agent::spf::sharedmemory::MappedAccess mapped;
  RecordView view;
  // A row the library would read as one string is a name to it, whatever its count byte says.
  if (row.strings.size() != 1 || row.strings.front().rfind(recordPrefix, 0) != 0) {
    view.state = "Not a record";
    return view;
  }
  const std::string& name = row.strings.front();
  view.ownerPid = recordPid(name);
  if (recordFormat(name) != 0) {
    view.state = "Other format";
    return view;
  }
  try {
    SharedMemory segment = Endpoint::Impl::findSharedMemory(name, trustee);
    if (!segment.isAttached()) {
      view.state = "Missing";
      return view;
    }
    const RecordState state = Endpoint::Impl::getState(segment, *view.ownerPid);
    view.state = stateName(state);
    if (state == Live) view.data = storedData(segment, recordDataLength(name));
  } catch (const std::exception& error) {
    view.state = "Unknown";
    view.problem = error.what();
  }
  return view;
}

}  // namespace agent::spf::endpointregistry::tool
