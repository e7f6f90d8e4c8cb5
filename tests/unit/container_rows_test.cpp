// The rows of a directory container over plain bytes: reading, matching,
// measuring, writing and copying rows stay inside the rows they were given,
// whatever the bytes hold. Every buffer is exactly as large as its rows, so
// the address sanitizer reports any byte read beyond them.
#include "directory/container_rows.hpp"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

namespace agent::spf::endpointregistry {
namespace {

using Entry = ContainerRows::Entry;
using Bytes = std::vector<unsigned char>;

// Rows of `width` bytes: each given row padded with zeros.
Bytes rowBytes(std::size_t width, const std::vector<std::string>& rows) {
  Bytes bytes;
  for (const std::string& row : rows) {
    Bytes padded(row.begin(), row.end());
    padded.resize(width, 0);
    bytes.insert(bytes.end(), padded.begin(), padded.end());
  }
  return bytes;
}

ContainerRows viewOf(Bytes& bytes, std::size_t width) {
  return ContainerRows(bytes.data(), bytes.size() / width, width);
}

TEST(ContainerRowsTest, ContainerSizeOfPossibleAndAbsurdDescriptors) {
  EXPECT_EQ(checkedContainerSize(4, 10), std::optional<std::size_t>(49));
  EXPECT_EQ(checkedContainerSize(0, 0), std::optional<std::size_t>(9));
  EXPECT_EQ(checkedContainerSize(ULONG_MAX, 0), std::optional<std::size_t>(9));
  EXPECT_EQ(checkedContainerSize(0, 1), std::nullopt);
  // Size alone is no damage: beyond the 32 MiB that a directory is grown to
  // and beyond 2^20 rows are sizes like any other.
  EXPECT_EQ(checkedContainerSize(1, (1ul << 20) + 1), std::optional<std::size_t>((1ul << 20) + 10));
  EXPECT_EQ(checkedContainerSize(32, 1ul << 20), std::optional<std::size_t>((32ul << 20) + 9));
  const std::size_t largest = static_cast<std::size_t>(PTRDIFF_MAX);
  EXPECT_EQ(checkedContainerSize(largest - 9, 1), std::optional<std::size_t>(largest));
  EXPECT_EQ(checkedContainerSize(largest - 8, 1), std::nullopt);        // beyond a file offset
  EXPECT_EQ(checkedContainerSize(1ul << 31, 1ul << 33), std::nullopt);  // the product wraps
}

TEST(ContainerRowsTest, RoundUpToIncrements) {
  EXPECT_EQ(roundUp(0, 10), std::optional<unsigned long>(0));
  EXPECT_EQ(roundUp(1, 10), std::optional<unsigned long>(10));
  EXPECT_EQ(roundUp(11, 10), std::optional<unsigned long>(20));
  EXPECT_EQ(roundUp(7, 0), std::optional<unsigned long>(7));
  EXPECT_EQ(roundUp(ULONG_MAX - 3, 4), std::optional<unsigned long>(ULONG_MAX - 3));
  EXPECT_EQ(roundUp(ULONG_MAX - 2, 4), std::nullopt);
}

TEST(ContainerRowsTest, ListsUsedRowsByPrefixInRowOrder) {
  Bytes bytes =
      rowBytes(8, {std::string("\x01qzERa\0", 7), "", std::string("\x02qzb\0x\0", 7), std::string("\x01qzERc\0", 7)});
  const ContainerRows rows = viewOf(bytes, 8);
  EXPECT_EQ(rows.list("qzER"), (std::vector<Entry>{{"qzERa"}, {"qzERc"}}));
  EXPECT_EQ(rows.list(""), (std::vector<Entry>{{"qzERa"}, {"qzb", "x"}, {"qzERc"}}));
  EXPECT_EQ(rows.list("qzERab"), std::vector<Entry>{});
  EXPECT_EQ(rows.elementCount(1), 0u);
  EXPECT_EQ(rows.elementCount(2), 2u);
}

// A string without a zero byte ends with its row; the next row's bytes never
// join it, and a count larger than the strings present yields what fits.
TEST(ContainerRowsTest, GarbageRowsAreReadWithinTheirRow) {
  Bytes bytes = rowBytes(5, {"\x01"
                             "abcd",
                             "\x80"
                             "efgh",
                             std::string("\x7f"
                                         "i\0j\0",
                                         5),
                             "\x01"
                             "klmn"});
  const ContainerRows rows = viewOf(bytes, 5);
  EXPECT_EQ(rows.list(""), (std::vector<Entry>{{"abcd"}, {"efgh"}, {"i", "j"}, {"klmn"}}));
  EXPECT_EQ(rows.elementCount(1), 1u);  // negative count byte
  EXPECT_EQ(rows.list("abcde"), std::vector<Entry>{});
}

TEST(ContainerRowsTest, RowsOfWidthOneHoldOnlyTheirCount) {
  Bytes bytes{1, 0, 5};
  const ContainerRows rows(bytes.data(), 3, 1);
  EXPECT_EQ(rows.list(""), std::vector<Entry>{});  // no byte for a first string
  EXPECT_EQ(rows.find(Entry{""}), std::nullopt);
  EXPECT_EQ(rows.find(Entry{}), std::optional<unsigned long>(1));
  EXPECT_EQ(rows.usedLength(0), 1u);
  EXPECT_EQ(rows.usage().usedRows, 2u);
  EXPECT_EQ(rows.usage().maxLength, 1u);
}

TEST(ContainerRowsTest, FindsTheFirstExactlyMatchingRow) {
  Bytes bytes = rowBytes(8, {std::string("\x02"
                                         "ab\0c\0",
                                         6),
                             std::string("\x01"
                                         "ab\0",
                                         4),
                             std::string("\x01"
                                         "ab\0",
                                         4),
                             "",
                             std::string("\x01"
                                         "abcdefg",
                                         8)});
  const ContainerRows rows = viewOf(bytes, 8);
  EXPECT_EQ(rows.find(Entry{"ab"}), std::optional<unsigned long>(1));
  EXPECT_EQ(rows.find(Entry{"ab", "c"}), std::optional<unsigned long>(0));
  EXPECT_EQ(rows.find(Entry{"ab", "c", ""}), std::nullopt);
  EXPECT_EQ(rows.find(Entry{"a"}), std::nullopt);
  EXPECT_EQ(rows.find(Entry{"abcdefg"}), std::optional<unsigned long>(4));  // runs to the row's end
  EXPECT_EQ(rows.find(Entry{"abcdefgh"}), std::nullopt);
  EXPECT_EQ(rows.find(Entry{}), std::optional<unsigned long>(3));
  EXPECT_EQ(rows.firstFreeRow(), std::optional<unsigned long>(3));
}

TEST(ContainerRowsTest, UsedLengthStopsBeforeTheRowsLastByte) {
  Bytes bytes = rowBytes(6, {std::string("\x01"
                                         "ab\0",
                                         4),
                             std::string("\x02"
                                         "ab\0cd",
                                         6),
                             std::string("\x01"
                                         "abcd\0",
                                         6),
                             std::string("\xff"
                                         "a\0",
                                         3),
                             ""});
  const ContainerRows rows = viewOf(bytes, 6);
  EXPECT_EQ(rows.usedLength(0), 4u);
  EXPECT_EQ(rows.usedLength(1), 6u);  // the second string's zero is missing
  EXPECT_EQ(rows.usedLength(2), 6u);  // its zero is the last byte, which is not looked at
  EXPECT_EQ(rows.usedLength(3), 6u);  // negative count: the whole width
  const ContainerRows::Usage usage = rows.usage();
  EXPECT_EQ(usage.usedRows, 4u);
  EXPECT_EQ(usage.maxLength, 6u);
  EXPECT_EQ(rows.firstFreeRow(), std::optional<unsigned long>(4));
}

TEST(ContainerRowsTest, WritesStringsThenTheCountByte) {
  Bytes bytes(3 * 6, 0xee);
  bytes[0] = 1;
  bytes[6] = 0;
  ContainerRows rows = viewOf(bytes, 6);
  EXPECT_EQ(ContainerRows::requiredWidth(Entry{"ab", "c"}), 6u);
  EXPECT_EQ(rows.firstFreeRow(), std::optional<unsigned long>(1));
  ASSERT_TRUE(rows.writeStrings(1, Entry{"ab", "c"}));
  EXPECT_EQ(Bytes(bytes.begin() + 6, bytes.begin() + 12), (Bytes{0, 'a', 'b', 0, 'c', 0}));
  EXPECT_EQ(rows.elementCount(1), 0u);  // not yet visible
  rows.setCount(1, 2);
  EXPECT_EQ(rows.find(Entry{"ab", "c"}), std::optional<unsigned long>(1));
  EXPECT_FALSE(rows.writeStrings(2, Entry{"abc", "d"}));  // needs 7 bytes
  EXPECT_EQ(Bytes(bytes.begin() + 12, bytes.end()), Bytes(6, 0xee));
  rows.setCount(1, 0);
  EXPECT_EQ(rows.firstFreeRow(), std::optional<unsigned long>(1));
}

TEST(ContainerRowsTest, CopiesUsedRowsCompactedAndCutToTheNarrowerWidth) {
  Bytes from = rowBytes(4, {"\x01"
                            "abc",
                            "",
                            std::string("\x01"
                                        "d\0",
                                        3),
                            "",
                            "\x01"
                            "efg"});
  Bytes to(3 * 6, 0);
  ContainerRows target = viewOf(to, 6);
  EXPECT_EQ(viewOf(from, 4).copyUsedRowsTo(target, 4), 3u);
  EXPECT_EQ(to, (Bytes{1, 'a', 'b', 'c', 0, 0, 1, 'd', 0, 0, 0, 0, 1, 'e', 'f', 'g', 0, 0}));
  EXPECT_EQ(target.list(""), (std::vector<Entry>{{"abc"}, {"d"}, {"efg"}}));

  Bytes narrow(2 * 2, 0x55);
  ContainerRows small = viewOf(narrow, 2);
  EXPECT_EQ(viewOf(from, 4).copyUsedRowsTo(small, 4), 2u);  // two rows, two bytes each
  EXPECT_EQ(narrow, (Bytes{1, 'a', 1, 'd'}));
}

TEST(ContainerRowsTest, EmptyViewHasNoRows) {
  const ContainerRows rows(nullptr, 0, 0);
  EXPECT_EQ(rows.list(""), std::vector<Entry>{});
  EXPECT_EQ(rows.find(Entry{}), std::nullopt);
  EXPECT_EQ(rows.firstFreeRow(), std::nullopt);
  EXPECT_EQ(rows.usage().usedRows, 0u);
}

}  // namespace
}  // namespace agent::spf::endpointregistry
