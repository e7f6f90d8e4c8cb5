// The Watcher where it needs root to be tried: a publisher in a pid namespace
// of its own (its death is seen all the same), trustee records in a group's
// scope, and scope folders that do not exist yet when the watcher starts.
#include <endpointregistry/watcher.hpp>

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <endpointregistry/endpoint.hpp>
#include <filesystem>
#include <memory>
#include <optional>

#include "support/child_process.hpp"
#include "support/pid_namespace.hpp"
#include "support/registry_cleanup.hpp"
#include "support/shm_files.hpp"
#include "support/system_accounts.hpp"

namespace agent::spf::endpointregistry {
namespace {

using er::test::ChildProcess;
using namespace std::chrono_literals;
using Changes = std::vector<EndpointChange>;

constexpr auto patience = 10s;

class WatcherSystemTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!er::test::runningAsRoot()) GTEST_SKIP() << "needs root for namespaces, users and groups";
  }

  std::string tag = er::test::uniqueName("watchSys");
  er::test::RegistryCleanup cleanup{tag};
};

TEST_F(WatcherSystemTest, PublisherInAnotherPidNamespaceAndItsDeathAreSeen) {
  if (!er::test::canMakePidNamespaces()) GTEST_SKIP() << "cannot make pid namespaces";
  Watcher watcher(tag, {""});
  EXPECT_TRUE(watcher.changes().empty());
  er::test::NamespacedChild child([this](ChildProcess& self) {
    const Endpoint endpoint = Endpoint::publish("ns-addr", "1234", tag);
    self.tellParent("published");
    (void)self.readFromParent(60s);
    return 0;
  });
  ASSERT_EQ(child.readFromChild(), "published");
  const std::vector<RecordChange> appeared = watcher.waitForRecordChanges(patience);
  ASSERT_EQ(appeared.size(), 1u);
  EXPECT_EQ(appeared[0].publisherPid, 1u);  // its pid in its own namespace
  EXPECT_EQ(watcher.changes(), (Changes{{EndpointChange::Appeared, {"ns-addr", "1234"}}}));
  child.kill(SIGKILL);
  EXPECT_EQ(child.wait(), 128 + SIGKILL);
  EXPECT_EQ(watcher.waitForChanges(patience), (Changes{{EndpointChange::Disappeared, {"ns-addr", "1234"}}}));
}

// A group whose scope folder does not exist yet: the watcher waits for it,
// then sees the trustee record appear and go.
TEST_F(WatcherSystemTest, TrusteeRecordsInAFolderMadeLater) {
  er::test::TemporaryGroup group;
  er::test::RegistryCleanup groupCleanup{tag, {{group.name(), er::test::groupScope(group.gid())}}};
  ASSERT_FALSE(er::test::fileExists(er::test::groupScope(group.gid())));
  Watcher watcher(tag, {group.name()});
  EXPECT_TRUE(watcher.changes().empty());
  ChildProcess publisher([&](ChildProcess& self) {
    if (!er::test::setSupplementaryGroups({group.gid()})) return 3;
    Endpoint endpoint = Endpoint::publish("shared", "1", tag);
    endpoint.addTrustees({group.name()});
    self.tellParent("published");
    (void)self.readFromParent(60s);
    endpoint.removeTrustees({group.name()});
    self.tellParent("withdrawn");
    (void)self.readFromParent(60s);
    return 0;
  });
  ASSERT_EQ(publisher.readFromChild(), "published");
  const std::vector<RecordChange> appeared = watcher.waitForRecordChanges(patience);
  ASSERT_EQ(appeared.size(), 1u);
  EXPECT_EQ(appeared[0].trustee, group.name());
  EXPECT_EQ(appeared[0].data, (std::pair<std::string, std::string>{"shared", "1"}));
  publisher.tellChild("remove");
  ASSERT_EQ(publisher.readFromChild(), "withdrawn");
  const std::vector<RecordChange> gone = watcher.waitForRecordChanges(patience);
  ASSERT_EQ(gone.size(), 1u);
  EXPECT_EQ(gone[0].kind, EndpointChange::Disappeared);
  publisher.tellChild("end");
  EXPECT_EQ(publisher.wait(), 0);
  // The group's folder goes with the group: a later group of the same gid
  // starts without one.
  std::filesystem::remove_all(er::test::groupScope(group.gid()));
}

// A user who never published: no scope folder. The watcher, started first,
// sees the first publication, and the folder's removal and re-making.
TEST_F(WatcherSystemTest, OwnScopeFolderMadeAfterTheWatcherStarts) {
  er::test::TemporaryUser user;
  ChildProcess watching([&](ChildProcess& self) {
    if (!er::test::becomeUser(user.uid(), user.gid(), {})) return 3;
    Watcher watcher(tag, {""});
    if (!watcher.changes().empty()) return 4;
    self.tellParent("watching");
    if (watcher.waitForChanges(patience) != Changes{{EndpointChange::Appeared, {"late", "1"}}}) return 5;
    self.tellParent("appeared");
    if (watcher.waitForChanges(patience) != Changes{{EndpointChange::Disappeared, {"late", "1"}}}) return 6;
    return 0;
  });
  ASSERT_EQ(watching.readFromChild(), "watching");
  ChildProcess publisher([&](ChildProcess& self) {
    if (!er::test::becomeUser(user.uid(), user.gid(), {})) return 3;
    std::optional<Endpoint> endpoint(Endpoint::publish("late", "1", tag));
    self.tellParent("published");
    (void)self.readFromParent(60s);
    endpoint.reset();
    return 0;
  });
  ASSERT_EQ(publisher.readFromChild(), "published");
  ASSERT_EQ(watching.readFromChild(), "appeared");
  publisher.tellChild("withdraw");
  EXPECT_EQ(publisher.wait(), 0);
  EXPECT_EQ(watching.wait(), 0);
  // The user's scope folder goes with the user: a later user of the same
  // uid starts without one.
  std::filesystem::remove_all("/dev/shm/u" + std::to_string(user.uid()));
}

}  // namespace
}  // namespace agent::spf::endpointregistry
