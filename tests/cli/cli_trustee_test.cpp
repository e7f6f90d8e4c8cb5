// Trustees through the tool, with temporary users and groups: groups prints
// the user's groups, publish --trustee makes an endpoint visible to another
// member of the group, and list selects directories by trustee.
#include <gtest/gtest.h>

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

}  // namespace
}  // namespace er::test
