// Publication and discovery between real processes.
#include <gtest/gtest.h>

#include <sys/mman.h>
#include <atomic>
#include <endpointregistry/endpoint.hpp>
#include <thread>

#include "directory/directory_entry.hpp"
#include "directory/segment_names.hpp"
#include "support/child_process.hpp"
#include "support/registry_cleanup.hpp"
#include "support/shm_files.hpp"

namespace agent::spf::endpointregistry {
namespace {

using er::test::ChildProcess;
using er::test::filesIn;
using er::test::RegistryCleanup;
using er::test::uniqueName;
using er::test::userScope;
using Pairs = std::vector<std::pair<std::string, std::string>>;

class EndpointProcessTest : public ::testing::Test {
 protected:
  std::string tag = uniqueName("procTag");
  std::string otherTag = uniqueName("procOther");
  RegistryCleanup cleanup{tag};
  RegistryCleanup otherCleanup{otherTag};
};

TEST_F(EndpointProcessTest, ChildPublishesParentListsUntilWithdrawn) {
  ChildProcess child([&](ChildProcess& self) {
    Endpoint endpoint({"10.0.0.1", "8080"}, tag);
    Endpoint other({"10.0.0.2", "9090"}, otherTag);
    self.tellParent("published");
    if (self.readFromParent() != "withdraw") return 2;
    endpoint.reset();
    other.reset();
    self.tellParent("withdrawn");
    self.readFromParent();
    return 0;
  });
  ASSERT_EQ(child.readFromChild(), "published");
  EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"10.0.0.1", "8080"}}));
  EXPECT_EQ(Endpoint::filterFromLocal(otherTag), (Pairs{{"10.0.0.2", "9090"}}));
  child.tellChild("withdraw");
  ASSERT_EQ(child.readFromChild(), "withdrawn");
  EXPECT_TRUE(Endpoint::filterFromLocal(tag).empty());
  EXPECT_TRUE(Endpoint::filterFromLocal(otherTag).empty());
  child.tellChild("exit");
  EXPECT_EQ(child.wait(), 0);
}

TEST_F(EndpointProcessTest, KilledPublisherIsClearedAndItsDataCanBePublishedAgain) {
  ChildProcess child([&](ChildProcess& self) {
    Endpoint endpoint({"service", "1"}, tag);
    self.tellParent("published");
    self.readFromParent(std::chrono::seconds(60));
    return 0;
  });
  ASSERT_EQ(child.readFromChild(), "published");
  EXPECT_THROW(Endpoint({"service", "1"}, tag), Endpoint::DuplicateEndpointError);
  child.kill();
  ASSERT_EQ(child.wait(), 128 + 9);
  // The dead record no longer counts as a duplicate, even before a listing.
  Endpoint replacement({"service", "1"}, tag);
  EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"service", "1"}}));
  EXPECT_EQ(filesIn(userScope(), groupPrefix(tag)).size(), 1u);
  EXPECT_EQ(listDirectoryNames(groupPrefix(tag), "").size(), 1u);
}

TEST_F(EndpointProcessTest, EndpointMadeOnAThreadThatExitedStaysListed) {
  Endpoint endpoint;
  std::thread([&] { endpoint = Endpoint({"thread", "made"}, tag); }).join();
  ChildProcess lister([&](ChildProcess& self) {
    self.tellParent(Endpoint::filterFromLocal(tag) == Pairs{{"thread", "made"}} ? "listed" : "missing");
    return 0;
  });
  EXPECT_EQ(lister.readFromChild(), "listed");
  EXPECT_EQ(lister.wait(), 0);
}

TEST_F(EndpointProcessTest, RacingDuplicatesNeverOverlapAndNeverHang) {
  // Shared counters: holders at this moment, the most ever seen, successes.
  auto* shared = static_cast<std::atomic<int>*>(
      mmap(nullptr, 3 * sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(shared, MAP_FAILED);
  new (shared) std::atomic<int>[3] {};
  auto racer = [&](ChildProcess& self) {
    self.readFromParent();
    for (int round = 0; round < 200; ++round) {
      try {
        Endpoint endpoint({"contended", "pair"}, tag);
        int holders = ++shared[0];
        int seen = shared[1].load();
        while (holders > seen && !shared[1].compare_exchange_weak(seen, holders)) {
        }
        ++shared[2];
        --shared[0];
      } catch (const Endpoint::DuplicateEndpointError&) {
      }
    }
    return 0;
  };
  ChildProcess first(racer);
  ChildProcess second(racer);
  first.tellChild("go");
  second.tellChild("go");
  EXPECT_EQ(first.wait(std::chrono::seconds(100)), 0);
  EXPECT_EQ(second.wait(std::chrono::seconds(100)), 0);
  EXPECT_EQ(shared[1].load(), 1);
  EXPECT_GT(shared[2].load(), 0);
  EXPECT_TRUE(Endpoint::filterFromLocal(tag).empty());
  munmap(shared, 3 * sizeof(std::atomic<int>));
}

}  // namespace
}  // namespace agent::spf::endpointregistry
