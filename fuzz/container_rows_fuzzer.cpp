// Fuzz target: the directory's row scanning over arbitrary container bytes.
//
// Input, front to back (fuzz_input.hpp): the row width (1 + byte % 64); a
// prefix (length byte % 8); an entry's one string (length byte % 16; zero
// bytes become 'z', an empty one becomes "e"); a descriptor's width and row
// count (8 bytes each); then the rows, as many whole rows as the bytes hold.
// The rows are copied into a buffer of exactly their size, so that the
// address sanitizer reports any read or write beyond them. Checked:
//   - the container size of any descriptor is exact or refused;
//   - listing by a prefix keeps exactly the entries of the whole listing
//     whose first string begins with the prefix, each of 1 to 127 strings;
//   - every row whose entry is read whole is found again, at or before it;
//   - a rebuild the way reorganize() does it (used rows copied compacted into
//     wider rows) keeps every count byte and first string, and every entry
//     whose strings end before its row's last byte;
//   - the entry then inserted into the first free row is found and listed,
//     and erasing it frees that row again.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "directory/container_rows.hpp"
#include "fuzz_input.hpp"

namespace {

using agent::spf::endpointregistry::checkedContainerSize;
using agent::spf::endpointregistry::ContainerRows;
using agent::spf::endpointregistry::roundUp;
using Entry = ContainerRows::Entry;

void check(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "check failed: %s\n", what);
  std::abort();
}

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

void checkContainerSize(std::uint64_t width, std::uint64_t count) {
  const auto size = checkedContainerSize(width, count);
  const unsigned __int128 exact = static_cast<unsigned __int128>(width) * count + 9;
  const bool sane = count == 0 || (width != 0 && exact <= static_cast<unsigned __int128>(PTRDIFF_MAX));
  check(size.has_value() == sane, "absurd descriptors and only they are refused");
  if (size) check(*size == (count == 0 ? 9 : exact), "the container size is rowCount x rowWidth + 9");
}

void checkListing(const ContainerRows& rows, const std::string& prefix) {
  const std::vector<Entry> all = rows.list("");
  std::vector<Entry> expected;
  for (const Entry& entry : all) {
    check(!entry.empty() && entry.size() <= 127, "an entry holds 1 to 127 strings");
    if (startsWith(entry.front(), prefix)) expected.push_back(entry);
  }
  check(rows.list(prefix) == expected, "a prefix keeps the entries whose first string begins with it");
  const ContainerRows::Usage usage = rows.usage();
  check(usage.maxLength <= rows.rowWidth(), "no used length exceeds the row");
  if (rows.rowWidth() >= 2) check(all.size() == usage.usedRows, "one entry per used row");

  // Rows whose strings were all read are found again, at or before them.
  std::size_t next = 0;
  for (unsigned long i = 0; i < rows.rowCount() && rows.rowWidth() >= 2; ++i) {
    if (rows.elementCount(i) == 0) continue;
    const Entry& entry = all[next++];
    if (entry.size() != rows.elementCount(i)) continue;
    const auto found = rows.find(entry);
    check(found.has_value() && *found <= i, "a row read whole is found at or before it");
  }
}

// Rebuilds the rows into a fresh buffer the way reorganize() does, with room
// for one more entry of `requiredWidth` bytes; returns the new rows' bytes.
std::unique_ptr<unsigned char[]> rebuild(const ContainerRows& rows, std::size_t requiredWidth, ContainerRows& fresh) {
  const ContainerRows::Usage usage = rows.usage();
  const unsigned long count = *roundUp(usage.usedRows + 1, 10);
  const unsigned long width = *roundUp(std::max(requiredWidth, usage.maxLength), 4);
  auto bytes = std::make_unique<unsigned char[]>(count * width);  // zero-filled
  fresh = ContainerRows(bytes.get(), count, width);
  check(rows.copyUsedRowsTo(fresh, usage.maxLength) == usage.usedRows, "every used row is copied");

  unsigned long target = 0;
  for (unsigned long i = 0; i < rows.rowCount(); ++i) {
    if (rows.elementCount(i) == 0) continue;
    check(fresh.elementCount(target) == rows.elementCount(i), "the count byte is kept");
    ++target;
  }
  return bytes;
}

void checkRebuildKeepsRows(const ContainerRows& rows, const ContainerRows& fresh) {
  if (rows.rowWidth() < 2) return;
  const std::vector<Entry> before = rows.list("");
  const std::vector<Entry> after = fresh.list("");
  check(before.size() == after.size(), "the rebuild keeps every used row");
  std::size_t k = 0;
  for (unsigned long i = 0; i < rows.rowCount(); ++i) {
    if (rows.elementCount(i) == 0) continue;
    check(before[k].front() == after[k].front(), "the rebuild keeps every first string");
    if (rows.usedLength(i) < rows.rowWidth()) check(before[k] == after[k], "the rebuild keeps whole entries");
    ++k;
  }
}

void checkInsertAndErase(ContainerRows& rows, const Entry& entry) {
  const auto freeRow = rows.firstFreeRow();
  check(freeRow.has_value(), "a rebuilt container has a free row");
  check(rows.writeStrings(*freeRow, entry), "a rebuilt container's rows are wide enough");
  rows.setCount(*freeRow, static_cast<unsigned char>(entry.size()));
  const auto found = rows.find(entry);
  check(found.has_value() && *found <= *freeRow, "an inserted entry is found");
  const std::vector<Entry> listed = rows.list(entry.front());
  check(std::find(listed.begin(), listed.end(), entry) != listed.end(), "an inserted entry is listed");
  const unsigned long used = rows.usage().usedRows;
  rows.setCount(*found, 0);
  check(rows.usage().usedRows == used - 1, "erasing frees one row");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  er::fuzz::FuzzInput input(data, size);
  const std::size_t width = 1 + input.byte() % 64;
  const std::string prefix = input.sizedBytes(8);
  std::string element = input.sizedBytes(16);
  std::replace(element.begin(), element.end(), '\0', 'z');
  if (element.empty()) element = "e";
  const Entry entry{element};
  const std::uint64_t descriptorWidth = input.word();
  const std::uint64_t descriptorCount = input.word();
  const std::string rowText = input.rest();

  checkContainerSize(descriptorWidth, descriptorCount);

  const unsigned long rowCount = rowText.size() / width;
  auto bytes = std::make_unique<unsigned char[]>(rowCount * width);
  std::copy_n(rowText.begin(), rowCount * width, bytes.get());
  ContainerRows rows(bytes.get(), rowCount, width);
  checkListing(rows, prefix);

  ContainerRows fresh(nullptr, 0, 0);
  auto freshBytes = rebuild(rows, ContainerRows::requiredWidth(entry), fresh);
  checkRebuildKeepsRows(rows, fresh);
  checkInsertAndErase(fresh, entry);

  // Erasing from the original rows frees the matching row, if any.
  if (const auto found = rows.find(entry)) {
    const unsigned long used = rows.usage().usedRows;
    rows.setCount(*found, 0);
    check(rows.usage().usedRows == used - 1, "erasing frees one row");
  }
  return 0;
}
