// The plan of a directory rebuilt from what can be read and what its
// Recovery found (NamedStringArray::rebuild), kept apart from shared memory
// so that it can be tested and fuzzed on plain bytes.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "directory/container_rows.hpp"

namespace agent::spf::endpointregistry {

struct RebuildPlan {
  std::vector<ContainerRows::Entry> entries;  // in the order they are written, each once
  unsigned long rowWidth = 0;
  unsigned long rowCount = 0;
};

// The entries of a rebuilt directory: the used rows of `old` (when it can be
// read) that `wellFormed` accepts (all, without one), then the `recovered`
// entries not among them and other than `excluded`, each entry once; its
// rows wide enough for every entry and for `requiredWidth`, and one more row
// when `requiredWidth` is not 0, rounded up to the increments. Nothing when
// the dimensions overflow.
std::optional<RebuildPlan> planRebuild(const ContainerRows* old,
                                       bool (*wellFormed)(const ContainerRows& rows, unsigned long row),
                                       const std::vector<ContainerRows::Entry>& recovered,
                                       const ContainerRows::Entry* excluded, unsigned long requiredWidth,
                                       unsigned long rowIncrement, unsigned long widthIncrement);

// Writes the plan's entries into rows 0, 1, 2 ... of `target` (of the
// plan's dimensions, zero-filled), count bytes last.
void writePlan(const RebuildPlan& plan, ContainerRows& target);

}  // namespace agent::spf::endpointregistry
