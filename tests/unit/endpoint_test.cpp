// The Endpoint object: validation, duplicates, moving, reset and destruction.
#include <gtest/gtest.h>

#include <endpointregistry/endpoint.hpp>

#include "support/log_capture.hpp"
#include "support/registry_cleanup.hpp"
#include "support/shm_files.hpp"

namespace agent::spf::endpointregistry {
namespace {

using er::test::LogCapture;
using er::test::RegistryCleanup;
using er::test::uniqueName;
using Pairs = std::vector<std::pair<std::string, std::string>>;

constexpr char lifetimeChannel[] = "detail::agent::spf::endpointregistry::endpointmoveanddestruction";

class EndpointTest : public ::testing::Test {
 protected:
  std::string tag = uniqueName("endpointTag");
  std::string otherTag = uniqueName("endpointOther");
  RegistryCleanup cleanup{tag};
  RegistryCleanup otherCleanup{otherTag};
};

TEST_F(EndpointTest, DefaultEndpointIsEmptyAndQuiet) {
  LogCapture capture(std::string("agent::spf::endpointregistry=all;") + lifetimeChannel + "=all");
  {
    Endpoint empty;
    EXPECT_FALSE(empty);
    empty.reset();
    EXPECT_FALSE(empty);
  }
  EXPECT_TRUE(capture.messages().empty());
}

TEST_F(EndpointTest, BothDataStringsEmptyIsRefusedWithLogWhenEnabled) {
  {
    LogCapture capture("agent::spf::endpointregistry=256");
    try {
      Endpoint endpoint({"", ""}, tag);
      FAIL() << "no exception";
    } catch (const std::invalid_argument& error) {
      EXPECT_STREQ(error.what(), "Endpoint data strings cannot be both empty");
    }
    EXPECT_TRUE(capture.messages().empty());
  }
  LogCapture capture("agent::spf::endpointregistry=512");
  EXPECT_THROW(Endpoint({"", ""}, tag), std::invalid_argument);
  auto records = capture.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, 512u);
  EXPECT_EQ(records[0].message, "Endpoint(): Data strings cannot be both empty.");
}

TEST_F(EndpointTest, EmptyGroupTagIsRefused) {
  LogCapture capture("agent::spf::endpointregistry=all");
  try {
    Endpoint endpoint({"a", "b"}, "");
    FAIL() << "no exception";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "Endpoint group tag cannot be both empty");
  }
  EXPECT_EQ(capture.messages(), std::vector<std::string>{"Endpoint(): Group tag cannot be empty."});
}

TEST_F(EndpointTest, EmptyDataIsReportedBeforeEmptyTag) {
  LogCapture capture("agent::spf::endpointregistry=all");
  try {
    Endpoint endpoint({"", ""}, "");
    FAIL() << "no exception";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "Endpoint data strings cannot be both empty");
  }
  EXPECT_EQ(capture.messages(), std::vector<std::string>{"Endpoint(): Data strings cannot be both empty."});
}

TEST_F(EndpointTest, OneEmptyStringIsAccepted) {
  Endpoint firstEmpty({"", "second"}, tag);
  Endpoint secondEmpty({"first", ""}, tag);
  EXPECT_TRUE(firstEmpty);
  EXPECT_TRUE(secondEmpty);
  EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"", "second"}, {"first", ""}}));
}

TEST_F(EndpointTest, DuplicateIsRefusedUntilTheFirstIsGone) {
  auto first = std::make_unique<Endpoint>(std::pair<std::string, std::string>{"host", "80"}, tag);
  try {
    Endpoint second({"host", "80"}, tag);
    FAIL() << "no exception";
  } catch (const Endpoint::DuplicateEndpointError& error) {
    EXPECT_STREQ(error.what(), "Endpoint already exists in registry");
  }
  first.reset();
  Endpoint third({"host", "80"}, tag);
  EXPECT_TRUE(third);
  EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"host", "80"}}));
}

TEST_F(EndpointTest, DuplicateErrorIsARuntimeErrorAndWritesNoLog) {
  Endpoint first({"x", "y"}, tag);
  LogCapture capture("agent::spf::endpointregistry=all");
  EXPECT_THROW(Endpoint({"x", "y"}, tag), std::runtime_error);
  EXPECT_TRUE(capture.messages().empty());
}

TEST_F(EndpointTest, SynonymsSplitDifferentlyAreDuplicates) {
  Endpoint first({"ab", "c"}, tag);
  EXPECT_THROW(Endpoint({"a", "bc"}, tag), Endpoint::DuplicateEndpointError);
}

TEST_F(EndpointTest, SameDataUnderTwoGroupTagsLivesSideBySide) {
  Endpoint first({"same", "data"}, tag);
  Endpoint second({"same", "data"}, otherTag);
  EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"same", "data"}}));
  EXPECT_EQ(Endpoint::filterFromLocal(otherTag), (Pairs{{"same", "data"}}));
}

TEST_F(EndpointTest, DataWithNulBytesComesBackExactly) {
  const std::string first("a\0b", 3);
  const std::string second("\0", 1);
  Endpoint endpoint({first, second}, tag);
  EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{first, second}}));
  // Joined, "a\0b" "\0" and "a" "\0b\0" are the same text: a synonym.
  EXPECT_THROW(Endpoint({"a", std::string("\0b\0", 3)}, tag), Endpoint::DuplicateEndpointError);
  // A NUL byte is a byte like any other: "a" "b" differs.
  Endpoint other({"a", "b"}, tag);
  EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"a", "b"}, {first, second}}));
}

TEST_F(EndpointTest, PublishBuildsThePair) {
  Endpoint endpoint = Endpoint::publish("left", "right", tag);
  EXPECT_TRUE(endpoint);
  EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"left", "right"}}));
  EXPECT_THROW(Endpoint::publish("", "", tag), std::invalid_argument);
}

TEST_F(EndpointTest, MoveConstructionTransfersThePublication) {
  Endpoint a({"moved", "1"}, tag);
  Endpoint b(std::move(a));
  EXPECT_FALSE(a);  // NOLINT(bugprone-use-after-move): the moved-from state is specified
  EXPECT_TRUE(b);
  {
    Endpoint sink(std::move(a));  // NOLINT(bugprone-use-after-move)
    EXPECT_FALSE(sink);
  }
  EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"moved", "1"}}));
  b.reset();
  EXPECT_FALSE(b);
  EXPECT_TRUE(Endpoint::filterFromLocal(tag).empty());
}

TEST_F(EndpointTest, MoveAssignmentWithdrawsTheTargetAtOnceAndLogsTheMove) {
  LogCapture capture(std::string(lifetimeChannel) + "=4");
  Endpoint target({"old", "target"}, tag);
  Endpoint source({"new", "source"}, otherTag);
  target = std::move(source);
  EXPECT_FALSE(source);  // NOLINT(bugprone-use-after-move)
  EXPECT_TRUE(target);
  EXPECT_TRUE(Endpoint::filterFromLocal(tag).empty());
  EXPECT_EQ(Endpoint::filterFromLocal(otherTag), (Pairs{{"new", "source"}}));
  EXPECT_EQ(capture.messages(), std::vector<std::string>{"Endpoint: Moving " + otherTag});
}

TEST_F(EndpointTest, MoveAssignmentIntoAnEmptyEndpointLogsNothing) {
  LogCapture capture(std::string(lifetimeChannel) + "=all");
  Endpoint target;
  target = Endpoint({"into", "empty"}, tag);
  EXPECT_TRUE(target);
  EXPECT_TRUE(capture.messages().empty());
}

TEST_F(EndpointTest, DestructionLogsOneLineWithTheGroupTag) {
  LogCapture capture(std::string(lifetimeChannel) + "=4");
  { Endpoint endpoint({"to", "destroy"}, tag); }
  { Endpoint empty; }
  EXPECT_EQ(capture.messages(), std::vector<std::string>{"Endpoint: Destructing " + tag});
  EXPECT_TRUE(Endpoint::filterFromLocal(tag).empty());
}

TEST_F(EndpointTest, ResetWithdrawsAndAllowsRepublication) {
  Endpoint endpoint({"r", "s"}, tag);
  endpoint.reset();
  EXPECT_FALSE(endpoint);
  EXPECT_TRUE(Endpoint::filterFromLocal(tag).empty());
  endpoint = Endpoint({"r", "s"}, tag);
  EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"r", "s"}}));
}

}  // namespace
}  // namespace agent::spf::endpointregistry
