// A process that holds endpoints forks: the child works on its own and never
// disturbs the parent's records, whatever it does with its inherited copies.
#include <gtest/gtest.h>

#include <unistd.h>
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
using Pairs = std::vector<std::pair<std::string, std::string>>;

class ForkSafetyTest : public ::testing::Test {
 protected:
  // What a separate process lists under the tag.
  Pairs listedElsewhere() {
    Pairs seen;
    ChildProcess lister([&](ChildProcess& self) {
      for (const auto& [first, second] : Endpoint::filterFromLocal(tag)) self.tellParent(first + " " + second);
      self.tellParent("end");
      return 0;
    });
    for (auto line = lister.readFromChild(); line && *line != "end"; line = lister.readFromChild()) {
      auto blank = line->find(' ');
      seen.emplace_back(line->substr(0, blank), line->substr(blank + 1));
    }
    lister.wait();
    return seen;
  }

  std::string tag = uniqueName("forkTag");
  RegistryCleanup cleanup{tag};
};

TEST_F(ForkSafetyTest, ChildPublishesAndListsOnItsOwnAndDropsItsCopies) {
  Endpoint parentEndpoint({"parent", "1"}, tag);
  ChildProcess child([&](ChildProcess& self) {
    Endpoint own({"child", "2"}, tag);
    const bool bothListed = Endpoint::filterFromLocal(tag) == Pairs{{"child", "2"}, {"parent", "1"}};
    parentEndpoint.reset();  // the inherited copy: must leave the parent's record alone
    own.reset();
    const bool parentStillListed = Endpoint::filterFromLocal(tag) == Pairs{{"parent", "1"}};
    self.tellParent(std::string(bothListed ? "both" : "missing") + " " + (parentStillListed ? "kept" : "lost"));
    return 0;
  });
  EXPECT_EQ(child.readFromChild(std::chrono::seconds(60)), "both kept");
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(listedElsewhere(), (Pairs{{"parent", "1"}}));
  EXPECT_EQ(filesIn(userScope(), groupPrefix(tag)).size(), 1u);
  EXPECT_EQ(listDirectoryNames(groupPrefix(tag), "").size(), 1u);
  parentEndpoint.reset();
  EXPECT_TRUE(listedElsewhere().empty());
  EXPECT_TRUE(filesIn(userScope(), groupPrefix(tag)).empty());
}

TEST_F(ForkSafetyTest, ChildThatExitsWithItsCopiesAliveLeavesThemAlone) {
  static Endpoint* inherited = nullptr;
  Endpoint parentEndpoint({"exit", "copies"}, tag);
  inherited = &parentEndpoint;
  ChildProcess child([&](ChildProcess&) {
    // Static destructors and exit handlers run; the inherited object is
    // destroyed through one of them.
    std::atexit([] { inherited->reset(); });
    std::exit(0);
    return 1;
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(listedElsewhere(), (Pairs{{"exit", "copies"}}));
  EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"exit", "copies"}}));
}

TEST_F(ForkSafetyTest, ChildThatExecsLeavesTheParentsRecordsAlone) {
  Endpoint parentEndpoint({"exec", "child"}, tag);
  ChildProcess child([&](ChildProcess&) {
    execl("/bin/true", "true", static_cast<char*>(nullptr));
    return 127;
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(listedElsewhere(), (Pairs{{"exec", "child"}}));
}

TEST_F(ForkSafetyTest, GrandchildOfAForkedChildAlsoWorks) {
  Endpoint parentEndpoint({"three", "generations"}, tag);
  ChildProcess child([&](ChildProcess& self) {
    Endpoint own({"second", "generation"}, tag);
    ChildProcess grandchild([&](ChildProcess& inner) {
      Endpoint third({"third", "generation"}, tag);
      inner.tellParent(std::to_string(Endpoint::filterFromLocal(tag).size()));
      return 0;
    });
    self.tellParent(grandchild.readFromChild().value_or("none"));
    return grandchild.wait().value_or(99);
  });
  EXPECT_EQ(child.readFromChild(std::chrono::seconds(60)), "3");
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(listedElsewhere(), (Pairs{{"three", "generations"}}));
}

}  // namespace
}  // namespace agent::spf::endpointregistry
