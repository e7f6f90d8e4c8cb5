// A publisher that dies holding more records than the kernel repairs for one
// thread: every one of them must still come back as stale and be cleared.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <endpointregistry/endpoint.hpp>

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

TEST(ManyRecords, ThreeThousandRecordsOfAKilledPublisherAreAllCleared) {
  const std::string tag = uniqueName("manyTag");
  RegistryCleanup cleanup(tag);
  constexpr int count = 3000;  // beyond the kernel's 2,048 robust mutexes per thread
  ChildProcess child([&](ChildProcess& self) {
    std::vector<Endpoint> endpoints;
    endpoints.reserve(count);
    for (int i = 0; i < count; ++i)
      endpoints.emplace_back(std::pair<std::string, std::string>{"e", std::to_string(i)}, tag);
    self.tellParent("published");
    self.readFromParent(std::chrono::minutes(10));
    return 0;
  });
  ASSERT_EQ(child.readFromChild(std::chrono::minutes(5)), "published");
  ASSERT_EQ(filesIn(userScope(), groupPrefix(tag)).size(), static_cast<std::size_t>(count));
  child.kill();
  ASSERT_EQ(child.wait(), 128 + 9);

  EXPECT_TRUE(Endpoint::filterFromLocal(tag).empty());
  EXPECT_TRUE(filesIn(userScope(), groupPrefix(tag)).empty());
  EXPECT_TRUE(listDirectoryNames(groupPrefix(tag), "").empty());
}

}  // namespace
}  // namespace agent::spf::endpointregistry
