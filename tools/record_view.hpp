// The state of the record behind one directory row, for inspection, without
// clearing anything away: unlike a listing, this never reclaims a stale
// record, never marks a segment for deletion and never erases a name.
//
// Classifying a record is the library's own probe (RecordReader::inspect):
// when the record's flag is set it try-locks the record's mutex and, if it
// got it, unlocks it at once (after marking it consistent when its owner had
// died). That leaves the record's state, and what a later listing decides,
// unchanged.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "raw_directory.hpp"

namespace agent::spf::endpointregistry::tool {

struct RecordView {
  // "Live", "Transient" or "Stale" as the library classifies the record;
  // "Missing" when its segment cannot be opened, "Other format" for a record
  // whose format field is not 0 (listings skip those), "Not a record" for a
  // row that does not read as one string beginning with "qzER", "Unknown"
  // when the probe failed.
  std::string state;
  std::optional<unsigned long> ownerPid;                    // field p of the record name
  std::optional<std::pair<std::string, std::string>> data;  // the data pair of a live record
  std::string problem;                                      // why the probe failed, for "Unknown"
};

RecordView viewRecord(const RawRow& row, const std::string& trustee);

}  // namespace agent::spf::endpointregistry::tool
