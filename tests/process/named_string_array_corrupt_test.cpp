// NamedStringArray over damaged shared memory: bases and containers planted by
// hand with impossible dimensions, garbage rows and bogus states. Nothing may
// crash, hang or read past a row or a segment; an absurd active descriptor
// reads as an empty directory and is rebuilt as empty by the next writer.
#include <gtest/gtest.h>
#include <unistd.h>
#include <climits>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/child_process.hpp"
#include "support/directory_test_support.hpp"
#include "support/log_capture.hpp"

namespace er::test {
namespace {

const std::string mainChannel = "agent::spf::endpointregistry";

BaseFields activeSlotZero(std::uint64_t width, std::uint64_t count, std::uint64_t number) {
  BaseFields fields;
  fields.initializerPid = 1;  // whoever initialised it
  fields.initialized = 1;
  fields.rowWidth[0] = width;
  fields.rowCount[0] = count;
  fields.containerNumber[0] = number;
  return fields;
}

// Plants a directory whose active descriptor is absurd (or describes far more
// than its container holds), next to a container file holding the entry "a"
// under the number it names, and checks that readers see nothing and the
// next writer starts afresh. `dimensions` is what getDimensions reports: the
// described ones unless the descriptor is absurd.
void expectAbsurdDescriptorReadsAsEmpty(std::uint64_t width, std::uint64_t count, unsigned char containerTrailer = 0,
                                        std::pair<unsigned long, unsigned long> dimensions = {0, 0}) {
  TestDirectory dir;
  plantBase(dir.segment(""), activeSlotZero(width, count, 4));
  plantSegment(dir.segment("4"), containerBytes(4,
                                                {"\x01"
                                                 "a"},
                                                containerTrailer));
  NamedStringArray array(dir.name, 0, "");
  EXPECT_TRUE(array.listEntries("").empty());
  EXPECT_EQ(NamedStringArray::getDimensions(dir.name, 0, ""), dimensions);
  {
    LogCapture log(mainChannel + "=all");
    array.erase("a");
    EXPECT_EQ(log.messages(),
              std::vector<std::string>{"NamedStringArray::erase(): Container shared memory could not be found."});
  }
  array.insert("z");
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"z"}}));
  EXPECT_EQ(NamedStringArray::getDimensions(dir.name, 0, ""), std::make_pair(10ul, 4ul));
  const BaseFields fields = readBase(dir.baseFile());
  EXPECT_EQ(fields.activeSlot, 1u);
  EXPECT_EQ(fields.containerNumber[1], 5u);
  EXPECT_EQ(fields.containerNumber[0], 0u);
  EXPECT_EQ(dir.files(), (std::set<std::string>{dir.name + "v0", dir.name + "v05"}));
}

// Four tebibytes described, 13 bytes there.
TEST(NamedStringArrayCorruptTest, HugeRowCountReadsAsEmpty) {
  expectAbsurdDescriptorReadsAsEmpty(4, 1ull << 40, 0, {1ul << 40, 4ul});
}

TEST(NamedStringArrayCorruptTest, HugeRowWidthReadsAsEmpty) { expectAbsurdDescriptorReadsAsEmpty(1ull << 62, 10); }

// rowCount x rowWidth + 9 wraps around to 9: a reader that trusted the sum
// would map 9 bytes and read rows gigabytes beyond them.
TEST(NamedStringArrayCorruptTest, OverflowingSizeReadsAsEmpty) {
  expectAbsurdDescriptorReadsAsEmpty(1ull << 31, 1ull << 33);
  expectAbsurdDescriptorReadsAsEmpty(1ull << 44, 1ull << 20);
}

// Rows of width 0 have no count byte; the container's trailing byte must not
// be read as one.
TEST(NamedStringArrayCorruptTest, ZeroWidthRowsReadAsEmpty) { expectAbsurdDescriptorReadsAsEmpty(0, 10, 1); }

TEST(NamedStringArrayCorruptTest, ContainerShorterThanItsDescriptorIsReplaced) {
  TestDirectory dir;
  plantBase(dir.segment(""), activeSlotZero(4, 20, 4));  // 89 bytes described
  plantSegment(dir.segment("4"), containerBytes(4, std::vector<std::string>(10,
                                                                            "\x01"
                                                                            "a")));  // 49 bytes
  NamedStringArray array(dir.name, 0, "");
  EXPECT_TRUE(array.listEntries("").empty());
  EXPECT_EQ(NamedStringArray::getDimensions(dir.name, 0, ""), std::make_pair(20ul, 4ul));
  {
    LogCapture log(mainChannel + "=all");
    array.erase("a");
    EXPECT_EQ(log.messages(),
              std::vector<std::string>{"NamedStringArray::erase(): Container shared memory could not be found."});
  }
  array.insert("z");
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"z"}}));
  EXPECT_EQ(dir.files(), (std::set<std::string>{dir.name + "v0", dir.name + "v05"}));
}

TEST(NamedStringArrayCorruptTest, ActiveSlotSevenReadsAsSlotOne) {
  TestDirectory dir;
  BaseFields fields;
  fields.initializerPid = 1;
  fields.initialized = 1;
  fields.activeSlot = 7;
  fields.rowWidth[1] = 4;
  fields.rowCount[1] = 2;
  fields.containerNumber[1] = 5;
  plantBase(dir.segment(""), fields);
  plantSegment(dir.segment("5"), containerBytes(4, {"\x01"
                                                    "a",
                                                    "\x01"
                                                    "b"}));
  NamedStringArray array(dir.name, 0, "");
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"a"}, {"b"}}));
  EXPECT_EQ(NamedStringArray::getDimensions(dir.name, 0, ""), std::make_pair(2ul, 4ul));
  array.erase("a");  // rebuilds into 10 rows; the flip writes a proper slot number
  const BaseFields after = readBase(dir.baseFile());
  EXPECT_EQ(after.activeSlot, 0u);
  EXPECT_EQ(after.containerNumber[0], 6u);
  EXPECT_EQ(after.rowCount[0], 10u);
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"b"}}));
  EXPECT_EQ(dir.files(), (std::set<std::string>{dir.name + "v0", dir.name + "v06"}));
}

TEST(NamedStringArrayCorruptTest, LargestContainerNumberWrapsToOne) {
  TestDirectory dir;
  plantBase(dir.segment(""), activeSlotZero(4, 1, ULONG_MAX));
  plantSegment(dir.segment(std::to_string(ULONG_MAX)), containerBytes(4, {"\x01"
                                                                          "a"}));
  NamedStringArray array(dir.name, 0, "");
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"a"}}));
  array.insert("b");
  EXPECT_EQ(readBase(dir.baseFile()).containerNumber[1], 1u);
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"a"}, {"b"}}));
  EXPECT_EQ(dir.files(), (std::set<std::string>{dir.name + "v0", dir.name + "v01"}));
}

// Garbage rows: a negative count, a count larger than the strings present,
// strings without terminator, and a last row whose string runs up to the
// container's trailing byte (set to 'Z', which no read may include).
TEST(NamedStringArrayCorruptTest, GarbageRowsAreReadWithinTheirBytes) {
  TestDirectory dir;
  plantBase(dir.segment(""), activeSlotZero(6, 4, 4));
  plantSegment(dir.segment("4"), containerBytes(6,
                                                {std::string("\x80neg\0\0", 6),
                                                 std::string("\x7f"
                                                             "a\0b\0\0",
                                                             6),
                                                 std::string("\x02longs", 6), std::string("\x01tails", 6)},
                                                'Z'));
  NamedStringArray array(dir.name, 0, "");
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"neg"}, {"a", "b", ""}, {"longs"}, {"tails"}}));
  EXPECT_EQ(array.listEntries("tails"), (std::vector<Entry>{{"tails"}}));
  EXPECT_TRUE(array.listEntries("tailsZ").empty());
  {
    LogCapture log(mainChannel + "=all");
    array.erase("tailsZ");
    array.erase(Entry{"longs", ""});
    EXPECT_EQ(log.messages().size(), 2u);
  }
  // The negative row counts as full width (6), so rows widen to 8; each used
  // row keeps its 6 bytes.
  array.erase("tails");
  EXPECT_EQ(NamedStringArray::getDimensions(dir.name, 0, ""), std::make_pair(10ul, 8ul));
  const auto container = readBytes(dir.containerFile(5));
  EXPECT_EQ(rowOf(container, 8, 0), std::string("\x80neg\0\0\0\0", 8));
  EXPECT_EQ(rowOf(container, 8, 2), std::string("\x02longs\0\0", 8));
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"neg"}, {"a", "b", "", "", ""}, {"longs", ""}}));
  array.insert("new");
  EXPECT_EQ(array.listEntries("new"), (std::vector<Entry>{{"new"}}));
}

TEST(NamedStringArrayCorruptTest, BogusInitialisedByteIsNeitherReadNorOverwritten) {
  TestDirectory dir;
  BaseFields fields = activeSlotZero(4, 1, 4);
  fields.initializerPid = 0;
  fields.initialized = 2;
  plantBase(dir.segment(""), fields);
  plantSegment(dir.segment("4"), containerBytes(4, {"\x01"
                                                    "a"}));
  NamedStringArray array(dir.name, 0, "");
  LogCapture log(mainChannel + "=all");
  EXPECT_TRUE(array.listEntries("").empty());
  array.erase("a");
  EXPECT_EQ(NamedStringArray::getDimensions(dir.name, 0, ""), std::make_pair(0ul, 0ul));
  EXPECT_TRUE(log.messages().empty());
  try {
    array.insert("b");
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "System Error: Endpoint::NamedStringArray::initializeBase: Inconsistent initial state");
  }
  const auto records = log.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, 512u);
  EXPECT_EQ(records[0].message, "NamedStringArray::initializeBase: Inconsistent initial state of base.");
  EXPECT_EQ(readBase(dir.baseFile()).initialized, 2u);
}

// Marked initialised but claimed by nobody: the first insert takes the base
// for fresh and reports the contradiction; its claim then stands, and the
// next insert goes ahead.
TEST(NamedStringArrayCorruptTest, InitialisedBaseWithoutClaimFailsOnce) {
  TestDirectory dir;
  BaseFields fields = activeSlotZero(4, 1, 4);
  fields.initializerPid = 0;
  plantBase(dir.segment(""), fields);
  plantSegment(dir.segment("4"), containerBytes(4, {"\x01"
                                                    "a"}));
  NamedStringArray array(dir.name, 0, "");
  EXPECT_THROW(array.insert("b"), std::runtime_error);
  EXPECT_EQ(readBase(dir.baseFile()).initializerPid, static_cast<std::uint32_t>(getpid()));
  array.insert("b");
  EXPECT_EQ(array.listEntries("").back(), Entry{"b"});
}

TEST(NamedStringArrayCorruptTest, BaseShorterThanItsLayoutIsRefused) {
  TestDirectory dir;
  plantSegment(dir.segment(""), std::vector<unsigned char>(50, 1));
  NamedStringArray array(dir.name, 0, "");
  LogCapture log(mainChannel + "=all");
  EXPECT_TRUE(array.listEntries("").empty());
  array.erase("a");
  try {
    array.insert("a");
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "System error: Endpoint::NamedStringArray::insert: Base shared memory could not be opened");
  }
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{"NamedStringArray::erase(): Base shared memory could not be found.",
                                      "NamedStringArray::insert(): Base shared memory could not be opened."}));
  EXPECT_EQ(dir.files(), std::set<std::string>{dir.name + "v0"});
}

// A base whose mutex is of a kind no directory is made with (priority
// inheritance with an owner-died lock word, priority protection, forced lock
// elision, destroyed) is never locked: glibc aborts or executes an
// unsupported instruction on some of them. Every operation that needs the
// lock fails with the lock guard's error, in a process that lives on.
TEST(NamedStringArrayCorruptTest, BaseMutexOfAForeignKindIsNotLocked) {
  for (int kind : {32, 64, 256, -1}) {
    TestDirectory dir;
    plantBase(dir.segment(""), activeSlotZero(4, 1, 4));
    plantSegment(dir.segment("4"), containerBytes(4, {"\x01"
                                                      "a"}));
    {
      SharedMemory base = SharedMemory::find(dir.segment(""), sizeof(NamedStringArrayBase), "", {});
      ASSERT_TRUE(base.isAttached());
      auto* header = static_cast<NamedStringArrayBase*>(base.getPointer());
      header->mutex.__data.__kind = kind;
      header->mutex.__data.__lock = 0x40000001;
    }
    const auto code = runInChild(
        [&](ChildProcess&) {
          const std::string failure =
              "System error: Endpoint::PThreadRobustLockGuard::getLockedMutexThread: Failed to lock the mutex. (Error "
              "22)";
          NamedStringArray array(dir.name, 0, "");
          const std::vector<std::function<void()>> operations{
              [&] { array.listEntries(""); }, [&] { array.erase("a"); }, [&] { array.insert("b"); },
              [&] { NamedStringArray::getDimensions(dir.name, 0, ""); }};
          int failed = 0;
          for (const auto& operation : operations) {
            try {
              operation();
            } catch (const std::runtime_error& error) {
              if (error.what() == failure) ++failed;
            }
          }
          return failed == 4 ? 0 : 1;
        },
        std::chrono::seconds(30));
    EXPECT_EQ(code, std::optional<int>(0)) << "kind " << kind;
    EXPECT_EQ(readBytes(dir.containerFile(4)), containerBytes(4, {"\x01"
                                                                  "a"}));
  }
}

// A segment left under the next container number, too small for the next
// container, does not stop the writer.
TEST(NamedStringArrayCorruptTest, LeftoverUnderTheNextNumberIsReplaced) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 0, "");
  array.insert("a");
  plantSegment(dir.segment("3"), std::vector<unsigned char>(20, 0xff));
  array.insert("longer name");  // needs a new, wider container number 3
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"a"}, {"longer name"}}));
  EXPECT_EQ(readBytes(dir.containerFile(3)).size(), 10u * 16 + 9);
  // A big enough leftover is found and cleared before use.
  plantSegment(dir.segment("4"), std::vector<unsigned char>(4000, 0x01));
  array.insert(std::string(20, 'w'));
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"a"}, {"longer name"}, {std::string(20, 'w')}}));
}

std::uint64_t randomDimension(std::mt19937_64& random) {
  switch (random() % 4) {
    case 0:
      return random() % 16;
    case 1:
      return random() % 64;
    case 2:
      return random();
    default:
      return 1ull << (random() % 64);
  }
}

// Random descriptors over random container bytes, planted under the numbers
// the descriptors name: every operation stays bounded and in bounds, and an
// insert always ends up listed.
TEST(NamedStringArrayCorruptTest, RandomDamageIsSurvived) {
  std::mt19937_64 random(20240611);
  for (int round = 0; round < 60; ++round) {
    TestDirectory dir;
    BaseFields fields;
    fields.initializerPid = 1;
    fields.initialized = 1;
    fields.activeSlot = static_cast<unsigned>(random() % 256);
    for (int slot = 0; slot < 2; ++slot) {
      fields.rowWidth[slot] = randomDimension(random);
      fields.rowCount[slot] = randomDimension(random);
      fields.containerNumber[slot] = 1 + random() % 6;
    }
    plantBase(dir.segment(""), fields);
    for (int number = 1; number <= 6; ++number) {
      if (random() % 3 == 0) continue;
      std::vector<unsigned char> bytes(1 + random() % 700);
      for (auto& byte : bytes) byte = static_cast<unsigned char>(random() % 4 == 0 ? 0 : random());
      plantSegment(dir.segment(std::to_string(number)), bytes);
    }
    NamedStringArray array(dir.name, 0, "");
    for (const Entry& entry : array.listEntries("")) EXPECT_LE(entry.size(), 127u);
    (void)NamedStringArray::getDimensions(dir.name, 0, "");
    array.erase("x");
    array.erase(Entry{});
    array.insert("inserted");
    const auto listed = array.listEntries("inserted");
    EXPECT_EQ(listed.size(), 1u) << "round " << round;
    array.erase("inserted");
    EXPECT_TRUE(array.listEntries("inserted").empty()) << "round " << round;
  }
}

}  // namespace
}  // namespace er::test
