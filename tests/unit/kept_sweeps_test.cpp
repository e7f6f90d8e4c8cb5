// What listings keep for the next one, in one process: the digest of the
// directory's names and the clean sweeps it decides on.
#include <gtest/gtest.h>

#include "discovery/kept_records.hpp"

namespace agent::spf::endpointregistry {
namespace {

using Stamp = KeptRecords::Stamp;

class KeptSweepsTest : public ::testing::Test {
 protected:
  void SetUp() override { KeptRecords::ofProcess().clear(); }
  void TearDown() override { KeptRecords::ofProcess().clear(); }
};

TEST(KeptDigest, IgnoresTheOrderAndSeesANameComeGoOrChange) {
  const std::uint64_t ab = KeptRecords::digestOf({"qzERa", "qzERb"});
  EXPECT_EQ(KeptRecords::digestOf({"qzERb", "qzERa"}), ab);
  EXPECT_NE(KeptRecords::digestOf({"qzERa"}), ab);
  EXPECT_NE(KeptRecords::digestOf({"qzERa", "qzERb", "qzERc"}), ab);
  EXPECT_NE(KeptRecords::digestOf({"qzERa", "qzERc"}), ab);
  EXPECT_NE(KeptRecords::digestOf({}), KeptRecords::digestOf({""}));
}

TEST_F(KeptSweepsTest, ASweepIsSkippedOnlyWhileStampAndNamesStayAsAtACleanOne) {
  const Stamp stamp{1, 2, 3, 4, 5};
  const std::uint64_t names = KeptRecords::digestOf({"qzERx"});
  KeptRecords::Listing first = KeptRecords::ofProcess().listing("", "qzER");
  EXPECT_TRUE(first.sweepNeeded(stamp, names));
  first.swept(stamp, names, true);
  EXPECT_FALSE(first.sweepNeeded(stamp, names));
  KeptRecords::Listing again = KeptRecords::ofProcess().listing("", "qzER");
  EXPECT_FALSE(again.sweepNeeded(stamp, names));
  Stamp moved = stamp;
  moved.nanoseconds = 5;
  EXPECT_TRUE(again.sweepNeeded(moved, names));
  moved = stamp;
  moved.size = 25;
  EXPECT_TRUE(again.sweepNeeded(moved, names));
  EXPECT_TRUE(again.sweepNeeded(stamp, KeptRecords::digestOf({})));
  // Another trustee, another prefix: a sweep of their own.
  EXPECT_TRUE(KeptRecords::ofProcess().listing("staff", "qzER").sweepNeeded(stamp, names));
  EXPECT_TRUE(KeptRecords::ofProcess().listing("", "qzERab").sweepNeeded(stamp, names));
  // A sweep that left a segment unnamed (or could not read the folder) is no clean one.
  again.swept(stamp, names, false);
  EXPECT_TRUE(again.sweepNeeded(stamp, names));
}

}  // namespace
}  // namespace agent::spf::endpointregistry
