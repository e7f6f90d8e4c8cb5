// Trustees: publication under groups of the current user, seen by other users.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <endpointregistry/endpoint.hpp>
#include <filesystem>

#include "directory/segment_names.hpp"
#include "support/child_process.hpp"
#include "support/log_capture.hpp"
#include "support/registry_cleanup.hpp"
#include "support/shm_files.hpp"
#include "support/system_accounts.hpp"

namespace agent::spf::endpointregistry {
namespace {

using er::test::becomeUser;
using er::test::ChildProcess;
using er::test::filesIn;
using er::test::groupScope;
using er::test::LogCapture;
using er::test::RegistryCleanup;
using er::test::runningAsRoot;
using er::test::setSupplementaryGroups;
using er::test::TemporaryGroup;
using er::test::TemporaryUser;
using er::test::uniqueName;
using er::test::userScope;
using Pairs = std::vector<std::pair<std::string, std::string>>;
using Trustees = std::set<std::string>;

ino_t inodeOf(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

TEST(TrusteesOfEmptyEndpoint, EveryOperationIsRefusedWithItsLevel) {
  LogCapture capture("agent::spf::endpointregistry=all");
  Endpoint empty;
  auto expectRefused = [](auto&& operation) {
    try {
      operation();
      ADD_FAILURE() << "no exception";
    } catch (const std::invalid_argument& error) {
      EXPECT_STREQ(error.what(), "Empty endpoints do not support trustees");
    }
  };
  expectRefused([&] { empty.getTrustees(); });
  expectRefused([&] { empty.addTrustees({"a"}); });
  expectRefused([&] { empty.setTrustees({"a"}); });
  expectRefused([&] { empty.removeTrustees({"a"}); });
  expectRefused([&] { empty.clearTrustees(); });
  auto records = capture.records();
  ASSERT_EQ(records.size(), 5u);
  const std::vector<std::pair<unsigned, std::string>> expected{
      {512, "Endpoint:getTrustees:Not supported on empty object"},
      {512, "Endpoint:addTrustees:Not supported on empty object"},
      {512, "Endpoint:setTrustees:Not supported on empty object"},
      {256, "Endpoint:removeTrustees:Not supported on empty object"},
      {256, "Endpoint:clearTrustees:Not supported on empty object"}};
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(records[i].level, expected[i].first) << i;
    EXPECT_EQ(records[i].message, expected[i].second) << i;
  }
}

// Three real groups A < B < C (by name) of which a forked child is a member.
class TrusteesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!runningAsRoot()) GTEST_SKIP() << "needs root to create groups";
    for (int i = 0; i < 3; ++i) groups.push_back(std::make_unique<TemporaryGroup>());
    std::sort(groups.begin(), groups.end(), [](const auto& x, const auto& y) { return x->name() < y->name(); });
    std::vector<std::pair<std::string, std::string>> scopes{{"", userScope()}};
    for (const auto& g : groups) scopes.emplace_back(g->name(), groupScope(g->gid()));
    cleanup = std::make_unique<RegistryCleanup>(tag, scopes);
  }
  void TearDown() override {
    cleanup.reset();
    for (const auto& g : groups) std::filesystem::remove_all(groupScope(g->gid()));
  }

  const std::string& name(int i) const { return groups[static_cast<std::size_t>(i)]->name(); }
  std::string scope(int i) const { return groupScope(groups[static_cast<std::size_t>(i)]->gid()); }
  std::vector<gid_t> gids() const {
    std::vector<gid_t> result;
    for (const auto& g : groups) result.push_back(g->gid());
    return result;
  }
  // Records of this test's group tag in a scope folder.
  std::size_t recordsIn(const std::string& folder) const { return filesIn(folder, groupPrefix(tag)).size(); }
  std::string recordPath(int i) const { return scope(i) + "/" + recordName({"d1", "d2"}, tag, 0, ""); }

  // Runs `body` in a child that is a member of the three groups.
  void asMember(const std::function<void()>& body) {
    ChildProcess child([&](ChildProcess&) {
      if (!setSupplementaryGroups(gids())) return 3;
      body();
      return ::testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(child.wait(std::chrono::seconds(60)), 0);
  }

  std::string tag = uniqueName("trusteeTag");
  std::vector<std::unique_ptr<TemporaryGroup>> groups;
  std::unique_ptr<RegistryCleanup> cleanup;
};

TEST_F(TrusteesTest, AddingTrusteesPublishesOneRecordEach) {
  asMember([&] {
    Endpoint endpoint({"d1", "d2"}, tag);
    EXPECT_EQ(endpoint.getTrustees(), Trustees{});
    endpoint.addTrustees({name(0)});
    EXPECT_EQ(endpoint.getTrustees(), Trustees{name(0)});
    endpoint.addTrustees({name(0)});
    EXPECT_EQ(endpoint.getTrustees(), Trustees{name(0)});
    EXPECT_EQ(recordsIn(scope(0)), 1u);
    EXPECT_EQ(Endpoint::filter(tag, {name(0)}), (Pairs{{"d1", "d2"}}));
    // Found once although published under two trustees.
    EXPECT_EQ(Endpoint::filterFromAllTrustees(tag), (Pairs{{"d1", "d2"}}));
  });
}

TEST_F(TrusteesTest, SegmentsOfAGroupTrusteeBelongToTheGroup) {
  asMember([&] {
    Endpoint endpoint({"d1", "d2"}, tag);
    endpoint.addTrustees({name(1)});
    struct stat st {};
    ASSERT_EQ(lstat(recordPath(1).c_str(), &st), 0);
    EXPECT_EQ(st.st_gid, groups[1]->gid());
    EXPECT_EQ(st.st_mode & 07777, 0660u);
    auto bytes = er::test::readBytes(recordPath(1));
    ASSERT_EQ(bytes.size(), 4u + 57u);
    EXPECT_EQ(bytes[0], 1);
    EXPECT_EQ(std::string(bytes.begin() + 56, bytes.begin() + 60), "d1d2");
  });
}

TEST_F(TrusteesTest, EmptyOrBlankSetsChangeNothing) {
  asMember([&] {
    Endpoint endpoint({"d1", "d2"}, tag);
    endpoint.addTrustees({});
    endpoint.addTrustees({""});
    EXPECT_EQ(endpoint.getTrustees(), Trustees{});
    endpoint.addTrustees({name(0)});
    endpoint.removeTrustees({"", "not-a-trustee"});
    EXPECT_EQ(endpoint.getTrustees(), Trustees{name(0)});
  });
}

TEST_F(TrusteesTest, FailureKeepsTheTrusteesAddedBeforeIt) {
  asMember([&] {
    Endpoint endpoint({"d1", "d2"}, tag);
    LogCapture capture("agent::spf::endpointregistry=512");
    const std::string late = "~not-a-group";  // sorts after every group name
    try {
      endpoint.addTrustees({name(0), late});
      ADD_FAILURE() << "no exception";
    } catch (const std::invalid_argument& error) {
      EXPECT_STREQ(error.what(), "Trustees can only be groups of the current user");
    }
    EXPECT_EQ(endpoint.getTrustees(), Trustees{name(0)});
    EXPECT_EQ(capture.messages(), std::vector<std::string>{"Endpoint::Impl(): <" + late +
                                                           "> is not a allowed trustee for the current user."});
  });
}

TEST_F(TrusteesTest, FailureOfTheFirstTrusteeAddsNothing) {
  asMember([&] {
    Endpoint endpoint({"d1", "d2"}, tag);
    EXPECT_THROW(endpoint.addTrustees({"0-not-a-group", name(2)}), std::invalid_argument);
    EXPECT_EQ(endpoint.getTrustees(), Trustees{});
    EXPECT_EQ(recordsIn(scope(2)), 0u);
  });
}

TEST_F(TrusteesTest, RemoveClearAndSet) {
  asMember([&] {
    Endpoint endpoint({"d1", "d2"}, tag);
    endpoint.addTrustees({name(0), name(1), name(2)});
    endpoint.removeTrustees({name(1)});
    EXPECT_EQ(endpoint.getTrustees(), (Trustees{name(0), name(2)}));
    EXPECT_EQ(recordsIn(scope(1)), 0u);
    endpoint.clearTrustees();
    EXPECT_EQ(endpoint.getTrustees(), Trustees{});
    EXPECT_EQ(recordsIn(scope(0)) + recordsIn(scope(2)), 0u);
    EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"d1", "d2"}}));

    endpoint.setTrustees({name(0), name(1)});
    const ino_t kept = inodeOf(recordPath(1));
    endpoint.setTrustees(endpoint.getTrustees());
    EXPECT_EQ(inodeOf(recordPath(1)), kept);
    endpoint.setTrustees({name(1), name(2)});
    EXPECT_EQ(endpoint.getTrustees(), (Trustees{name(1), name(2)}));
    EXPECT_EQ(inodeOf(recordPath(1)), kept);  // neither re-created nor withdrawn
    EXPECT_EQ(recordsIn(scope(0)), 0u);
    EXPECT_EQ(recordsIn(scope(2)), 1u);
    endpoint.setTrustees({});
    EXPECT_EQ(endpoint.getTrustees(), Trustees{});
    EXPECT_EQ(recordsIn(scope(1)) + recordsIn(scope(2)), 0u);
  });
}

TEST_F(TrusteesTest, NoSupplementaryGroupsMeansOwnRecordsOnlyAndNoTrustee) {
  ChildProcess child([&](ChildProcess&) {
    if (!setSupplementaryGroups({})) return 3;
    Endpoint endpoint({"d1", "d2"}, tag);
    EXPECT_THROW(endpoint.addTrustees({name(0)}), std::invalid_argument);
    EXPECT_EQ(Endpoint::filterFromAllTrustees(tag), (Pairs{{"d1", "d2"}}));
    return ::testing::Test::HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(child.wait(), 0);
}

// A second user in group A, and a third user in no group.
TEST_F(TrusteesTest, OtherUsersSeeOnlyWhatTheirGroupsAreTrustedWith) {
  TemporaryUser member;
  TemporaryUser outsider;
  const gid_t groupA = groups[0]->gid();
  ChildProcess publisher([&](ChildProcess& self) {
    if (!setSupplementaryGroups(gids())) return 3;
    Endpoint endpoint({"d1", "d2"}, tag);
    endpoint.addTrustees({name(0)});
    self.tellParent(recordName({"d1", "d2"}, tag, 0, ""));
    if (self.readFromParent() != "clear") return 4;
    endpoint.clearTrustees();
    self.tellParent("cleared");
    if (self.readFromParent() != "add") return 5;
    endpoint.addTrustees({name(0)});
    self.tellParent("added");
    self.readFromParent(std::chrono::seconds(60));
    return 0;
  });
  auto recordName = publisher.readFromChild();
  ASSERT_TRUE(recordName);
  const std::string publisherRecord = userScope() + "/" + *recordName;

  // Lists as `user` with `supplementary` groups; reports "all|local" counts.
  auto listAs = [&](const TemporaryUser& user, std::vector<gid_t> supplementary) {
    ChildProcess lister([&](ChildProcess& self) {
      if (!becomeUser(user.uid(), user.gid(), supplementary)) return 3;
      const bool ownSegmentOpens = open(publisherRecord.c_str(), O_RDONLY | O_CLOEXEC) >= 0;
      self.tellParent(std::to_string(Endpoint::filterFromAllTrustees(tag).size()) + "|" +
                      std::to_string(Endpoint::filterFromLocal(tag).size()) + "|" +
                      (ownSegmentOpens ? "open" : "closed"));
      return 0;
    });
    auto line = lister.readFromChild();
    lister.wait();
    return line.value_or("no answer");
  };

  EXPECT_EQ(listAs(member, {groupA}), "1|0|closed");
  EXPECT_EQ(listAs(outsider, {}), "0|0|closed");

  publisher.tellChild("clear");
  ASSERT_EQ(publisher.readFromChild(), "cleared");
  EXPECT_EQ(listAs(member, {groupA}), "0|0|closed");
  EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"d1", "d2"}}));

  publisher.tellChild("add");
  ASSERT_EQ(publisher.readFromChild(), "added");
  EXPECT_EQ(recordsIn(scope(0)), 1u);
  publisher.kill();
  ASSERT_EQ(publisher.wait(), 128 + 9);
  // The member's listing clears the dead group-scope record away.
  EXPECT_EQ(listAs(member, {groupA}), "0|0|closed");
  EXPECT_EQ(recordsIn(scope(0)), 0u);
}

}  // namespace
}  // namespace agent::spf::endpointregistry
