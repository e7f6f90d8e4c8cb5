// NamedStringArray across processes: concurrent writers and readers, a
// writer killed while it holds the directory's mutex or while it builds a
// container, and initialisation claims of dead, live and bogus processes.
#include <gtest/gtest.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "support/child_process.hpp"
#include "support/directory_test_support.hpp"
#include "support/kill_points.hpp"
#include "support/text.hpp"

namespace er::test {
namespace {

using namespace std::chrono_literals;

const auto implementation = SharedMemory::ImplementationSpecifications{};

// Names of varying length, so that the writers also widen and narrow the rows.
std::string writerName(int process, int index) {
  return er::test::concat("w", std::to_string(process), "-", std::to_string(index), "-", std::string(index % 7, 'z'));
}

bool erasedByWriter(int index) { return index % 3 == 1; }

TEST(NamedStringArrayProcessTest, ConcurrentWritersLeaveExactlyTheSurvivors) {
  TestDirectory dir;
  constexpr int processes = 4;
  constexpr int namesPerProcess = 30;
  std::set<std::string> known;
  for (int p = 0; p < processes; ++p) {
    for (int i = 0; i < namesPerProcess; ++i) known.insert(writerName(p, i));
  }

  std::vector<std::unique_ptr<ChildProcess>> writers;
  for (int p = 0; p < processes; ++p) {
    writers.push_back(std::make_unique<ChildProcess>([&dir, &known, p](ChildProcess& self) {
      if (self.readFromParent() != "go") return 2;
      NamedStringArray array(dir.name, 0, "");
      std::set<std::string> mine;
      for (int i = 0; i < namesPerProcess; ++i) {
        array.insert(writerName(p, i));
        mine.insert(writerName(p, i));
        if (erasedByWriter(i)) {
          array.erase(writerName(p, i));
          mine.erase(writerName(p, i));
        }
        // Every listing shows whole, known names, each once, and all of this
        // writer's own names (nobody else erases them).
        std::set<std::string> seen;
        for (const Entry& entry : array.listEntries("")) {
          if (entry.size() != 1 || known.count(entry[0]) == 0) return 3;
          if (!seen.insert(entry[0]).second) return 4;
        }
        if (!std::includes(seen.begin(), seen.end(), mine.begin(), mine.end())) return 5;
      }
      return 0;
    }));
  }
  for (auto& writer : writers) writer->tellChild("go");
  for (auto& writer : writers) EXPECT_EQ(writer->wait(90s), 0);

  std::vector<std::string> expected;
  for (int p = 0; p < processes; ++p) {
    for (int i = 0; i < namesPerProcess; ++i) {
      if (!erasedByWriter(i)) expected.push_back(writerName(p, i));
    }
  }
  std::vector<std::string> listed;
  for (const Entry& entry : NamedStringArray(dir.name, 0, "").listEntries("")) {
    ASSERT_EQ(entry.size(), 1u);
    listed.push_back(entry[0]);
  }
  std::sort(expected.begin(), expected.end());
  std::sort(listed.begin(), listed.end());
  EXPECT_EQ(listed, expected);
  EXPECT_EQ(dir.files().size(), 2u);  // the base and the one active container
}

TEST(NamedStringArrayProcessTest, WriterKilledWhileHoldingTheMutexLeavesAUsableDirectory) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 0, "");
  array.insert("before");
  SharedMemory base = SharedMemory::find(dir.segment(""), 96, "", implementation);
  ASSERT_TRUE(base.isAttached());
  auto* header = static_cast<NamedStringArrayBase*>(base.getPointer());
  {
    ChildProcess holder([&dir, header](ChildProcess& self) {
      PThreadRobustLockGuard guard(&header->mutex);
      // Half a row: the strings are written, the count byte is not.
      SharedMemory container = SharedMemory::find(dir.segment("2"), 89, "", implementation);  // 10 rows of 8 bytes
      if (!container.isAttached()) return 2;
      std::memcpy(static_cast<unsigned char*>(container.getPointer()) + 8 + 8 + 1, "hw", 3);
      self.tellParent("locked");
      self.readFromParent(60s);
      return 0;
    });
    ASSERT_EQ(holder.readFromChild(), "locked");
    EXPECT_EQ(PThreadRobustLockGuard::getMutexState(&header->mutex), EBUSY);
    holder.kill(SIGKILL);
    EXPECT_EQ(holder.wait(), 128 + SIGKILL);
  }
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"before"}}));
  array.insert("after");
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"before"}, {"after"}}));
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(&header->mutex), 0);
  EXPECT_EQ(dir.files(), (std::set<std::string>{dir.name + "v0", dir.name + "v02"}));
}

TEST(NamedStringArrayProcessTest, HalfBuiltContainerIsRemovedByTheNextWriter) {
  TestDirectory dir;
  NamedStringArray array(dir.name, 0, "");
  array.insert("a");
  SharedMemory base = SharedMemory::find(dir.segment(""), 96, "", implementation);
  ASSERT_TRUE(base.isAttached());
  auto* header = static_cast<NamedStringArrayBase*>(base.getPointer());
  {
    // Dies in the middle of a reorganisation: inactive slot filled, the new
    // container created and partly copied, no flip.
    ChildProcess builder([&dir, header](ChildProcess& self) {
      PThreadRobustLockGuard guard(&header->mutex);
      header->rowCount[0] = 10;
      header->containerNumber[0] = 3;
      header->rowWidth[0] = 8;
      SharedMemory fresh = SharedMemory::createOrFind(dir.segment("3"), 89, "", implementation);
      if (!fresh.isCreator()) return 2;
      fresh.makePersistent();
      std::memcpy(static_cast<unsigned char*>(fresh.getPointer()) + 8,
                  "\x01"
                  "a",
                  3);
      self.tellParent("built");
      self.readFromParent(60s);
      return 0;
    });
    ASSERT_EQ(builder.readFromChild(), "built");
    builder.kill(SIGKILL);
    EXPECT_EQ(builder.wait(), 128 + SIGKILL);
  }
  ASSERT_EQ(dir.files(), (std::set<std::string>{dir.name + "v0", dir.name + "v02", dir.name + "v03"}));
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"a"}}));  // readers ignore the half-built one

  array.insert("b");  // fits: no new container, but the half-built one goes
  EXPECT_EQ(dir.files(), (std::set<std::string>{dir.name + "v0", dir.name + "v02"}));
  const BaseFields fields = readBase(dir.baseFile());
  EXPECT_EQ(fields.activeSlot, 1u);
  EXPECT_EQ(fields.rowCount[0], 0u);
  EXPECT_EQ(fields.rowWidth[0], 0u);
  EXPECT_EQ(fields.containerNumber[0], 0u);
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"a"}, {"b"}}));
}

std::vector<unsigned char> claimedBase(pid_t claimer) {
  std::vector<unsigned char> bytes(96, 0);
  const auto pid = static_cast<std::uint32_t>(claimer);
  std::memcpy(bytes.data(), &pid, sizeof pid);
  return bytes;
}

TEST(NamedStringArrayProcessTest, DeadInitialisersClaimIsClearedAndInsertProceeds) {
  TestDirectory dir;
  pid_t dead = 0;
  {
    ChildProcess child([](ChildProcess&) { return 0; });
    dead = child.pid();
    ASSERT_EQ(child.wait(), 0);  // reaped: getpgid() no longer finds it
  }
  plantSegment(dir.segment(""), claimedBase(dead));
  const auto start = std::chrono::steady_clock::now();
  NamedStringArray array(dir.name, 0, "");
  array.insert("x");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);  // cleared at once, not by the stale-claim limit
  const BaseFields fields = readBase(dir.baseFile());
  EXPECT_EQ(fields.initializerPid, static_cast<std::uint32_t>(getpid()));
  EXPECT_EQ(fields.initialized, 1u);
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"x"}}));
}

TEST(NamedStringArrayProcessTest, LiveInitialiserBlocksInsertUntilItIsGone) {
  TestDirectory dir;
  ChildProcess claimer([](ChildProcess& self) {
    self.readFromParent(60s);
    return 0;
  });
  plantSegment(dir.segment(""), claimedBase(claimer.pid()));
  ChildProcess inserter([&dir](ChildProcess& self) {
    if (self.readFromParent() != "go") return 2;
    NamedStringArray(dir.name, 0, "").insert("x");
    self.tellParent("inserted");
    return 0;
  });
  inserter.tellChild("go");
  EXPECT_EQ(inserter.readFromChild(300ms), std::nullopt);  // still waiting for the claimer
  EXPECT_EQ(readBase(dir.baseFile()).initialized, 0u);
  claimer.kill(SIGKILL);
  EXPECT_EQ(claimer.wait(), 128 + SIGKILL);
  EXPECT_EQ(inserter.readFromChild(), "inserted");
  EXPECT_EQ(inserter.wait(), 0);
  const BaseFields fields = readBase(dir.baseFile());
  EXPECT_EQ(fields.initializerPid, static_cast<std::uint32_t>(inserter.pid()));
  EXPECT_EQ(fields.initialized, 1u);
  EXPECT_EQ(NamedStringArray(dir.name, 0, "").listEntries(""), (std::vector<Entry>{{"x"}}));
}

// A claim naming a process that lives on but never completes (here: this very
// process, as a reused pid would) is withdrawn after a few seconds.
TEST(NamedStringArrayProcessTest, ClaimOfALiveProcessThatNeverCompletesIsWithdrawn) {
  TestDirectory dir;
  plantSegment(dir.segment(""), claimedBase(getpid()));
  const auto start = std::chrono::steady_clock::now();
  NamedStringArray array(dir.name, 0, "");
  array.insert("x");
  EXPECT_GE(std::chrono::steady_clock::now() - start, 2s);
  EXPECT_EQ(readBase(dir.baseFile()).initialized, 1u);
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"x"}}));
}

TEST(NamedStringArrayProcessTest, ConcurrentFirstInsertsInitialiseOnce) {
  TestDirectory dir;
  constexpr int processes = 4;
  std::vector<std::unique_ptr<ChildProcess>> children;
  for (int p = 0; p < processes; ++p) {
    children.push_back(std::make_unique<ChildProcess>([&dir, p](ChildProcess& self) {
      if (self.readFromParent() != "go") return 2;
      NamedStringArray(dir.name, 0, "").insert("first" + std::to_string(p));
      return 0;
    }));
  }
  for (auto& child : children) child->tellChild("go");
  for (auto& child : children) EXPECT_EQ(child->wait(60s), 0);
  auto entries = NamedStringArray(dir.name, 0, "").listEntries("first");
  std::sort(entries.begin(), entries.end());
  EXPECT_EQ(entries, (std::vector<Entry>{{"first0"}, {"first1"}, {"first2"}, {"first3"}}));
  EXPECT_EQ(readBase(dir.baseFile()).initialized, 1u);
  EXPECT_EQ(dir.files().size(), 2u);
}

// A claimer stopped right after its claim for longer than the 3-second
// bound: the others withdraw its claim, initialise the base and insert. When
// it goes on, it must change nothing they did, throw nothing and insert its
// own entry beside theirs.
TEST(NamedStringArrayProcessTest, ClaimerStoppedPastTheBoundChangesNothingWhenItGoesOn) {
  if (!testPointsCompiledIn()) GTEST_SKIP() << "test points are compiled out";
  TestDirectory dir;
  ChildProcess claimer([&dir](ChildProcess&) {
    stopAtPoint("directory.initialize.claimed");
    NamedStringArray(dir.name, 0, "").insert("claimer");
    return 0;
  });
  ASSERT_TRUE(claimer.waitUntilStopped());
  EXPECT_EQ(readBase(dir.baseFile()).initializerPid, static_cast<std::uint32_t>(claimer.pid()));

  NamedStringArray array(dir.name, 0, "");
  array.insert("first");  // waits out the bound, then takes over
  ChildProcess other([&dir](ChildProcess&) {
    NamedStringArray(dir.name, 0, "").insert("second");
    return 0;
  });
  EXPECT_EQ(other.wait(), 0);
  EXPECT_EQ(readBase(dir.baseFile()).initializerPid, static_cast<std::uint32_t>(getpid()));

  claimer.kill(SIGCONT);
  EXPECT_EQ(claimer.wait(), 0);  // no exception
  auto entries = array.listEntries("");
  std::sort(entries.begin(), entries.end());
  EXPECT_EQ(entries, (std::vector<Entry>{{"claimer"}, {"first"}, {"second"}}));
  const BaseFields after = readBase(dir.baseFile());
  EXPECT_EQ(after.initialized, 1u);
  EXPECT_EQ(after.initializerPid, static_cast<std::uint32_t>(getpid()));
  EXPECT_EQ(dir.files(), (std::set<std::string>{dir.name + "v0",
                                                dir.segment(std::to_string(after.containerNumber[after.activeSlot]))}));
  array.erase("claimer");
  EXPECT_EQ(array.listEntries("claimer"), std::vector<Entry>{});
}

}  // namespace
}  // namespace er::test
