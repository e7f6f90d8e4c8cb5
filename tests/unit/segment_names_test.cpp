#include "directory/segment_names.hpp"

#include <bits/hash_bytes.h>
#include <unistd.h>
#include <climits>
#include <cstdio>
#include <random>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace er = agent::spf::endpointregistry;

namespace {

constexpr std::uint64_t seed = 0xc70f6907UL;

std::string randomBytes(std::mt19937_64& random, std::size_t length) {
  std::uniform_int_distribution<int> byte(0, 255);
  std::string s(length, '\0');
  for (auto& c : s) c = static_cast<char>(byte(random));
  return s;
}

}  // namespace

TEST(SegmentNamesTest, HashTextOfKnownStrings) {
  EXPECT_EQ(er::hashText("a"), "454ddee488c1ed6b");
  EXPECT_EQ(er::hashText("abc"), "32d82bf8ed3dba39");
  EXPECT_EQ(er::hashText("abcdefghi"), "b4ec9257851c8aaf");
}

TEST(SegmentNamesTest, HashTextOfEmptyStringIsEmpty) {
  EXPECT_EQ(er::hashText(""), "");
  // Hashing zero bytes gives a value all the same; the empty text is deliberate.
  EXPECT_NE(er::hashBytes("", 0, seed), 0u);
}

TEST(SegmentNamesTest, HashBytesMatchesTheGnuLibraryOnRandomStrings) {
  std::mt19937_64 random(20240611);
  std::uniform_int_distribution<std::size_t> lengthOf(1, 1000);
  bool tailSeen[8] = {};
  for (int i = 0; i < 5000; ++i) {
    // The first lengths walk through every tail length; the rest are random.
    const std::size_t length = i < 16 ? static_cast<std::size_t>(i + 1) : lengthOf(random);
    const std::string s = randomBytes(random, length);
    tailSeen[length % 8] = true;
    ASSERT_EQ(er::hashBytes(s.data(), s.size(), seed), std::_Hash_bytes(s.data(), s.size(), seed))
        << "length " << length;
    ASSERT_EQ(er::hashBytes(s.data(), s.size(), seed), std::hash<std::string>{}(s)) << "length " << length;
  }
  for (bool seen : tailSeen) EXPECT_TRUE(seen);
}

TEST(SegmentNamesTest, HashTextIsLowerCaseHexOfTheHash) {
  std::mt19937_64 random(7);
  for (int i = 0; i < 1000; ++i) {
    const std::string s = randomBytes(random, 1 + i % 40);
    char expected[17];
    std::snprintf(expected, sizeof expected, "%lx",
                  static_cast<unsigned long>(er::hashBytes(s.data(), s.size(), seed)));
    ASSERT_EQ(er::hashText(s), expected);
  }
}

TEST(SegmentNamesTest, HashWithTopFourBitsZeroIsNotPadded) {
  std::mt19937_64 random(99);
  int found = 0;
  for (int i = 0; i < 100000 && found < 20; ++i) {
    const std::string s = randomBytes(random, 1 + i % 24);
    const std::uint64_t value = er::hashBytes(s.data(), s.size(), seed);
    if ((value >> 60) != 0) continue;
    ++found;
    const std::string text = er::hashText(s);
    EXPECT_LE(text.size(), 15u);
    ASSERT_FALSE(text.empty());
    EXPECT_NE(text.front(), '0');
    EXPECT_EQ(std::stoull(text, nullptr, 16), value);
  }
  EXPECT_EQ(found, 20);
}

TEST(SegmentNamesTest, RecordNameAndPrefixes) {
  const std::pair<std::string, std::string> data{"datA", "datB"};
  const std::string name = er::recordName(data, "group", 0, "someTrustee");
  EXPECT_EQ(name, "qzERb8afd0b676eb75d09adb27586ef98d81l8p" + std::to_string(getpid()) + "v0");
  EXPECT_EQ(er::groupPrefix("group"), "qzERb8afd0b676eb75d0");
  EXPECT_EQ(er::synonymPrefix(data, "group"), "qzERb8afd0b676eb75d09adb27586ef98d81");
  EXPECT_EQ(name.rfind(er::synonymPrefix(data, "group"), 0), 0u);
}

TEST(SegmentNamesTest, TrusteeDoesNotEnterTheName) {
  const std::pair<std::string, std::string> data{"x", "y"};
  EXPECT_EQ(er::recordName(data, "g", 0, ""), er::recordName(data, "g", 0, "wheel"));
}

TEST(SegmentNamesTest, FormatAndLengthFields) {
  const std::pair<std::string, std::string> data{"ab", "c"};
  const std::string name = er::recordName(data, "g", 17, "");
  EXPECT_EQ(er::recordFormat(name), 17u);
  EXPECT_EQ(er::recordDataLength(name), 3u);
  EXPECT_EQ(er::recordPid(name), static_cast<unsigned long>(getpid()));
}

TEST(SegmentNamesTest, JoinedDataPairsShareTheSynonymPrefix) {
  EXPECT_EQ(er::synonymPrefix({"ab", "c"}, "g"), er::synonymPrefix({"a", "bc"}, "g"));
  EXPECT_EQ(er::recordName({"ab", "c"}, "g", 0, ""), er::recordName({"a", "bc"}, "g", 0, ""));
  EXPECT_NE(er::synonymPrefix({"ab", "c"}, "g"), er::synonymPrefix({"ab", "c"}, "h"));
}

TEST(SegmentNamesTest, EmptyGroupTagGivesTheRecordPrefix) {
  EXPECT_EQ(er::groupPrefix(""), "qzER");
  const std::string name = er::recordName({"p", "q"}, "any", 0, "");
  EXPECT_EQ(name.rfind(er::groupPrefix(""), 0), 0u);
  EXPECT_EQ(er::synonymPrefix({"", ""}, ""), "qzER");
}

TEST(SegmentNamesTest, FieldsReadBackFromAFixedName) {
  const std::string name = "qzERb8afd0b676eb75d09adb27586ef98d81l8p4242v0";
  EXPECT_EQ(er::recordPid(name), 4242u);
  EXPECT_EQ(er::recordDataLength(name), 8u);
  EXPECT_EQ(er::recordFormat(name), 0u);
}

TEST(SegmentNamesTest, NumberAfterLastWithoutMarkerReadsFromTheStart) {
  EXPECT_EQ(er::numberAfterLast("12p34v0", 'l'), 12u);
  EXPECT_EQ(er::numberAfterLast("x12", 'l'), 0u);
  EXPECT_EQ(er::recordPid("qzER"), 0u);
  EXPECT_EQ(er::numberAfterLast("", 'p'), 0u);
}

TEST(SegmentNamesTest, NumberAfterLastUsesTheLastMarker) {
  EXPECT_EQ(er::numberAfterLast("p1p2p3", 'p'), 3u);
  EXPECT_EQ(er::numberAfterLast("l12p34v0", 'l'), 12u);
}

TEST(SegmentNamesTest, NumberAfterLastWithoutDigitsIsZero) {
  EXPECT_EQ(er::numberAfterLast("abcp", 'p'), 0u);
  EXPECT_EQ(er::numberAfterLast("abcpx7", 'p'), 0u);
}

TEST(SegmentNamesTest, NumberAfterLastOverflowGivesTheLargestValue) {
  EXPECT_EQ(er::numberAfterLast("p18446744073709551615", 'p'), ULONG_MAX);
  EXPECT_EQ(er::numberAfterLast("p18446744073709551616", 'p'), ULONG_MAX);
  EXPECT_EQ(er::numberAfterLast("p99999999999999999999999", 'p'), ULONG_MAX);
}

TEST(SegmentNamesTest, NumberAfterLastSkipsLeadingWhiteSpace) {
  EXPECT_EQ(er::numberAfterLast("p  \t42x", 'p'), 42u);
  EXPECT_EQ(er::numberAfterLast(" 7", 'v'), 7u);
}

// The read-back agrees with formatted stream extraction on any text: digits,
// markers, signs, white space and letters in random order and length, and
// numbers at and beyond the 64-bit limit.
TEST(SegmentNamesTest, NumberAfterLastReadsAsTheStreamReads) {
  auto streamed = [](const std::string& name, char marker) {
    const std::size_t last = name.rfind(marker);
    std::istringstream stream(name.substr(last == std::string::npos ? 0 : last + 1));
    unsigned long value = 0;
    stream >> value;
    return value;
  };
  const std::string alphabet = "0123456789999lpv +-\tx";
  std::mt19937 random(20261122);
  for (int i = 0; i < 20000; ++i) {
    std::string name;
    const int length = static_cast<int>(random() % 30);
    for (int k = 0; k < length; ++k) name += alphabet[random() % alphabet.size()];
    for (char marker : {'l', 'p', 'v'}) {
      ASSERT_EQ(er::numberAfterLast(name, marker), streamed(name, marker)) << '"' << name << "\" " << marker;
    }
  }
  for (const char* text : {"p18446744073709551614", "p18446744073709551615x", "p184467440737095516150",
                           "p00000000000000000000000000042", "p-1", "p+7"}) {
    const std::string name = text;
    EXPECT_EQ(er::numberAfterLast(name, 'p'), streamed(name, 'p')) << name;
  }
}
