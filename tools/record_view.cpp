#include "record_view.hpp"

#include <exception>

#include "directory/segment_names.hpp"
#include "record/record_reader.hpp"

namespace agent::spf::endpointregistry::tool {
namespace {

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

}  // namespace

RecordView viewRecord(const RawRow& row, const std::string& trustee) {
  RecordView view;
  // A row the library would read as one string is a name to it, whatever its count byte says.
  if (row.strings.size() != 1 || row.strings.front().rfind(recordPrefix, 0) != 0) {
    view.state = "Not a record";
    return view;
  }
  const RecordName name(row.strings.front());
  view.ownerPid = name.pid();
  if (name.format() != 0) {
    view.state = "Other format";
    return view;
  }
  try {
    const RecordInspection inspection = RecordReader(trustee).inspect(name);
    view.state = inspection.found ? stateName(inspection.state) : "Missing";
    view.data = inspection.data;
  } catch (const std::exception& error) {
    view.state = "Unknown";
    view.problem = error.what();
  }
  return view;
}

}  // namespace agent::spf::endpointregistry::tool
