// Fuzz target: a damaged directory rebuilt from what can be read and from
// the live records (directory_rebuild.hpp), over arbitrary container bytes.
//
// Input, front to back (fuzz_input.hpp): the row width (1 + byte % 64); the
// number of live names (byte % 8), each a record name "qzER" followed by up
// to 15 bytes (zero bytes become 'z'); then the rows, as many whole rows as
// the bytes hold, copied into a buffer of exactly their size so that the
// address sanitizer reports any read or write beyond them. A row is well
// formed as the registry's are: one string, beginning with "qzER", ending
// inside the row. Checked, with one more entry of room asked for:
//   - every live name is in the rebuilt directory, exactly once, but the
//     entry being inserted, which is left to its insertion;
//   - every entry there is a live name or a well-formed row of the old one;
//   - no entry is there twice, and one free row is left;
//   - the rebuilt rows are read back exactly as planned.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "directory/container_rows.hpp"
#include "directory/directory_rebuild.hpp"
#include "fuzz_input.hpp"

namespace {

using agent::spf::endpointregistry::ContainerRows;
using agent::spf::endpointregistry::planRebuild;
using agent::spf::endpointregistry::RebuildPlan;
using agent::spf::endpointregistry::writePlan;
using Entry = ContainerRows::Entry;

void check(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "check failed: %s\n", what);
  std::abort();
}

bool wellFormed(const ContainerRows& rows, unsigned long row) {
  static const std::string prefix = "qzER";
  return rows.elementCount(row) == 1 && rows.firstStringIsWhole(row, prefix);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  er::fuzz::FuzzInput input(data, size);
  const std::size_t width = 1 + input.byte() % 64;
  std::vector<Entry> live;
  const int liveCount = input.byte() % 8;
  for (int i = 0; i < liveCount; ++i) {
    std::string name = "qzER" + input.sizedBytes(16);
    std::replace(name.begin(), name.end(), '\0', 'z');
    live.push_back({name});
  }
  const std::string rowText = input.rest();
  const unsigned long rowCount = rowText.size() / width;
  auto bytes = std::make_unique<unsigned char[]>(rowCount * width);
  std::copy_n(rowText.begin(), rowCount * width, bytes.get());
  const ContainerRows old(bytes.get(), rowCount, width);

  std::set<Entry> wellFormedOld;
  for (unsigned long row = 0; row < rowCount; ++row) {
    if (old.elementCount(row) != 0 && wellFormed(old, row)) wellFormedOld.insert(old.entryAt(row));
  }

  const Entry extra{"qzERextra"};
  const auto plan = planRebuild(&old, &wellFormed, live, &extra, ContainerRows::requiredWidth(extra), 10, 4);
  check(plan.has_value(), "small dimensions never overflow");
  std::set<Entry> planned;
  for (const Entry& entry : plan->entries) {
    check(planned.insert(entry).second, "no entry is planned twice");
    check(wellFormedOld.count(entry) != 0 || std::find(live.begin(), live.end(), entry) != live.end(),
          "every entry is a live name or a well-formed old row");
  }
  // The entry being inserted is left to its insertion, even when it is live.
  for (const Entry& name : live) {
    if (name == extra) continue;
    check(planned.count(name) == 1, "every live name is kept");
  }
  check(planned.count(extra) == wellFormedOld.count(extra), "the entry being inserted comes only from the old rows");
  check(plan->rowCount >= plan->entries.size() + 1, "one row is left for the entry being inserted");

  auto freshBytes = std::make_unique<unsigned char[]>(plan->rowCount * plan->rowWidth);
  std::fill_n(freshBytes.get(), plan->rowCount * plan->rowWidth, 0);
  ContainerRows fresh(freshBytes.get(), plan->rowCount, plan->rowWidth);
  writePlan(*plan, fresh);
  check(fresh.list("") == plan->entries, "the rebuilt rows read back as planned");
  check(fresh.firstFreeRow().has_value(), "a free row is left");
  return 0;
}
