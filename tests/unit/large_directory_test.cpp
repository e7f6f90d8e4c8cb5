// Directories larger than this library ever grows one (32 MiB, or more than
// 2^20 rows), as another build or a long-lived registry may leave them: they
// are read whole and kept, never taken for damage and rebuilt empty. Only an
// insert that would grow a directory past the limit fails, with a clear
// error, and leaves its entries as they were.
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/directory_test_support.hpp"
#include "support/log_capture.hpp"

namespace er::test {
namespace {

// A base whose active slot 0 describes `count` rows of `width` bytes in
// container 3, initialised, next to that container holding `rows` at the
// given row numbers.
void plantLargeDirectory(const TestDirectory& dir, std::uint64_t width, std::uint64_t count,
                         const std::vector<std::pair<std::uint64_t, std::string>>& rows) {
  BaseFields fields;
  fields.initializerPid = 1;
  fields.initialized = 1;
  fields.rowWidth[0] = width;
  fields.rowCount[0] = count;
  fields.containerNumber[0] = 3;
  plantBase(dir.segment(""), fields);
  std::vector<unsigned char> container(8 + width * count + 1, 0);
  for (const auto& [row, strings] : rows) {
    std::copy(strings.begin(), strings.end(), container.begin() + static_cast<std::ptrdiff_t>(8 + row * width));
  }
  plantSegment(dir.segment("3"), container);
}

std::vector<Entry> sorted(std::vector<Entry> entries) {
  std::sort(entries.begin(), entries.end());
  return entries;
}

TEST(LargeDirectoryTest, ContainerBeyondThirtyTwoMebibytesIsReadAndKept) {
  TestDirectory dir;
  constexpr std::uint64_t width = std::uint64_t{4} << 20;  // 10 rows: 40 MiB
  plantLargeDirectory(dir, width, 10,
                      {{0, std::string("\x01"
                                       "alpha",
                                       6)},
                       {7, std::string("\x01"
                                       "beta",
                                       5)}});
  NamedStringArray array(dir.name, 0, "");
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"alpha"}, {"beta"}}));
  EXPECT_EQ(NamedStringArray::getDimensions(dir.name, 0, ""), std::make_pair(10ul, static_cast<unsigned long>(width)));
  // An insert compacts the rows into a container of the size they need.
  array.insert("gamma");
  EXPECT_EQ(sorted(array.listEntries("")), (std::vector<Entry>{{"alpha"}, {"beta"}, {"gamma"}}));
  EXPECT_EQ(NamedStringArray::getDimensions(dir.name, 0, ""), std::make_pair(10ul, 8ul));
  EXPECT_EQ(dir.files(), (std::set<std::string>{dir.name + "v0", dir.segment("4")}));
}

TEST(LargeDirectoryTest, MoreThanTwoToTheTwentiethRowsAreReadAndKept) {
  TestDirectory dir;
  constexpr std::uint64_t count = (std::uint64_t{1} << 20) + 10;
  plantLargeDirectory(dir, 4, count,
                      {{3, std::string("\x01"
                                       "ab",
                                       3)},
                       {count - 1, std::string("\x01"
                                               "yz",
                                               3)}});
  NamedStringArray array(dir.name, 0, "");
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"ab"}, {"yz"}}));
  array.erase("ab");
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"yz"}}));
  array.insert("new");
  EXPECT_EQ(sorted(array.listEntries("")), (std::vector<Entry>{{"new"}, {"yz"}}));
}

TEST(LargeDirectoryTest, InsertBeyondTheGrowthLimitFailsAndKeepsTheEntries) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 0, "");
  array.insert("kept");
  LogCapture log("agent::spf::endpointregistry=all");
  try {
    array.insert(std::string((std::size_t{4} << 20), 'x'));  // 10 rows of 4 MiB
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "System error: Endpoint::NamedStringArray::reorganize: Directory size limit exceeded");
  }
  EXPECT_EQ(log.messages(),
            std::vector<std::string>{"NamedStringArray::reorganize: The directory would exceed its size limit."});
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"kept"}}));
  array.insert("after");
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"kept"}, {"after"}}));
}

}  // namespace
}  // namespace er::test
