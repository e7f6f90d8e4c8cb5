#include "directory/directory_rebuild.hpp"

#include <algorithm>
#include <set>

namespace agent::spf::endpointregistry {

std::optional<RebuildPlan> planRebuild(const ContainerRows* old,
                                       bool (*wellFormed)(const ContainerRows& rows, unsigned long row),
                                       const std::vector<ContainerRows::Entry>& recovered,
                                       const ContainerRows::Entry* excluded, unsigned long requiredWidth,
                                       unsigned long rowIncrement, unsigned long widthIncrement) {
  RebuildPlan plan;
  std::set<ContainerRows::Entry> seen;
  if (old != nullptr) {
    for (unsigned long row = 0; row < old->rowCount(); ++row) {
      if (old->elementCount(row) == 0 || (wellFormed != nullptr && !wellFormed(*old, row))) continue;
      ContainerRows::Entry entry = old->entryAt(row);
      if (seen.insert(entry).second) plan.entries.push_back(std::move(entry));
    }
  }
  for (const ContainerRows::Entry& entry : recovered) {
    if (entry.empty() || (excluded != nullptr && entry == *excluded) || !seen.insert(entry).second) continue;
    plan.entries.push_back(entry);
  }
  std::size_t width = requiredWidth;
  for (const ContainerRows::Entry& entry : plan.entries) width = std::max(width, ContainerRows::requiredWidth(entry));
  const std::optional<unsigned long> count = roundUp(plan.entries.size() + (requiredWidth != 0 ? 1 : 0), rowIncrement);
  const std::optional<unsigned long> roundedWidth = roundUp(width, widthIncrement);
  if (!count || !roundedWidth) return std::nullopt;
  plan.rowCount = *count;
  plan.rowWidth = *roundedWidth;
  return plan;
}

void writePlan(const RebuildPlan& plan, ContainerRows& target) {
  for (unsigned long row = 0; row < plan.entries.size() && row < target.rowCount(); ++row) {
    if (target.writeStrings(row, plan.entries[row])) {
      target.setCount(row, static_cast<unsigned char>(plan.entries[row].size()));
    }
  }
}

}  // namespace agent::spf::endpointregistry
