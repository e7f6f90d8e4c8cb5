// Trustees through the tool, with temporary users and groups: groups prints
// the user's groups, publish --trustee makes an endpoint visible to another
// member of the group, and list selects directories by trustee.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <string>

#include "isolated_user.hpp"
#include "support/shm_files.hpp"
#include "support/system_accounts.hpp"
#include "tool_process.hpp"

namespace er::test {
namespace {

using nlohmann::json;

class CliTrusteeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!runningAsRoot()) GTEST_SKIP() << "needs root to make temporary users and groups";
    group = std::make_unique<TemporaryGroup>();
    otherGroup = std::make_unique<TemporaryGroup>();
    groupScope = std::make_unique<ScopeRemoval>(er::test::groupScope(group->gid()));
    publisherUser = std::make_unique<IsolatedUser>(std::vector<gid_t>{group->gid(), otherGroup->gid()});
    readerUser = std::make_unique<IsolatedUser>(std::vector<gid_t>{group->gid()});
  }

  std::string tag = uniqueName("cliTrustee");
  std::unique_ptr<TemporaryGroup> group;
  std::unique_ptr<TemporaryGroup> otherGroup;
  std::unique_ptr<ScopeRemoval> groupScope;
  std::unique_ptr<IsolatedUser> publisherUser;
  std::unique_ptr<IsolatedUser> readerUser;
};

TEST_F(CliTrusteeTest, GroupsPrintsTheUsersGroupsSorted) {
  const ToolRun run = runTool({"groups"}, publisherUser->identity());
  EXPECT_EQ(run.exitCode, 0);
  const std::string& a = std::min(group->name(), otherGroup->name());
  const std::string& b = std::max(group->name(), otherGroup->name());
  EXPECT_EQ(run.out, a + "\n" + b + "\n");
  EXPECT_EQ(runTool({"groups"}, readerUser->identity()).out, group->name() + "\n");
}

TEST_F(CliTrusteeTest, TrusteeMakesTheEndpointVisibleToAnotherMember) {
  ToolProcess publisher({"publish", "10.0.0.1", "8080", "--group", tag, "--trustee", group->name()},
                        publisherUser->identity());
  ASSERT_EQ(publisher.readLine(), "live: 10.0.0.1 8080 (group " + tag + ", trustee " + group->name() + ")")
      << publisher.errors();
  const auto reader = readerUser->identity();
  const std::string found = "FIRST     SECOND\n10.0.0.1  8080\n";
  const std::string none = "FIRST  SECOND\n";

  EXPECT_EQ(runTool({"list", "--group", tag}, reader).out, none);
  EXPECT_EQ(runTool({"list", "--group", tag, "--all-trustees"}, reader).out, found);
  EXPECT_EQ(runTool({"list", "--group", tag, "--trustee", group->name()}, reader).out, found);
  EXPECT_EQ(runTool({"list", "--group", tag, "--trustee", ""}, publisherUser->identity()).out, found);

  const json inspected = json::parse(runTool({"inspect", "--trustee", group->name(), "--json"}, reader).out);
  EXPECT_EQ(inspected["trustee"], group->name());
  ASSERT_EQ(inspected["rows"].size(), 1u) << inspected;
  EXPECT_EQ(inspected["rows"][0]["state"], "Live");
  EXPECT_EQ(inspected["rows"][0]["pid"], publisher.pid());

  publisher.signal(SIGINT);
  EXPECT_EQ(publisher.readLine(), "withdrawn: 10.0.0.1 8080");
  EXPECT_EQ(publisher.wait(), 0);
  EXPECT_EQ(runTool({"list", "--group", tag, "--all-trustees", "--exit-status"}, reader).exitCode, 3);
}

// A group that exists but is not the user's is named as such, with the
// user's groups; a group directory the user may not read is "permission
// denied", not an empty answer.
TEST_F(CliTrusteeTest, ForeignGroupsAndUnreadableDirectoriesAreErrors) {
  const auto reader = readerUser->identity();
  const ToolRun foreign = runTool({"list", "--trustee", otherGroup->name()}, reader);
  EXPECT_EQ(foreign.exitCode, 1);
  EXPECT_EQ(foreign.out, "");
  EXPECT_EQ(foreign.err, "endpointregistry: error: trustee '" + otherGroup->name() +
                             "' is not one of your groups (your groups: " + group->name() + ")\n");
  EXPECT_EQ(runTool({"watch", "--trustee", otherGroup->name()}, reader).err, foreign.err);
  EXPECT_EQ(runTool({"gc", "--trustee", otherGroup->name()}, reader).err, foreign.err);

  const std::string folder = er::test::groupScope(group->gid());
  ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);  // root's, and closed to the group
  const ToolRun denied = runTool({"list", "--trustee", group->name()}, reader);
  EXPECT_EQ(denied.exitCode, 1);
  EXPECT_EQ(denied.err,
            "endpointregistry: error: trustee '" + group->name() + "': permission denied (" + folder + ")\n");
  EXPECT_EQ(runTool({"inspect", "--trustee", group->name()}, reader).err, denied.err);
}

// groups says why it prints nothing for a user without supplementary groups.
TEST_F(CliTrusteeTest, GroupsExplainsAnEmptyAnswer) {
  IsolatedUser loner(std::vector<gid_t>{});
  const ToolRun run = runTool({"groups"}, loner.identity());
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "endpointregistry: you have no supplementary groups, and only those can be trustees\n");
}

}  // namespace
}  // namespace er::test
