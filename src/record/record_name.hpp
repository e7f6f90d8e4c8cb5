// A record's segment name, parsed once:
//   "qzER" H(groupTag) H(first second) "l" length "p" pid "v" format
// (directory/segment_names.hpp forms it). Each number is read after the last
// occurrence of its marker letter, as numberAfterLast() reads it; a name from
// another process may say anything, so nothing is trusted but the text.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <utility>

namespace agent::spf::endpointregistry {

class RecordName {
 public:
  explicit RecordName(std::string text);

  const std::string& text() const noexcept { return text_; }
  // The format field: 0 is the only format this library writes and reads.
  unsigned long format() const noexcept { return format_; }
  // The length field: the total length of the two data strings.
  unsigned long dataLength() const noexcept { return dataLength_; }
  // The pid field: the publisher's process id in its own pid namespace.
  unsigned long pid() const noexcept { return pid_; }
  // The size of the segment the name describes; nothing when no segment
  // could be that large.
  std::optional<std::size_t> segmentSize() const noexcept { return segmentSize_; }
  // True for a record this library reads: format 0, a size that can exist.
  bool isReadable() const noexcept { return format_ == 0 && segmentSize_.has_value(); }

 private:
  std::string text_;
  unsigned long format_;
  unsigned long dataLength_;
  unsigned long pid_;
  std::optional<std::size_t> segmentSize_;
};

// The group tag's hash as the record name `name` holds it, for a record
// holding `data`: the name is "qzER", the tag's hash and the data's hash
// (neither of fixed length), then "l<length>...". The data's hash is known
// from the data, so what lies between is the tag's. Empty when the name does
// not end its hashes with the data's.
std::string groupTagHash(const std::string& name, const std::pair<std::string, std::string>& data);

}  // namespace agent::spf::endpointregistry
