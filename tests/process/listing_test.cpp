// Listing and filtering of live endpoints.
#include <gtest/gtest.h>

#include <algorithm>
#include <endpointregistry/endpoint.hpp>

#include "directory/directory_entry.hpp"
#include "directory/segment_names.hpp"
#include "support/child_process.hpp"
#include "support/log_capture.hpp"
#include "support/registry_cleanup.hpp"
#include "support/shm_files.hpp"

namespace agent::spf::endpointregistry {
namespace {

using er::test::ChildProcess;
using er::test::filesIn;
using er::test::LogCapture;
using er::test::RegistryCleanup;
using er::test::uniqueName;
using er::test::userScope;
using Pairs = std::vector<std::pair<std::string, std::string>>;

// The pairs of a listing whose first or second string contains `token`:
// other tests may publish at the same time.
Pairs only(const Pairs& pairs, const std::string& token) {
  Pairs result;
  std::copy_if(pairs.begin(), pairs.end(), std::back_inserter(result), [&](const auto& pair) {
    return pair.first.find(token) != std::string::npos || pair.second.find(token) != std::string::npos;
  });
  return result;
}

class ListingTest : public ::testing::Test {
 protected:
  std::string token = uniqueName("tok");
  std::string tag = uniqueName("listTag");
  std::string otherTag = uniqueName("listOther");
  RegistryCleanup cleanup{tag};
  RegistryCleanup otherCleanup{otherTag};
};

TEST_F(ListingTest, EmptyTrusteeSetYieldsNothingAndTouchesNoSharedMemory) {
  Endpoint endpoint({token, "x"}, tag);
  LogCapture capture("agent::spf::sharedmemory=all;agent::spf::endpointregistry=all");
  EXPECT_TRUE(Endpoint::filter(tag, {}).empty());
  EXPECT_TRUE(Endpoint::list(std::set<std::string>{}).empty());
  EXPECT_TRUE(capture.messages().empty());
}

TEST_F(ListingTest, LocalFormsAgreeAcrossGroupTags) {
  Endpoint a({token + "a", "1"}, tag);
  Endpoint b({token + "b", "2"}, otherTag);
  const Pairs expected{{token + "a", "1"}, {token + "b", "2"}};
  EXPECT_EQ(only(Endpoint::list(), token), expected);
  EXPECT_EQ(only(Endpoint::listFromLocal(), token), expected);
  EXPECT_EQ(only(Endpoint::filterFromLocal(""), token), expected);
  EXPECT_EQ(only(Endpoint::filter(""), token), expected);
  EXPECT_EQ(only(Endpoint::list({""}), token), expected);
  EXPECT_EQ(Endpoint::filter(tag), (Pairs{{token + "a", "1"}}));
  EXPECT_EQ(Endpoint::filter(otherTag, {""}), (Pairs{{token + "b", "2"}}));
  EXPECT_EQ(only(Endpoint::listFromAllTrustees(), token), expected);
  EXPECT_EQ(Endpoint::filterFromAllTrustees(tag), (Pairs{{token + "a", "1"}}));
}

TEST_F(ListingTest, EqualPairsOfTwoGroupTagsComeBackOnce) {
  Endpoint a({token, "same"}, tag);
  Endpoint b({token, "same"}, otherTag);
  EXPECT_EQ(only(Endpoint::list(), token), (Pairs{{token, "same"}}));
}

TEST_F(ListingTest, ResultIsSortedByFirstThenSecond) {
  Endpoint e1({token + "b", "a"}, tag);
  Endpoint e2({token + "a", "z"}, tag);
  Endpoint e3({token + "a", "b"}, tag);
  Endpoint e4({token + "a", ""}, tag);
  Endpoint e5({"", token}, tag);
  EXPECT_EQ(Endpoint::filterFromLocal(tag),
            (Pairs{{"", token}, {token + "a", ""}, {token + "a", "b"}, {token + "a", "z"}, {token + "b", "a"}}));
}

TEST_F(ListingTest, UnknownTrusteeWithoutDirectoryYieldsNothing) {
  Endpoint endpoint({token, "x"}, tag);
  EXPECT_TRUE(Endpoint::filter(tag, {"no-such-group-" + token}).empty());
  EXPECT_TRUE(Endpoint::list({"no-such-group-" + token}).empty());
}

TEST_F(ListingTest, KilledPublishersEndpointsAreClearedByTheNextListing) {
  ChildProcess child([&](ChildProcess& self) {
    Endpoint a({token, "1"}, tag);
    Endpoint b({token, "2"}, tag);
    self.tellParent("published");
    self.readFromParent(std::chrono::seconds(60));
    return 0;
  });
  ASSERT_EQ(child.readFromChild(), "published");
  EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{token, "1"}, {token, "2"}}));
  child.kill();
  ASSERT_EQ(child.wait(), 128 + 9);
  EXPECT_EQ(filesIn(userScope(), groupPrefix(tag)).size(), 2u);
  EXPECT_TRUE(Endpoint::filterFromLocal(tag).empty());
  EXPECT_TRUE(filesIn(userScope(), groupPrefix(tag)).empty());
  EXPECT_TRUE(listDirectoryNames(groupPrefix(tag), "").empty());
  // A later listing does not meet them again, and the data can be published anew.
  EXPECT_TRUE(Endpoint::filterFromLocal(tag).empty());
  Endpoint again({token, "1"}, tag);
  EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{token, "1"}}));
}

}  // namespace
}  // namespace agent::spf::endpointregistry
