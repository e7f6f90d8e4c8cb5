#include "record/record_name.hpp"

#include <utility>

#include "directory/segment_names.hpp"
#include "record/record_layout.hpp"

namespace agent::spf::endpointregistry {

RecordName::RecordName(std::string text)
    : text_(std::move(text)),
      format_(recordFormat(text_)),
      dataLength_(recordDataLength(text_)),
      pid_(recordPid(text_)),
      segmentSize_(checkedRecordSegmentSize(dataLength_)) {}

std::string groupTagHash(const std::string& name, const std::pair<std::string, std::string>& data) {
  const std::string dataHash = hashText(data.first + data.second);
  const std::size_t prefixLength = std::string(recordPrefix).size();
  const std::size_t end = name.rfind('l');
  if (end == std::string::npos || end < prefixLength + dataHash.size()) return {};
  if (name.compare(end - dataHash.size(), dataHash.size(), dataHash) != 0) return {};
  return name.substr(prefixLength, end - dataHash.size() - prefixLength);
}

}  // namespace agent::spf::endpointregistry
