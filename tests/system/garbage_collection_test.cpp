// Explicit garbage collection: what it clears, kind by kind, and what it
// leaves (live records, records being published, names whose segment is
// there but cannot be opened). The exact counts are checked in the directory
// of a temporary group, which only the test uses (root); the user's own
// directory is shared with other tests.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>
#include <csignal>
#include <endpointregistry/endpoint.hpp>
#include <endpointregistry/garbage_collection.hpp>
#include <filesystem>
#include <memory>

#include "directory/directory_entry.hpp"
#include "directory/named_string_array.hpp"
#include "directory/segment_names.hpp"
#include "endpoint/endpoint_impl.hpp"
#include "record/record_layout.hpp"
#include "support/child_process.hpp"
#include "support/registry_cleanup.hpp"
#include "support/shm_files.hpp"
#include "support/system_accounts.hpp"

namespace agent::spf::endpointregistry {
namespace {

using agent::spf::sharedmemory::SharedMemory;
using er::test::ChildProcess;
using er::test::filesIn;
using er::test::uniqueName;
using namespace std::chrono_literals;
using Pairs = std::vector<std::pair<std::string, std::string>>;

const std::string registry = "qzEndpointRegistry";

// A record name of `tag` for data that nobody publishes, with pid `pid`.
std::string nameFor(const std::string& tag, const std::string& data, unsigned long pid) {
  const std::string synonym = synonymPrefix({data, ""}, tag);
  return synonym + "l" + std::to_string(data.size()) + "p" + std::to_string(pid) + "v0";
}

// The user's own directory: shared with other tests, so only what this test
// made is looked at.
TEST(GarbageCollectionTest, ListingsKeepANameWithoutASegmentAndCollectionErasesIt) {
  const std::string tag = uniqueName("gcTag");
  er::test::RegistryCleanup cleanup(tag);
  Endpoint live = Endpoint::publish("live", "1", tag);
  const std::string dangling = nameFor(tag, "gone", static_cast<unsigned long>(getpid()));
  NamedStringArray(registry, 0, "").insert(dangling);
  for (int listing = 0; listing < 2; ++listing) {
    EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"live", "1"}}));
    EXPECT_EQ(listDirectoryNames(groupPrefix(tag), "").size(), 2u) << "listing " << listing;
  }
  const GarbageReport report = collectGarbage({""});
  EXPECT_GE(report.danglingNames, 1u);
  EXPECT_EQ(listDirectoryNames(groupPrefix(tag), ""), std::vector<std::string>{recordName({"live", "1"}, tag, 0, "")});
  EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"live", "1"}}));
}

class GroupGarbageCollectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!er::test::runningAsRoot()) GTEST_SKIP() << "needs root to create groups";
    group = std::make_unique<er::test::TemporaryGroup>();
    scope = er::test::groupScope(group->gid());
    cleanup = std::make_unique<er::test::RegistryCleanup>(
        tag, std::vector<std::pair<std::string, std::string>>{{"", er::test::userScope()}, {group->name(), scope}});
  }

  void TearDown() override {
    cleanup.reset();
    if (group) std::filesystem::remove_all(scope);
  }

  // A child in the group that publishes (first, "1") under it and waits.
  std::unique_ptr<ChildProcess> publisher(const std::string& first) {
    auto child = std::make_unique<ChildProcess>([this, first](ChildProcess& self) {
      if (!er::test::setSupplementaryGroups({group->gid()})) return 3;
      Endpoint endpoint = Endpoint::publish(first, "1", tag);
      endpoint.addTrustees({group->name()});
      self.tellParent("published");
      self.readFromParent(60s);
      return 0;
    });
    EXPECT_EQ(child->readFromChild(), "published");
    return child;
  }

  // A segment of the group's scope made by hand and left in place.
  SharedMemory plant(const std::string& name, std::size_t size) {
    SharedMemory segment = SharedMemory::create(name, size, group->name(), {});
    EXPECT_TRUE(segment.isAttached()) << name;
    segment.makePersistent();
    return segment;
  }

  std::vector<std::string> names() const { return listDirectoryNames(recordPrefix, group->name()); }
  std::set<std::string> files(const std::string& prefix) const { return filesIn(scope, prefix); }

  std::string tag = uniqueName("gcTag");
  std::unique_ptr<er::test::TemporaryGroup> group;
  std::string scope;
  std::unique_ptr<er::test::RegistryCleanup> cleanup;
};

TEST_F(GroupGarbageCollectionTest, ClearsEachKindOnceAndLeavesEverythingElse) {
  const auto live = publisher("live");
  auto dead = publisher("dead");
  const std::string liveName = nameFor(tag, "live1", static_cast<unsigned long>(live->pid()));
  // Unnamed, unflagged and let go of by its creator, with a pid that exists
  // (this very process): listings keep it, as its pid says, collection not.
  const std::string unnamed = nameFor(tag, "unnamed", static_cast<unsigned long>(getpid()));
  (void)plant(unnamed, recordSegmentSize(7));
  // Its creator's: kept by both.
  const std::string creating = nameFor(tag, "creating", static_cast<unsigned long>(getpid()));
  SharedMemory underWay = plant(creating, recordSegmentSize(8));
  // A name whose segment does not exist, and one whose segment exists but
  // cannot be opened (wider mode bits than a segment may have).
  const std::string dangling = nameFor(tag, "dangling", 1);
  const std::string refused = nameFor(tag, "refused", 1);
  plant(refused, recordSegmentSize(7));
  ASSERT_EQ(chmod((scope + "/" + refused).c_str(), 0666), 0);
  NamedStringArray directory(registry, 0, group->name());
  directory.insert(dangling);
  directory.insert(refused);
  // Containers that the directory does not use.
  plant(registry + "v0999", 9);
  plant(registry + "v0" + "1", 9);

  EXPECT_EQ(Endpoint::filter(tag, {group->name()}), (Pairs{{"dead", "1"}, {"live", "1"}}));
  EXPECT_EQ(files(unnamed), std::set<std::string>{unnamed});  // the listing kept it
  dead->kill(SIGKILL);
  ASSERT_EQ(dead->wait(), 128 + SIGKILL);

  EXPECT_EQ(collectGarbage({group->name()}), (GarbageReport{1, 1, 1, 2}));
  std::vector<std::string> left = names();
  std::sort(left.begin(), left.end());
  std::vector<std::string> expected{liveName, refused};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(left, expected);
  EXPECT_EQ(files(groupPrefix(tag)), (std::set<std::string>{liveName, creating, refused}));
  const std::set<std::string> containers = files(registry + "v0");
  EXPECT_EQ(containers.size(), 2u);  // the base and the active container
  EXPECT_EQ(containers.count(registry + "v0999"), 0u);
  EXPECT_EQ(Endpoint::filter(tag, {group->name()}), (Pairs{{"live", "1"}}));

  EXPECT_EQ(collectGarbage({group->name()}), (GarbageReport{}));
  underWay.endCreation();  // created: still its creator's
  EXPECT_EQ(collectGarbage({group->name()}), (GarbageReport{}));
  underWay = SharedMemory();  // let go of: nobody's
  EXPECT_EQ(collectGarbage({group->name()}), (GarbageReport{0, 1, 0, 0}));
  EXPECT_EQ(files(groupPrefix(tag)), (std::set<std::string>{liveName, refused}));
}

TEST_F(GroupGarbageCollectionTest, NothingToCollectWhereNothingWasPublished) {
  EXPECT_EQ(collectGarbage({group->name()}), GarbageReport{});
  EXPECT_EQ(collectGarbage({}), GarbageReport{});
  EXPECT_EQ(collectGarbage({uniqueName("noSuchGroup")}), GarbageReport{});
}

}  // namespace
}  // namespace agent::spf::endpointregistry
