// A record's segment name, parsed once: format, data length, pid and the
// segment size it implies, from names this library makes and from names
// that another process may have written.
#include "record/record_name.hpp"

#include <unistd.h>
#include <cstddef>
#include <limits>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "directory/segment_names.hpp"
#include "record/record_layout.hpp"

namespace er = agent::spf::endpointregistry;
using er::RecordName;

namespace {

constexpr unsigned long longest = std::numeric_limits<unsigned long>::max();

TEST(RecordNameTest, ReadsTheFieldsOfANameThisLibraryMakes) {
  const RecordName name(er::recordName({"10.0.0.1", "8080"}, "web", 0, ""));
  EXPECT_EQ(name.format(), 0u);
  EXPECT_EQ(name.dataLength(), 12u);
  EXPECT_EQ(name.pid(), static_cast<unsigned long>(getpid()));
  ASSERT_TRUE(name.segmentSize().has_value());
  EXPECT_EQ(*name.segmentSize(), 12u + 57u);
  EXPECT_TRUE(name.isReadable());
  EXPECT_EQ(name.text().rfind(er::groupPrefix("web"), 0), 0u);
}

TEST(RecordNameTest, EachNumberComesAfterTheLastOfItsMarker) {
  const RecordName name("qzERl5p6v7l12p34v0");
  EXPECT_EQ(name.dataLength(), 12u);
  EXPECT_EQ(name.pid(), 34u);
  EXPECT_EQ(name.format(), 0u);
  EXPECT_EQ(name.segmentSize(), std::optional<std::size_t>(12u + 57u));
}

TEST(RecordNameTest, MarkersWithoutDigitsReadAsZero) {
  const RecordName name("qzERlxpyvz");
  EXPECT_EQ(name.dataLength(), 0u);
  EXPECT_EQ(name.pid(), 0u);
  EXPECT_EQ(name.format(), 0u);
  EXPECT_EQ(name.segmentSize(), std::optional<std::size_t>(57u));
  EXPECT_TRUE(name.isReadable());
}

TEST(RecordNameTest, AnotherFormatIsNotReadable) {
  const RecordName name("qzERl3p9v1");
  EXPECT_EQ(name.format(), 1u);
  EXPECT_TRUE(name.segmentSize().has_value());
  EXPECT_FALSE(name.isReadable());
}

TEST(RecordNameTest, ALengthNoSegmentCouldHoldHasNoSize) {
  const std::size_t largest = std::numeric_limits<std::size_t>::max();
  const RecordName fits("qzERl" + std::to_string(largest - 57) + "p1v0");
  EXPECT_EQ(fits.segmentSize(), std::optional<std::size_t>(largest));
  const RecordName beyond("qzERl" + std::to_string(largest - 56) + "p1v0");
  EXPECT_EQ(beyond.segmentSize(), std::nullopt);
  EXPECT_FALSE(beyond.isReadable());
  const RecordName overflowing("qzERl99999999999999999999999p1v0");
  EXPECT_EQ(overflowing.dataLength(), longest);
  EXPECT_EQ(overflowing.segmentSize(), std::nullopt);
}

TEST(RecordNameTest, TheRecordFrameIsFiftySevenBytes) {
  EXPECT_EQ(er::recordFrameBytes, 57u);
  EXPECT_EQ(er::recordSegmentSize(0), 57u);
  EXPECT_EQ(er::recordSegmentSize(12), 69u);
  EXPECT_EQ(er::recordDataOffset + er::recordReservedBytes, er::recordFrameBytes);
}

}  // namespace
