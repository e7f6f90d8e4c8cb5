// Publishers, trustee changes and listers killed with SIGKILL at every step
// of the library (its test points) and at random moments. Afterwards, once
// the killed processes are reaped, one listing lists exactly what the living
// publishers hold; and once one garbage collection has run, the registry
// holds exactly that: no name of a dead record in any directory, no record
// segment of a dead publisher and no container but the active one in any
// scope.
//
// ER_CRASH_ITERATIONS raises the number of random rounds (default 150, two
// children killed in each).
#include <gtest/gtest.h>

#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <endpointregistry/endpoint.hpp>
#include <endpointregistry/garbage_collection.hpp>
#include <filesystem>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "directory/named_string_array.hpp"
#include "support/child_process.hpp"
#include "support/kill_points.hpp"
#include "support/registry_cleanup.hpp"
#include "support/registry_state.hpp"
#include "support/shm_files.hpp"
#include "support/system_accounts.hpp"

namespace agent::spf::endpointregistry {
namespace {

using er::test::ChildProcess;
using er::test::directoryContainers;
using er::test::directoryNamePids;
using er::test::recordSegmentPids;
using er::test::uniqueName;
using er::test::userScope;
using namespace std::chrono_literals;
using Pairs = std::vector<std::pair<std::string, std::string>>;
using Pids = std::vector<unsigned long>;

constexpr auto childTimeout = 60s;
constexpr int killed = 128 + SIGKILL;
const std::string registry = "qzEndpointRegistry";

unsigned randomRounds() {
  const char* text = std::getenv("ER_CRASH_ITERATIONS");
  const unsigned long value = text != nullptr ? std::strtoul(text, nullptr, 10) : 0;
  return value != 0 ? static_cast<unsigned>(value) : 150;
}

// A group trustee (when root) and a witness: a publisher that lives through
// all the killing and must be listed by everyone all along.
class CrashHarness : public ::testing::Test {
 protected:
  void SetUp() override {
    if (er::test::runningAsRoot()) {
      group = std::make_unique<er::test::TemporaryGroup>();
      trustees.insert(group->name());
      scopes.emplace_back(group->name(), groupScope());
    }
    cleanup = std::make_unique<er::test::RegistryCleanup>(tag, scopes);
    witness = std::make_unique<ChildProcess>([this](ChildProcess& self) {
      if (!joinGroup()) return 3;
      Endpoint shared({"witness", "1"}, tag);
      if (group) shared.addTrustees({group->name()});
      Endpoint own({"witness", "2"}, tag);
      self.tellParent("published");
      self.readFromParent(std::chrono::minutes(30));
      return 0;
    });
    ASSERT_EQ(witness->readFromChild(childTimeout), "published");
    witnessPid = static_cast<unsigned long>(witness->pid());
  }

  void TearDown() override {
    witness.reset();
    cleanup.reset();
    if (group) std::filesystem::remove_all(groupScope());
  }

  std::string groupScope() const { return er::test::groupScope(group->gid()); }
  // In a child: become a member of the group trustee, if there is one.
  bool joinGroup() const { return !group || er::test::setSupplementaryGroups({group->gid()}); }

  Pairs witnessPairs() const { return witnessAlive ? Pairs{{"witness", "1"}, {"witness", "2"}} : Pairs{}; }

  // One listing lists the witness's endpoints; after one garbage collection
  // the registry holds the witness's records and nothing else.
  void expectOnlyWitnessLeft(const std::string& when, bool withOtherLister) {
    SCOPED_TRACE(when);
    EXPECT_EQ(Endpoint::filter(tag, trustees), witnessPairs());
    (void)collectGarbage(trustees);
    const Pids own = witnessAlive ? Pids{witnessPid, witnessPid} : Pids{};
    EXPECT_EQ(directoryNamePids(tag, ""), own);
    EXPECT_EQ(recordSegmentPids(userScope(), tag), own);
    expectNoStrayContainer("", userScope(), true);
    if (group) {
      const Pids shared = witnessAlive ? Pids{witnessPid} : Pids{};
      EXPECT_EQ(directoryNamePids(tag, group->name()), shared);
      EXPECT_EQ(recordSegmentPids(groupScope(), tag), shared);
      expectNoStrayContainer(group->name(), groupScope(), false);
    }
    if (withOtherLister) {
      ChildProcess lister([this](ChildProcess&) {
        if (!joinGroup()) return 3;
        return Endpoint::filterFromAllTrustees(tag) == witnessPairs() ? 0 : 1;
      });
      EXPECT_EQ(lister.wait(childTimeout), 0) << "another process lists something else";
    }
  }

  // Only the active container exists. The user's own directory is shared
  // with tests running at the same time and with earlier runs: there, only a
  // container beyond the active one counts (a half-built one), and one that
  // another test left half done after this test's listing is tolerated.
  void expectNoStrayContainer(const std::string& trustee, const std::string& scope, bool shared) {
    const er::test::DirectoryContainers containers = directoryContainers(registry, trustee, scope);
    if (!containers.initialized) return;
    std::set<unsigned long> found = containers.segments;
    if (shared) {
      found.erase(found.begin(), found.lower_bound(containers.active));
      if (containers.inactive != 0) found.erase(containers.inactive);
    } else {
      EXPECT_EQ(containers.inactive, 0u);
    }
    EXPECT_EQ(found, std::set<unsigned long>{containers.active}) << "containers of trustee \"" << trustee << "\"";
  }

  // Publishes `count` endpoints (with the group trustee when there is one),
  // changes trustees, lists, withdraws. Returns 0 when done.
  int workload(ChildProcess& self, int count) {
    if (!joinGroup()) return 3;
    const std::string me = std::to_string(getpid());
    std::vector<Endpoint> endpoints;
    for (int i = 0; i < count; ++i) {
      endpoints.emplace_back(std::pair<std::string, std::string>{"step" + std::to_string(i), me}, tag);
      if (group) endpoints.back().addTrustees({group->name()});
    }
    if (group) {
      endpoints.front().setTrustees({});
      endpoints.front().setTrustees({group->name()});
    }
    const Pairs listed = Endpoint::filter(tag, trustees);
    for (const auto& pair : witnessPairs()) {
      if (std::find(listed.begin(), listed.end(), pair) == listed.end()) return 4;
    }
    while (!endpoints.empty()) endpoints.pop_back();
    self.tellParent("done");
    return 0;
  }

  // How often a workload of `count` endpoints reaches each test point.
  std::map<std::string, unsigned> reachesOfWorkload(int count) {
    ChildProcess child([&](ChildProcess& self) {
      er::test::countPoints();
      const int code = workload(self, count);
      for (const auto& [point, reaches] : er::test::pointCounts())
        self.tellParent(point + " " + std::to_string(reaches));
      self.tellParent("end");
      return code;
    });
    std::map<std::string, unsigned> counts;
    EXPECT_EQ(child.readFromChild(childTimeout), "done");
    for (auto line = child.readFromChild(childTimeout); line && *line != "end"; line = child.readFromChild()) {
      const auto blank = line->find(' ');
      counts[line->substr(0, blank)] = static_cast<unsigned>(std::stoul(line->substr(blank + 1)));
    }
    EXPECT_EQ(child.wait(childTimeout), 0);
    return counts;
  }

  // Runs the workload killed at the (skip + 1)-th reach of `point`; true if it was killed there.
  bool killWorkloadAt(const std::string& point, unsigned skip, int count) {
    ChildProcess child([&](ChildProcess& self) {
      er::test::killAtPoint(point, skip);
      return workload(self, count);
    });
    const std::optional<int> code = child.wait(childTimeout);
    EXPECT_TRUE(code == killed || code == 0) << point << " #" << skip << ": " << code.value_or(-1);
    return code == killed;
  }

  std::string tag = uniqueName("crashTag");
  std::unique_ptr<er::test::TemporaryGroup> group;
  std::set<std::string> trustees{""};
  std::vector<std::pair<std::string, std::string>> scopes{{"", userScope()}};
  std::unique_ptr<er::test::RegistryCleanup> cleanup;
  std::unique_ptr<ChildProcess> witness;
  unsigned long witnessPid = 0;
  bool witnessAlive = true;
};

TEST_F(CrashHarness, KilledAtEveryReachOfEveryTestPoint) {
  if (!er::test::testPointsCompiledIn()) GTEST_SKIP() << "test points are compiled out";
  const std::map<std::string, unsigned> reaches = reachesOfWorkload(2);
  unsigned kills = 0;
  for (const std::string& point : er::test::libraryTestPoints()) {
    const auto found = reaches.find(point);
    for (unsigned skip = 0; found != reaches.end() && skip < found->second; ++skip) {
      if (killWorkloadAt(point, skip, 2)) ++kills;
      expectOnlyWitnessLeft(point + " #" + std::to_string(skip), skip == 0);
      if (HasFailure()) return;
    }
  }
  // Every step of publication, trustee change and withdrawal was hit.
  for (const char* point : {"record.created", "record.locked", "record.published", "record.withdrawing",
                            "directory.entry.erased", "directory.row.written"}) {
    EXPECT_GE(reaches.count(point) != 0 ? reaches.at(point) : 0u, group ? 4u : 2u) << point;
  }
  std::cout << "crash harness: " << kills << " kills at test points" << std::endl;
  witness->kill();
  ASSERT_EQ(witness->wait(childTimeout), killed);
  witnessAlive = false;
  expectOnlyWitnessLeft("witness killed", true);
}

// The two tests below look at the registry between a kill and the next
// listing. Listings of every group tag that other tests run meanwhile clear
// the user's own scope as well, so they look into the group trustee's scope,
// which only this test uses (root only).

TEST_F(CrashHarness, RecordWhoseNameNeverReachedTheDirectoryGoesWithTheNextListing) {
  if (!er::test::testPointsCompiledIn()) GTEST_SKIP() << "test points are compiled out";
  if (!group) GTEST_SKIP() << "needs root to create groups";
  // Killed with the record segment for the group made but its name not (or
  // no longer) in the group's directory: no name leads a reader to it. The
  // workload's first record is its own, the second the group's; the group
  // record is the first to be withdrawn.
  const std::vector<std::pair<const char*, unsigned>> kills{
      {"record.created", 1}, {"record.locked", 1}, {"directory.row.written", 1}, {"directory.entry.erased", 0}};
  for (const auto& [point, skip] : kills) {
    SCOPED_TRACE(point);
    unsigned long victim = 0;
    {
      ChildProcess child([&](ChildProcess& self) {
        er::test::killAtPoint(point, skip);
        return workload(self, 1);
      });
      victim = static_cast<unsigned long>(child.pid());
      ASSERT_EQ(child.wait(childTimeout), killed);
    }
    Pids files{victim, witnessPid};
    std::sort(files.begin(), files.end());
    EXPECT_EQ(recordSegmentPids(groupScope(), tag), files);
    EXPECT_EQ(directoryNamePids(tag, group->name()), Pids{witnessPid});
    expectOnlyWitnessLeft(point, false);
  }
}

// A lister that dies between removing a dead record's segment and erasing
// its name leaves the name without a segment. Listings read it as nothing
// and leave it; garbage collection erases it.
TEST_F(CrashHarness, NameLeftByAListerKilledWhileReclaimingGoesWithGarbageCollection) {
  if (!er::test::testPointsCompiledIn()) GTEST_SKIP() << "test points are compiled out";
  if (!group) GTEST_SKIP() << "needs root to create groups";
  unsigned long victim = 0;
  {
    ChildProcess publisher([&](ChildProcess& self) {
      if (!joinGroup()) return 3;
      Endpoint endpoint({"reclaimed", "1"}, tag);
      endpoint.addTrustees({group->name()});
      self.tellParent("published");
      self.readFromParent(childTimeout);
      return 0;
    });
    ASSERT_EQ(publisher.readFromChild(childTimeout), "published");
    victim = static_cast<unsigned long>(publisher.pid());
    publisher.kill();
    ASSERT_EQ(publisher.wait(childTimeout), killed);
  }
  // The lister removes the dead record's segment and dies before erasing its name.
  ChildProcess lister([&](ChildProcess&) {
    if (!joinGroup()) return 3;
    er::test::killAtPoint("record.reclaiming", 0);
    (void)Endpoint::filter(tag, {group->name()});
    return 0;
  });
  ASSERT_EQ(lister.wait(childTimeout), killed);
  EXPECT_EQ(recordSegmentPids(groupScope(), tag), Pids{witnessPid});
  Pids names{victim, witnessPid};
  std::sort(names.begin(), names.end());
  for (int listing = 0; listing < 2; ++listing) {
    EXPECT_EQ(Endpoint::filter(tag, trustees), witnessPairs());
    EXPECT_EQ(directoryNamePids(tag, group->name()), names);
  }
  const GarbageReport report = collectGarbage({group->name()});
  EXPECT_EQ(report, (GarbageReport{0, 0, 1, 0}));
  EXPECT_EQ(directoryNamePids(tag, group->name()), Pids{witnessPid});
  expectOnlyWitnessLeft("after garbage collection", true);
}

TEST_F(CrashHarness, KilledWhileInitialisingAFreshTrusteeDirectory) {
  if (!er::test::testPointsCompiledIn()) GTEST_SKIP() << "test points are compiled out";
  if (!group) GTEST_SKIP() << "needs root to create groups";
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    er::test::TemporaryGroup fresh;
    const std::string freshScope = er::test::groupScope(fresh.gid());
    const std::vector<gid_t> both{group->gid(), fresh.gid()};
    // The first record for the fresh group claims the initialisation of its
    // directory's base, and the publisher dies right there.
    ChildProcess first([&](ChildProcess&) {
      if (!er::test::setSupplementaryGroups(both)) return 3;
      Endpoint endpoint({"first", std::to_string(getpid())}, tag);
      er::test::killAtPoint("directory.initialize.claimed", 0);
      endpoint.addTrustees({fresh.name()});
      return 0;
    });
    ASSERT_EQ(first.wait(childTimeout), killed);
    EXPECT_EQ(directoryContainers(registry, fresh.name(), freshScope).initialized, false);
    // The next publisher takes the claim over and initialises the directory.
    ChildProcess second([&](ChildProcess& self) {
      if (!er::test::setSupplementaryGroups(both)) return 3;
      Endpoint endpoint({"second", "1"}, tag);
      endpoint.addTrustees({fresh.name()});
      self.tellParent("published");
      self.readFromParent(childTimeout);
      return 0;
    });
    ASSERT_EQ(second.readFromChild(childTimeout), "published");
    EXPECT_EQ(Endpoint::filter(tag, {fresh.name()}), (Pairs{{"second", "1"}}));
    EXPECT_EQ(recordSegmentPids(freshScope, tag), Pids{static_cast<unsigned long>(second.pid())});
    second.kill();
    ASSERT_EQ(second.wait(childTimeout), killed);
    EXPECT_TRUE(Endpoint::filter(tag, {fresh.name()}).empty());
    EXPECT_TRUE(recordSegmentPids(freshScope, tag).empty());
    EXPECT_TRUE(directoryNamePids(tag, fresh.name()).empty());
    const er::test::DirectoryContainers containers = directoryContainers(registry, fresh.name(), freshScope);
    EXPECT_TRUE(containers.initialized);
    EXPECT_EQ(containers.segments, std::set<unsigned long>{containers.active});
    EXPECT_EQ(er::test::filesIn(freshScope).size(), 2u);  // the directory's base and container
    std::filesystem::remove_all(freshScope);
    expectOnlyWitnessLeft("fresh directory", false);
  }
}

TEST_F(CrashHarness, KilledInsideEveryDirectoryReorganisation) {
  if (!er::test::testPointsCompiledIn()) GTEST_SKIP() << "test points are compiled out";
  // Twelve names more in each directory: it grows past ten rows and back.
  // How often depends on how many names other processes keep in the shared
  // directories at that moment; at least one growth and one shrink happen.
  const std::map<std::string, unsigned> reaches = reachesOfWorkload(12);
  const unsigned count = reaches.count("directory.reorganize.created") ? reaches.at("directory.reorganize.created") : 0;
  ASSERT_GE(count, 2u);
  unsigned kills = 0;
  for (unsigned skip = 0; skip < count; ++skip) {
    if (killWorkloadAt("directory.reorganize.created", skip, 12)) ++kills;
    expectOnlyWitnessLeft("reorganisation #" + std::to_string(skip), skip == 0);
    if (HasFailure()) return;
  }
  EXPECT_GE(kills, 2u);
  std::cout << "crash harness: " << kills << " kills inside reorganisations" << std::endl;
}

TEST_F(CrashHarness, KilledAtRandomMoments) {
  const unsigned rounds = randomRounds();
  std::mt19937 random(static_cast<unsigned>(getpid()));
  const Pairs pool{{"pool", "a"}, {"pool", "b"}, {"pool", "c"}};
  // Publishes, withdraws, changes trustees and lists until killed; leaves
  // with 1 when a listing misses the witness.
  auto churn = [&](ChildProcess& self, unsigned seed) {
    if (!joinGroup()) return 3;
    std::mt19937 choice(seed);
    std::vector<Endpoint> held;
    self.tellParent("ready");
    for (;;) {
      const unsigned step = choice() % 6;
      if (step <= 1) {
        try {
          held.emplace_back(pool[choice() % pool.size()], tag);
        } catch (const Endpoint::DuplicateEndpointError&) {
        }
      } else if (step == 2 && !held.empty()) {
        held.erase(held.begin() + static_cast<long>(choice() % held.size()));
      } else if (step == 3 && group && !held.empty()) {
        Endpoint& endpoint = held[choice() % held.size()];
        endpoint.setTrustees(endpoint.getTrustees().empty() ? std::set<std::string>{group->name()}
                                                            : std::set<std::string>{});
      } else if (step >= 4) {
        const Pairs listed = Endpoint::filter(tag, trustees);
        for (const auto& pair : witnessPairs()) {
          if (std::find(listed.begin(), listed.end(), pair) == listed.end()) return 1;
        }
      }
    }
  };
  std::uniform_int_distribution<int> delay(0, 6000);
  for (unsigned round = 0; round < rounds; ++round) {
    const unsigned seed = static_cast<unsigned>(random());
    ChildProcess first([&](ChildProcess& self) { return churn(self, seed); });
    ChildProcess second([&](ChildProcess& self) { return churn(self, seed + 1); });
    ASSERT_EQ(first.readFromChild(childTimeout), "ready");
    ASSERT_EQ(second.readFromChild(childTimeout), "ready");
    // Random moments to kill at, not synchronisation.
    std::this_thread::sleep_for(std::chrono::microseconds(delay(random)));
    first.kill();
    std::this_thread::sleep_for(std::chrono::microseconds(delay(random)));
    second.kill();
    ASSERT_EQ(first.wait(childTimeout), killed) << "round " << round;
    ASSERT_EQ(second.wait(childTimeout), killed) << "round " << round;
    expectOnlyWitnessLeft("random round " + std::to_string(round), round % 10 == 0);
    if (HasFailure()) return;
  }
  std::cout << "crash harness: " << 2 * rounds << " kills at random moments" << std::endl;
}

}  // namespace
}  // namespace agent::spf::endpointregistry
