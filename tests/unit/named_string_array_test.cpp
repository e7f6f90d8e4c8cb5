// NamedStringArray in one process: names, the byte layout of a directory as
// it grows, widens and shrinks, erasing, listing, refusals and their logs.
#include <gtest/gtest.h>
#include <unistd.h>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/directory_test_support.hpp"
#include "support/log_capture.hpp"
#include "support/text.hpp"

namespace er::test {
namespace {

const std::string mainChannel = "agent::spf::endpointregistry";

std::vector<Entry> oneStringEntries(const std::vector<std::string>& names) {
  std::vector<Entry> entries;
  for (const auto& name : names) entries.push_back({name});
  return entries;
}

TEST(NamedStringArrayTest, NamesFollowTheGrammar) {
  EXPECT_EQ(NamedStringArray::makeBaseName("abc", 7, "someTrustee"), "abcv7");
  EXPECT_EQ(NamedStringArray::makeBaseName("qzEndpointRegistry", 0, ""), "qzEndpointRegistryv0");
  NamedStringArray array("abc", 5, "");
  EXPECT_EQ(array.makeContainerName(1), "abcv01");
  EXPECT_EQ(array.makeContainerName(12), "abcv012");
  EXPECT_EQ(NamedStringArray::containerSize(0, 0), 9u);
  EXPECT_EQ(NamedStringArray::containerSize(4, 10), 49u);
  EXPECT_EQ(NamedStringArray::containerSize(12, 20), 249u);
}

TEST(NamedStringArrayTest, EmptyNameIsRefused) {
  try {
    NamedStringArray::makeBaseName("", 0, "");
    FAIL() << "no exception";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "NamedStringArray name cannot be empty.");
  }
  EXPECT_THROW(NamedStringArray("", 0, ""), std::invalid_argument);
}

TEST(NamedStringArrayTest, FirstInsertBuildsContainerTwoHoldingTheEntry) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 0, "");
  array.insert("x");

  EXPECT_EQ(dir.files(), (std::set<std::string>{dir.name + "v0", dir.name + "v02"}));
  EXPECT_EQ(readBytes(dir.baseFile()).size(), 96u);
  const BaseFields base = readBase(dir.baseFile());
  EXPECT_EQ(base.initializerPid, static_cast<std::uint32_t>(getpid()));
  EXPECT_EQ(base.initialized, 1u);
  EXPECT_EQ(base.activeSlot, 1u);
  EXPECT_EQ(base.rowCount[1], 10u);
  EXPECT_EQ(base.rowWidth[1], 4u);
  EXPECT_EQ(base.containerNumber[1], 2u);
  EXPECT_EQ(base.rowCount[0], 0u);
  EXPECT_EQ(base.rowWidth[0], 0u);
  EXPECT_EQ(base.containerNumber[0], 0u);

  std::vector<unsigned char> expected(49, 0);
  expected[8] = 1;
  expected[9] = 'x';
  EXPECT_EQ(readBytes(dir.containerFile(2)), expected);
  EXPECT_EQ(array.listEntries(""), oneStringEntries({"x"}));
  EXPECT_EQ(NamedStringArray::getDimensions(dir.name, 0, ""), std::make_pair(10ul, 4ul));
}

// The same first insert, one step at a time through the public steps.
TEST(NamedStringArrayTest, FirstInsertStepByStep) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 0, "");
  const auto implementation = SharedMemory::ImplementationSpecifications{};
  SharedMemory base = SharedMemory::createOrFind(dir.name + "v0", 96, "", implementation);
  ASSERT_TRUE(base.isAttached());
  ASSERT_TRUE(base.isCreator());
  EXPECT_EQ(readBytes(dir.baseFile()), std::vector<unsigned char>(96, 0));
  ASSERT_TRUE(array.initializeBase(base));
  BaseFields fields = readBase(dir.baseFile());
  EXPECT_EQ(fields.initializerPid, static_cast<std::uint32_t>(getpid()));
  EXPECT_EQ(fields.initialized, 1u);
  EXPECT_EQ(fields.activeSlot, 0u);
  EXPECT_EQ(fields.containerNumber[0], 1u);
  EXPECT_TRUE(array.initializeBase(base));  // already done: true again

  auto* header = static_cast<NamedStringArrayBase*>(base.getPointer());
  PThreadRobustLockGuard guard(&header->mutex);
  SharedMemory container = SharedMemory::createOrFind(array.makeContainerName(1), 9, "", implementation);
  ASSERT_TRUE(container.isCreator());
  container.makePersistent();
  EXPECT_EQ(readBytes(dir.containerFile(1)), std::vector<unsigned char>(9, 0));

  array.reorganize(base, container, 3);
  EXPECT_FALSE(fileExists(dir.containerFile(1)));
  EXPECT_EQ(readBytes(dir.containerFile(2)), std::vector<unsigned char>(49, 0));
  EXPECT_EQ(container.getSize(), 49u);
  fields = readBase(dir.baseFile());
  EXPECT_EQ(fields.activeSlot, 1u);
  EXPECT_EQ(fields.containerNumber[1], 2u);
  EXPECT_EQ(fields.containerNumber[0], 0u);

  // Nothing changes when the dimensions stay.
  array.reorganize(base, container, 3);
  EXPECT_EQ(readBase(dir.baseFile()).containerNumber[1], 2u);
  EXPECT_TRUE(fileExists(dir.containerFile(2)));
}

TEST(NamedStringArrayTest, TenthEntryFitsAndEleventhDoublesTheRows) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 0, "");
  std::vector<std::string> names;
  for (int i = 0; i < 10; ++i) {
    names.push_back(er::test::concat("n", std::to_string(i)));
    array.insert(names.back());
  }
  EXPECT_EQ(NamedStringArray::getDimensions(dir.name, 0, ""), std::make_pair(10ul, 4ul));
  EXPECT_EQ(readBase(dir.baseFile()).containerNumber[1], 2u);
  EXPECT_EQ(array.listEntries(""), oneStringEntries(names));

  names.push_back("n10");  // needs 5 bytes: also widens to 8
  array.insert(names.back());
  names.push_back("nB");
  array.insert(names.back());
  EXPECT_EQ(NamedStringArray::getDimensions(dir.name, 0, ""), std::make_pair(20ul, 8ul));
  const BaseFields base = readBase(dir.baseFile());
  EXPECT_EQ(base.activeSlot, 0u);
  EXPECT_EQ(base.containerNumber[0], 3u);
  EXPECT_EQ(dir.files(), (std::set<std::string>{dir.name + "v0", dir.name + "v03"}));
  EXPECT_EQ(array.listEntries(""), oneStringEntries(names));
  const auto container = readBytes(dir.containerFile(3));
  ASSERT_EQ(container.size(), 20u * 8 + 9);
  EXPECT_EQ(rowOf(container, 8, 0), std::string("\x01n0\0\0\0\0\0", 8));
  EXPECT_EQ(rowOf(container, 8, 10), std::string("\x01n10\0\0\0\0", 8));
  EXPECT_EQ(rowOf(container, 8, 11), std::string("\x01nB\0\0\0\0\0", 8));
  EXPECT_EQ(rowOf(container, 8, 12), std::string(8, '\0'));
}

TEST(NamedStringArrayTest, EleventhEntryOfEqualLengthMovesToTwentyRows) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 0, "");
  for (int i = 0; i < 11; ++i) array.insert(std::string("e") + static_cast<char>('a' + i));
  EXPECT_EQ(NamedStringArray::getDimensions(dir.name, 0, ""), std::make_pair(20ul, 4ul));
  EXPECT_EQ(readBytes(dir.containerFile(3)).size(), 20u * 4 + 9);
  EXPECT_FALSE(fileExists(dir.containerFile(2)));
  EXPECT_EQ(array.listEntries("").size(), 11u);
}

TEST(NamedStringArrayTest, LongerEntryWidensEveryRow) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 0, "");
  array.insert("ab");
  array.insert("abcdefg");  // needs 9 bytes: width 12
  EXPECT_EQ(NamedStringArray::getDimensions(dir.name, 0, ""), std::make_pair(10ul, 12ul));
  EXPECT_EQ(dir.files(), (std::set<std::string>{dir.name + "v0", dir.name + "v03"}));
  const auto container = readBytes(dir.containerFile(3));
  ASSERT_EQ(container.size(), 129u);
  EXPECT_EQ(rowOf(container, 12, 0), std::string("\x01"
                                                 "ab\0\0\0\0\0\0\0\0\0",
                                                 12));
  EXPECT_EQ(rowOf(container, 12, 1), std::string("\x01"
                                                 "abcdefg\0\0\0\0",
                                                 12));
}

TEST(NamedStringArrayTest, MultiStringEntryIsWrittenStringAfterString) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 0, "");
  array.insert(Entry{"ab", "", "c"});  // 3 + 3 + 1 = 7 bytes: width 8
  EXPECT_EQ(rowOf(readBytes(dir.containerFile(2)), 8, 0), std::string("\x03"
                                                                      "ab\0\0c\0\0",
                                                                      8));
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"ab", "", "c"}}));
  array.erase(Entry{"ab", ""});
  array.erase(Entry{"ab", "", "d"});
  EXPECT_EQ(array.listEntries("").size(), 1u);
  array.erase(Entry{"ab", "", "c"});
  EXPECT_TRUE(array.listEntries("").empty());
}

TEST(NamedStringArrayTest, ErasingTheOnlyEntryLeavesZeroRowsUnderAHigherNumber) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 0, "");
  array.insert("x");
  array.erase("x");
  const BaseFields base = readBase(dir.baseFile());
  EXPECT_EQ(base.activeSlot, 0u);
  EXPECT_EQ(base.containerNumber[0], 3u);
  EXPECT_EQ(base.rowCount[0], 0u);
  EXPECT_EQ(base.rowWidth[0], 0u);
  EXPECT_EQ(base.containerNumber[1], 0u);
  EXPECT_EQ(dir.files(), (std::set<std::string>{dir.name + "v0", dir.name + "v03"}));
  EXPECT_EQ(readBytes(dir.containerFile(3)), std::vector<unsigned char>(9, 0));
  EXPECT_EQ(NamedStringArray::getDimensions(dir.name, 0, ""), std::make_pair(0ul, 0ul));
  EXPECT_TRUE(array.listEntries("").empty());

  array.insert("y");  // and it grows again from there
  EXPECT_EQ(readBase(dir.baseFile()).containerNumber[1], 4u);
  EXPECT_EQ(array.listEntries(""), oneStringEntries({"y"}));
}

TEST(NamedStringArrayTest, EraseFreesTheFirstMatchingRowAndCompacts) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 0, "");
  for (const char* name : {"a", "b", "a", "c"}) array.insert(name);
  array.erase("a");
  EXPECT_EQ(array.listEntries(""), oneStringEntries({"b", "a", "c"}));
  // Same dimensions: the row is freed in place, and the next insert fills it.
  EXPECT_EQ(rowOf(readBytes(dir.containerFile(2)), 4, 0), std::string("\0a\0\0", 4));
  array.insert("d");
  EXPECT_EQ(array.listEntries(""), oneStringEntries({"d", "b", "a", "c"}));
}

TEST(NamedStringArrayTest, EraseOfAMissingEntryLogsAndChangesNothing) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 0, "");
  array.insert("a");
  array.insert(Entry{"b", "c"});  // needs 5 bytes: container 3, width 8
  const auto before = readBytes(dir.containerFile(3));
  LogCapture log(mainChannel + "=all");
  array.erase("c");
  array.erase(Entry{"a", "b"});  // another size never matches
  array.erase(Entry{"b"});
  const auto records = log.records();
  ASSERT_EQ(records.size(), 3u);
  for (const auto& record : records) {
    EXPECT_EQ(record.channel, mainChannel);
    EXPECT_EQ(record.level, 256u);
    EXPECT_EQ(record.message, "NamedStringArray::erase(): Entry could not be found.");
  }
  EXPECT_EQ(readBytes(dir.containerFile(3)), before);
  EXPECT_EQ(dir.files(), (std::set<std::string>{dir.name + "v0", dir.name + "v03"}));
}

TEST(NamedStringArrayTest, ErasingAnEmptyListMatchesTheFirstFreeRow) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 0, "");
  for (const char* name : {"a", "b", "c"}) array.insert(name);
  array.erase("b");  // rows: a, free, c, free ...
  NamedStringArray finer(dir.name, 0, "");
  finer.setRowIncrement(5);
  LogCapture log(mainChannel + "=all");
  finer.erase(Entry{});  // matches row 1, compacts into 5 rows
  EXPECT_TRUE(log.messages().empty());
  EXPECT_EQ(NamedStringArray::getDimensions(dir.name, 0, ""), std::make_pair(5ul, 4ul));
  const auto container = readBytes(dir.containerFile(3));
  EXPECT_EQ(rowOf(container, 4, 0), std::string("\x01"
                                                "a\0\0",
                                                4));
  EXPECT_EQ(rowOf(container, 4, 1), std::string("\x01"
                                                "c\0\0",
                                                4));
  EXPECT_EQ(array.listEntries(""), oneStringEntries({"a", "c"}));
}

TEST(NamedStringArrayTest, ErasingAnEmptyListWithNoFreeRowIsNotFound) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 0, "");
  for (int i = 0; i < 10; ++i) array.insert(er::test::concat("f", std::to_string(i)));
  ASSERT_EQ(NamedStringArray::getDimensions(dir.name, 0, ""), std::make_pair(10ul, 4ul));
  LogCapture log(mainChannel + "=256");
  array.erase(Entry{});
  EXPECT_EQ(log.messages(), std::vector<std::string>{"NamedStringArray::erase(): Entry could not be found."});
  EXPECT_EQ(array.listEntries("").size(), 10u);
}

TEST(NamedStringArrayTest, TooManyStringsAreRefusedBeforeAnySegmentIsOpened) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 0, "");
  LogCapture log(mainChannel + "=all");
  try {
    array.insert(Entry(128, std::string()));  // 128 empty strings: the count is checked first
    FAIL() << "no exception";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "NamedStringArray new entry cannot have more than 127 elements");
  }
  const auto records = log.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, 512u);
  EXPECT_EQ(records[0].message, "NamedStringArray::insert(): The new entry cannot have more than 127 elements.");
  EXPECT_TRUE(dir.files().empty());

  Entry full(127, "s");
  array.insert(full);
  EXPECT_EQ(array.listEntries(""), std::vector<Entry>{full});
}

TEST(NamedStringArrayTest, EmptyEntriesAreRefused) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 0, "");
  for (const Entry& entry : {Entry{}, Entry{"", ""}}) {
    LogCapture log(mainChannel + "=all");
    try {
      array.insert(entry);
      FAIL() << "no exception";
    } catch (const std::invalid_argument& e) {
      EXPECT_STREQ(e.what(), "NamedStringArray new entry cannot be empty");
    }
    const auto records = log.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, 512u);
    EXPECT_EQ(records[0].message, "NamedStringArray::insert(): The new entry cannot be empty.");
  }
  EXPECT_TRUE(dir.files().empty());
  EXPECT_THROW(array.insert(std::string()), std::invalid_argument);
  array.insert(Entry{"", "a"});
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"", "a"}}));
}

TEST(NamedStringArrayTest, ListEntriesSelectsByPrefixOfTheFirstString) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 0, "");
  array.insert("qzERa1");
  array.insert("other");
  array.insert(Entry{"qzERb", "second"});
  array.insert("qz");
  array.insert(Entry{"x", "qzERc"});
  array.insert("qzER");
  EXPECT_EQ(array.listEntries("qzER"), (std::vector<Entry>{{"qzERa1"}, {"qzERb", "second"}, {"qzER"}}));
  EXPECT_EQ(array.listEntries("").size(), 6u);
  EXPECT_EQ(array.listEntries("qzERa1"), oneStringEntries({"qzERa1"}));
  EXPECT_TRUE(array.listEntries("qzERa12").empty());
  EXPECT_TRUE(array.listEntries("nothing").empty());
}

TEST(NamedStringArrayTest, MissingDirectoryIsEmptyAndLoggedWhereItMatters) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 0, "");
  LogCapture log(mainChannel + "=all");
  EXPECT_TRUE(array.listEntries("").empty());
  EXPECT_EQ(NamedStringArray::getDimensions(dir.name, 0, ""), std::make_pair(0ul, 0ul));
  EXPECT_EQ(array.getBaseTrustee(), "");
  array.erase("x");
  NamedStringArray::deleteNamedStringArray(dir.name, 0, "");
  EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                "NamedStringArray::erase(): Base shared memory could not be found.",
                                "NamedStringArray::deleteNamedStringArray(): Base shared memory could not be found."}));
  EXPECT_TRUE(dir.files().empty());
}

TEST(NamedStringArrayTest, UninitialisedBaseReadsAsEmptyWithoutLogs) {
  TestDirectory dir;
  plantSegment(dir.segment(""), std::vector<unsigned char>(96, 0));
  NamedStringArray array(dir.name, 0, "");
  LogCapture log(mainChannel + "=all");
  EXPECT_TRUE(array.listEntries("").empty());
  array.erase("x");
  EXPECT_EQ(NamedStringArray::getDimensions(dir.name, 0, ""), std::make_pair(0ul, 0ul));
  EXPECT_TRUE(log.messages().empty());
  EXPECT_EQ(readBytes(dir.baseFile()), std::vector<unsigned char>(96, 0));
  NamedStringArray::deleteNamedStringArray(dir.name, 0, "");
  EXPECT_TRUE(dir.files().empty());
}

TEST(NamedStringArrayTest, MissingContainerIsLoggedByErase) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 0, "");
  array.insert("x");
  ASSERT_EQ(std::remove(dir.containerFile(2).c_str()), 0);
  LogCapture log(mainChannel + "=all");
  array.erase("x");
  EXPECT_EQ(log.messages(),
            std::vector<std::string>{"NamedStringArray::erase(): Container shared memory could not be found."});
  EXPECT_TRUE(array.listEntries("").empty());
  // The next insert recreates the container it names (empty) and goes on.
  array.insert("y");
  EXPECT_EQ(array.listEntries(""), oneStringEntries({"y"}));
}

TEST(NamedStringArrayTest, DeleteNamedStringArrayRemovesBaseAndContainer) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 0, "");
  array.insert("x");
  array.insert("y");
  ASSERT_EQ(dir.files().size(), 2u);
  EXPECT_EQ(array.getBaseTrustee(), "");
  NamedStringArray::deleteNamedStringArray(dir.name, 0, "someTrustee");  // opens the user's own scope
  EXPECT_TRUE(dir.files().empty());
  EXPECT_TRUE(array.listEntries("").empty());
  array.insert("z");  // a new directory from scratch
  EXPECT_EQ(array.listEntries(""), oneStringEntries({"z"}));
  EXPECT_EQ(readBase(dir.baseFile()).containerNumber[1], 2u);
}

TEST(NamedStringArrayTest, VersionSelectsTheBaseOfTheStaticOperations) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 3, "");  // the constructor always uses version 0
  array.insert("x");
  EXPECT_TRUE(fileExists(dir.baseFile()));
  EXPECT_EQ(NamedStringArray::getDimensions(dir.name, 3, ""), std::make_pair(0ul, 0ul));
  EXPECT_EQ(NamedStringArray::getDimensions(dir.name, 0, ""), std::make_pair(10ul, 4ul));
}

}  // namespace
}  // namespace er::test
