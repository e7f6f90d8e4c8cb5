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

}  // namespace agent::spf::endpointregistry
