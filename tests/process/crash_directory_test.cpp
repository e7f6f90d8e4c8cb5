// Writers of a private name directory, and creators of shared-memory
// segments, killed with SIGKILL in the middle of their work: whoever comes
// next finds a usable directory, and nothing half made stays behind.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <random>
#include <set>
#include <thread>

#include <agent/spf/sharedmemory/shared_memory.hpp>

#include "support/child_process.hpp"
#include "support/directory_test_support.hpp"
#include "support/kill_points.hpp"
#include "support/registry_state.hpp"
#include "support/shm_files.hpp"

namespace agent::spf::endpointregistry {
namespace {

using er::test::ChildProcess;
using er::test::Entry;
using er::test::TestDirectory;
using er::test::userScope;
using namespace std::chrono_literals;
using SharedMemory = agent::spf::sharedmemory::SharedMemory;
using Posix = SharedMemory::ImplementationSpecifications;

constexpr auto childTimeout = 60s;
constexpr int killed = 128 + SIGKILL;

std::string entryName(int i) { return "entry" + std::to_string(i); }

// Inserts 25 entries and erases them again: the directory grows to 10, 20
// and 30 rows and shrinks back to none.
int growAndShrink(const std::string& name) {
  NamedStringArray directory(name, 0, "");
  for (int i = 0; i < 25; ++i) directory.insert(entryName(i));
  for (int i = 0; i < 25; ++i) directory.erase(entryName(i));
  return 0;
}

// The directory's segments are exactly its base and its active container.
void expectBaseAndActiveContainerOnly(const TestDirectory& directory) {
  const er::test::DirectoryContainers containers = er::test::directoryContainers(directory.name, "", userScope());
  EXPECT_EQ(containers.inactive, 0u);
  EXPECT_EQ(directory.files(),
            (std::set<std::string>{directory.segment(""), directory.segment(std::to_string(containers.active))}));
}

TEST(DirectoryCrash, InitialisationOfADeadClaimerIsTakenOver) {
  if (!er::test::testPointsCompiledIn()) GTEST_SKIP() << "test points are compiled out";
  TestDirectory directory("erCrashInit");
  ChildProcess child([&](ChildProcess&) {
    er::test::killAtPoint("directory.initialize.claimed", 0);
    NamedStringArray(directory.name, 0, "").insert("x");
    return 0;
  });
  ASSERT_EQ(child.wait(childTimeout), killed);
  const er::test::BaseFields claimed = er::test::readBase(directory.baseFile());
  EXPECT_EQ(claimed.initializerPid, static_cast<std::uint32_t>(child.pid()));
  EXPECT_EQ(claimed.initialized, 0u);

  NamedStringArray next(directory.name, 0, "");
  next.insert("y");
  EXPECT_EQ(next.listEntries(""), std::vector<Entry>{{"y"}});
  EXPECT_EQ(er::test::readBase(directory.baseFile()).initializerPid, static_cast<std::uint32_t>(getpid()));
  NamedStringArray::deleteNamedStringArray(directory.name, 0, "");
  EXPECT_TRUE(directory.files().empty());
}

TEST(DirectoryCrash, BaseOfADeadClaimerIsDeleted) {
  if (!er::test::testPointsCompiledIn()) GTEST_SKIP() << "test points are compiled out";
  TestDirectory directory("erCrashInitDel");
  ChildProcess child([&](ChildProcess&) {
    er::test::killAtPoint("directory.initialize.claimed", 0);
    NamedStringArray(directory.name, 0, "").insert("x");
    return 0;
  });
  ASSERT_EQ(child.wait(childTimeout), killed);
  EXPECT_EQ(directory.files(), std::set<std::string>{directory.segment("")});
  NamedStringArray::deleteNamedStringArray(directory.name, 0, "");
  EXPECT_TRUE(directory.files().empty());
}

TEST(DirectoryCrash, KilledWhileWritingARowLeavesTheRowFree) {
  if (!er::test::testPointsCompiledIn()) GTEST_SKIP() << "test points are compiled out";
  TestDirectory directory("erCrashRow");
  NamedStringArray(directory.name, 0, "").insert("a");
  ChildProcess child([&](ChildProcess&) {
    er::test::killAtPoint("directory.row.written", 0);
    NamedStringArray(directory.name, 0, "").insert("x");
    return 0;
  });
  ASSERT_EQ(child.wait(childTimeout), killed);
  NamedStringArray next(directory.name, 0, "");
  EXPECT_EQ(next.listEntries(""), std::vector<Entry>{{"a"}});
  next.insert("b");
  EXPECT_EQ(next.listEntries(""), (std::vector<Entry>{{"a"}, {"b"}}));
  NamedStringArray::deleteNamedStringArray(directory.name, 0, "");
  EXPECT_TRUE(directory.files().empty());
}

// Killed at each reorganisation in turn, between building the next
// container and the flip. The next listing removes the half-built container
// (also one of 0 rows); deleting the directory without a listing first
// removes it as well.
TEST(DirectoryCrash, KilledInsideEveryReorganisationLeavesOnlyTheActiveContainer) {
  if (!er::test::testPointsCompiledIn()) GTEST_SKIP() << "test points are compiled out";
  unsigned reaches = 0;
  {
    TestDirectory directory("erCrashCount");
    ChildProcess counter([&](ChildProcess& self) {
      er::test::countPoints();
      growAndShrink(directory.name);
      self.tellParent(std::to_string(er::test::pointCounts()["directory.reorganize.created"]));
      return 0;
    });
    const auto line = counter.readFromChild(childTimeout);
    ASSERT_TRUE(line.has_value());
    reaches = static_cast<unsigned>(std::stoul(*line));
    ASSERT_EQ(counter.wait(childTimeout), 0);
    NamedStringArray::deleteNamedStringArray(directory.name, 0, "");
  }
  ASSERT_GE(reaches, 6u);  // three growths, three shrinks
  for (unsigned skip = 0; skip < reaches; ++skip) {
    SCOPED_TRACE(skip);
    TestDirectory directory("erCrashReorg");
    ChildProcess child([&](ChildProcess&) {
      er::test::killAtPoint("directory.reorganize.created", skip);
      return growAndShrink(directory.name);
    });
    ASSERT_EQ(child.wait(childTimeout), killed);
    EXPECT_EQ(directory.files().size(), 3u);  // base, active and half-built containers
    if (skip % 2 == 0) {
      NamedStringArray next(directory.name, 0, "");
      const std::vector<Entry> entries = next.listEntries("");
      expectBaseAndActiveContainerOnly(directory);
      // What was there before the interrupted change is all still there.
      std::set<Entry> distinct(entries.begin(), entries.end());
      EXPECT_EQ(distinct.size(), entries.size());
      for (const Entry& entry : entries) EXPECT_EQ(entry.front().rfind("entry", 0), 0u);
      next.insert("after");
      next.erase("after");
      expectBaseAndActiveContainerOnly(directory);
    }
    NamedStringArray::deleteNamedStringArray(directory.name, 0, "");
    EXPECT_TRUE(directory.files().empty());
  }
}

TEST(SegmentCreation, NoSegmentIsSeenBeforeItIsComplete) {
  const std::string prefix = er::test::uniqueName("erComplete");
  er::test::ShmCleanup cleanup(userScope(), {prefix});
  constexpr std::size_t size = 4096;
  std::atomic<bool> done{false};
  std::atomic<unsigned> seen{0};
  std::atomic<unsigned> incomplete{0};
  std::thread observer([&] {
    while (!done.load()) {
      for (const std::string& name : sharedmemory::listSegmentNames("", prefix)) {
        struct stat st {};
        if (lstat((userScope() + "/" + name).c_str(), &st) != 0) continue;  // already gone
        ++seen;
        if (st.st_size != static_cast<off_t>(size) || (st.st_mode & 07777) != 0600) ++incomplete;
      }
    }
  });
  // Until the observer has looked at enough segments (bounded).
  for (int i = 0; i < 50000 && seen.load() < 200; ++i) {
    SharedMemory segment = SharedMemory::create(prefix + std::to_string(i % 8), size, "", Posix{});
    ASSERT_TRUE(segment.isAttached());
  }
  done = true;
  observer.join();
  EXPECT_GE(seen.load(), 200u);
  EXPECT_EQ(incomplete.load(), 0u);
}

TEST(SegmentCreation, CreatorKilledAtAnyMomentLeavesNothingHalfMade) {
  const std::string prefix = er::test::uniqueName("erHalfMade");
  er::test::ShmCleanup cleanup(userScope(), {prefix});
  constexpr std::size_t size = 4096;
  std::mt19937 random(static_cast<unsigned>(getpid()));
  std::uniform_int_distribution<int> delay(0, 2000);
  unsigned leftovers = 0;
  for (int round = 0; round < 100; ++round) {
    ChildProcess creator([&](ChildProcess& self) {
      self.tellParent("creating");
      for (unsigned long i = 0;; ++i) {
        SharedMemory segment = SharedMemory::create(prefix + std::to_string(i), size, "", Posix{});
        if (!segment.isAttached()) return 1;
      }
    });
    ASSERT_EQ(creator.readFromChild(childTimeout), "creating");
    std::this_thread::sleep_for(std::chrono::microseconds(delay(random)));  // a random moment, not a handshake
    creator.kill();
    ASSERT_EQ(creator.wait(childTimeout), killed);
    // A segment whose creator died after completing it may stay (its user
    // removes it); one that is not complete must not exist.
    for (const std::string& name : er::test::filesIn(userScope(), prefix)) {
      struct stat st {};
      ASSERT_EQ(lstat((userScope() + "/" + name).c_str(), &st), 0);
      EXPECT_EQ(st.st_size, static_cast<off_t>(size)) << name;
      EXPECT_EQ(st.st_mode & 07777, 0600u) << name;
      std::remove((userScope() + "/" + name).c_str());
      ++leftovers;
    }
  }
  std::cout << "segment creation: " << leftovers << " complete segments left by 100 killed creators" << std::endl;
}

TEST(SegmentNames, AreListedByPrefixFromTheTrusteesScope) {
  const std::string prefix = er::test::uniqueName("erListed");
  er::test::ShmCleanup cleanup(userScope(), {prefix});
  std::vector<SharedMemory> segments;
  for (const char* suffix : {"a1", "a2", "b1"}) {
    segments.push_back(SharedMemory::create(prefix + suffix, 16, "", Posix{}));
    ASSERT_TRUE(segments.back().isAttached());
  }
  std::vector<std::string> names = sharedmemory::listSegmentNames("", prefix + "a");
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{prefix + "a1", prefix + "a2"}));
  EXPECT_EQ(sharedmemory::listSegmentNames("", prefix).size(), 3u);
  EXPECT_TRUE(sharedmemory::listSegmentNames("", prefix + "c").empty());
  EXPECT_TRUE(sharedmemory::listSegmentNames("erNoSuchGroupAnywhere", "").empty());
}

}  // namespace
}  // namespace agent::spf::endpointregistry
