// Reuse of what earlier opens made: kept mappings of found segments and
// kept scope folders must never show a segment or folder that its name no
// longer names, nor one that a fresh open would refuse. And SegmentReader,
// which reads a segment without mapping it.
#include <agent/spf/sharedmemory/shared_memory.hpp>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/child_process.hpp"
#include "support/log_capture.hpp"
#include "support/shm_files.hpp"

namespace {

using namespace std::chrono_literals;
using agent::spf::sharedmemory::FolderTrust;
using agent::spf::sharedmemory::SegmentReader;
using agent::spf::sharedmemory::SharedMemory;
using er::test::uniqueName;
using er::test::userScope;

constexpr auto posix = SharedMemory::ImplementationSpecifications::PosixSharedMemory;
const std::string channel = "agent::spf::sharedmemory";

std::string pathOf(const std::string& name) { return er::test::userPath(name); }

// Writes `text` at the start of a persistent segment made for the test.
void makeSegment(const std::string& name, std::size_t size, const char* text) {
  SharedMemory segment = SharedMemory::create(name, size, "", posix);
  ASSERT_TRUE(segment.isAttached());
  std::memcpy(segment.getPointer(), text, std::strlen(text) + 1);
  segment.makePersistent();
}

std::string textOf(const SharedMemory& segment) { return static_cast<const char*>(segment.getPointer()); }

// Finds the segment, reads its text and lets go of it (its mapping may be
// kept for the next find).
// Moves the user's scope folder aside and puts a folder that others may
// enter in its place; puts the real folder back when it goes.
struct FolderAside {
  FolderAside() {
    moved = rename(userScope().c_str(), aside.c_str()) == 0;
    if (moved) {
      EXPECT_EQ(mkdir(userScope().c_str(), 0755), 0);
      EXPECT_EQ(chmod(userScope().c_str(), 0755), 0);
    }
  }
  ~FolderAside() {
    if (!moved) return;
    rmdir(userScope().c_str());
    if (rename(aside.c_str(), userScope().c_str()) != 0) std::perror("restoring the scope folder");
  }
  FolderAside(const FolderAside&) = delete;
  FolderAside& operator=(const FolderAside&) = delete;

  const std::string aside = userScope() + ".aside" + std::to_string(getpid());
  bool moved = false;
};

std::string findText(const std::string& name, std::size_t size) {
  SharedMemory segment = SharedMemory::find(name, size, "", posix);
  return segment.isAttached() ? textOf(segment) : std::string("<unattached>");
}

// Expects find() to refuse the segment, with exactly one line ending in `reason`.
void expectFindRefused(const std::string& name, const std::string& reason) {
  er::test::LogCapture capture(channel + "=all");
  EXPECT_EQ(findText(name, 64), "<unattached>");
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].message, "find: " + pathOf(name) + ": " + reason);
}

class SegmentReuseTest : public ::testing::Test {
 protected:
  const std::string name = uniqueName("reuse");
  er::test::ShmCleanup cleanup{userScope(), {name}};
};

TEST_F(SegmentReuseTest, FindsOfOneSegmentShareItsBytes) {
  makeSegment(name, 64, "first");
  SharedMemory one = SharedMemory::find(name, 64, "", posix);
  SharedMemory two = SharedMemory::find(name, 64, "", posix);
  ASSERT_TRUE(one.isAttached());
  ASSERT_TRUE(two.isAttached());
  std::memcpy(one.getPointer(), "changed", 8);
  EXPECT_EQ(textOf(two), "changed");
  one = SharedMemory();
  EXPECT_EQ(textOf(two), "changed");  // the other handle's view stays valid
  EXPECT_EQ(findText(name, 64), "changed");
}

TEST_F(SegmentReuseTest, ASegmentReplacedUnderItsNameIsSeenAsTheNewOne) {
  makeSegment(name, 64, "old");
  EXPECT_EQ(findText(name, 64), "old");
  ASSERT_EQ(unlink(pathOf(name).c_str()), 0);
  makeSegment(name, 64, "new");
  EXPECT_EQ(findText(name, 64), "new");
}

TEST_F(SegmentReuseTest, ASegmentRemovedByAnotherProcessIsNotFound) {
  makeSegment(name, 64, "gone soon");
  EXPECT_EQ(findText(name, 64), "gone soon");
  const auto code = er::test::runInChild(
      [&](er::test::ChildProcess&) {
        SharedMemory segment = SharedMemory::find(name, 64, "", posix);
        if (!segment.isAttached()) return 1;
        segment.markForDeletion();
        return 0;
      },
      30s);
  ASSERT_EQ(code, std::optional<int>(0));
  expectFindRefused(name, "not found");
}

TEST_F(SegmentReuseTest, ASegmentThatShrankIsRefusedAsAFreshFindRefusesIt) {
  makeSegment(name, 64, "shrinks");
  EXPECT_EQ(findText(name, 64), "shrinks");
  ASSERT_EQ(truncate(pathOf(name).c_str(), 16), 0);
  expectFindRefused(name, "size 16 is smaller than 64");
}

TEST_F(SegmentReuseTest, ASegmentWhoseModeWidenedIsRefused) {
  makeSegment(name, 64, "widened");
  EXPECT_EQ(findText(name, 64), "widened");
  ASSERT_EQ(chmod(pathOf(name).c_str(), 0644), 0);
  expectFindRefused(name, "mode 0644 exceeds 0600");
}

TEST_F(SegmentReuseTest, ASegmentThisProcessMarkedForDeletionIsNotFoundAgain) {
  makeSegment(name, 64, "marked");
  {
    SharedMemory segment = SharedMemory::find(name, 64, "", posix);
    ASSERT_TRUE(segment.isAttached());
    segment.markForDeletion();
  }
  EXPECT_FALSE(er::test::fileExists(pathOf(name)));
  makeSegment(name, 64, "again");
  EXPECT_EQ(findText(name, 64), "again");
}

TEST_F(SegmentReuseTest, AnotherSizeOfTheSameSegmentIsMappedAfresh) {
  makeSegment(name, 8192, "sized");
  EXPECT_EQ(findText(name, 64), "sized");
  SharedMemory larger = SharedMemory::find(name, 8192, "", posix);
  ASSERT_TRUE(larger.isAttached());
  EXPECT_EQ(larger.getSize(), 8192u);
  static_cast<char*>(larger.getPointer())[8191] = 'z';  // the whole size is mapped
  EXPECT_EQ(textOf(larger), "sized");
}

TEST_F(SegmentReuseTest, AForkedChildUsesAndReleasesInheritedAndKeptMappings) {
  makeSegment(name, 64, "inherited");
  SharedMemory held = SharedMemory::find(name, 64, "", posix);
  ASSERT_TRUE(held.isAttached());
  const auto code = er::test::runInChild(
      [&](er::test::ChildProcess&) {
        if (textOf(held) != "inherited") return 1;
        held = SharedMemory();
        if (findText(name, 64) != "inherited") return 2;
        SharedMemory again = SharedMemory::find(name, 64, "", posix);
        if (!again.isAttached()) return 3;
        std::memcpy(again.getPointer(), "from child", 11);
        return 0;
      },
      30s);
  ASSERT_EQ(code, std::optional<int>(0));
  EXPECT_EQ(textOf(held), "from child");
  EXPECT_TRUE(er::test::fileExists(pathOf(name)));
}

// A daemon-like child closes every descriptor it inherited and opens files
// of its own, which take the freed numbers: the library opens its folder
// again and never closes the child's files.
TEST_F(SegmentReuseTest, AChildThatClosedAllDescriptorsKeepsItsOwnFiles) {
  makeSegment(name, 64, "kept");
  EXPECT_EQ(findText(name, 64), "kept");  // the scope folder is now kept open
  const auto code = er::test::runInChild(
      [&](er::test::ChildProcess&) {
        std::vector<int> own;
        for (int fd = 3; fd < 1024; ++fd) close(fd);
        for (int i = 0; i < 8; ++i) own.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        if (findText(name, 64) != "kept") return 1;
        const SegmentReader reader = SegmentReader::open(name, 64, "", posix);
        if (!reader.isOpen()) return 2;
        const std::string other = name + "x";
        {
          SharedMemory created = SharedMemory::create(other, 8, "", posix);
          if (!created.isAttached()) return 3;
        }
        for (int fd : own) {
          if (fd < 0 || fcntl(fd, F_GETFD) < 0) return 4;  // closed behind the child's back
        }
        return 0;
      },
      30s);
  EXPECT_EQ(code, std::optional<int>(0));
}

// The scope folder itself: a folder this process used before and that has
// since been replaced is checked like a new one.
TEST_F(SegmentReuseTest, AReplacedScopeFolderIsCheckedAfresh) {
  if (geteuid() != 0) GTEST_SKIP() << "moving the user's scope folder aside needs a private user";
  makeSegment(name, 64, "before");
  EXPECT_EQ(findText(name, 64), "before");
  {
    const FolderAside folderAside;
    ASSERT_TRUE(folderAside.moved);
    er::test::LogCapture capture(channel + "=all");
    const std::string found = findText(name, 64);
    const auto records = capture.records();
    EXPECT_EQ(found, "<unattached>");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].message, "find: " + pathOf(name) + ": scope folder mode 0755 grants access to others");
  }
  // The real folder is back, and used again.
  EXPECT_EQ(findText(name, 64), "before");
  EXPECT_TRUE(SegmentReader::open(name, 64, "", posix).isOpen());
}

// Within one operation the folder is checked once; a folder replaced during
// the operation is noticed by the next one.
TEST_F(SegmentReuseTest, AFolderReplacedDuringAnOperationIsNoticedByTheNext) {
  if (geteuid() != 0) GTEST_SKIP() << "moving the user's scope folder aside needs a private user";
  makeSegment(name, 64, "before");
  {
    std::optional<FolderTrust> operation(std::in_place);
    EXPECT_EQ(findText(name, 64), "before");
    const FolderAside folderAside;
    ASSERT_TRUE(folderAside.moved);
    EXPECT_EQ(findText(name, 64), "before");
    EXPECT_TRUE(SegmentReader::open(name, 64, "", posix).isOpen());
    operation.reset();
    EXPECT_EQ(findText(name, 64), "<unattached>");
    {
      const FolderTrust next;
      EXPECT_EQ(findText(name, 64), "<unattached>");
    }
  }
  EXPECT_EQ(findText(name, 64), "before");
}

TEST_F(SegmentReuseTest, ReaderReadsTheCurrentBytesWithoutMapping) {
  makeSegment(name, 64, "read me");
  SharedMemory writer = SharedMemory::find(name, 64, "", posix);
  ASSERT_TRUE(writer.isAttached());
  const SegmentReader reader = SegmentReader::open(name, 64, "", posix);
  ASSERT_TRUE(reader.isOpen());
  char text[8] = {};
  ASSERT_TRUE(reader.read(0, text, 8));
  EXPECT_STREQ(text, "read me");
  std::memcpy(writer.getPointer(), "changed", 8);
  ASSERT_TRUE(reader.read(0, text, 8));
  EXPECT_STREQ(text, "changed");
  char tail[4] = {};
  EXPECT_TRUE(reader.read(60, tail, 4));
  EXPECT_FALSE(reader.read(61, tail, 4));  // beyond the end
  EXPECT_FALSE(reader.read(static_cast<std::size_t>(-1), tail, 1));
}

TEST_F(SegmentReuseTest, ReaderRefusesWhatFindRefusesWithTheSameLine) {
  er::test::LogCapture capture(channel + "=all");
  EXPECT_FALSE(SegmentReader::open(name, 64, "", posix).isOpen());
  makeSegment(name, 16, "small");
  EXPECT_FALSE(SegmentReader::open(name, 64, "", posix).isOpen());
  EXPECT_FALSE(SegmentReader::open("bad/name", 64, "", posix).isOpen());
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0].message, "find: " + pathOf(name) + ": not found");
  EXPECT_EQ(records[1].message, "find: " + pathOf(name) + ": size 16 is smaller than 64");
  EXPECT_EQ(records[2].message, "find: " + userScope() + "/bad/name: invalid name");
  capture.clear();
  // find() says the same.
  EXPECT_FALSE(SharedMemory::find(name, 64, "", posix).isAttached());
  ASSERT_EQ(capture.records().size(), 1u);
  EXPECT_EQ(capture.records()[0].message, records[1].message);
}

TEST_F(SegmentReuseTest, MovedReaderKeepsItsSegmentAndTheSourceIsClosed) {
  makeSegment(name, 64, "moved");
  SegmentReader first = SegmentReader::open(name, 64, "", posix);
  SegmentReader second = std::move(first);
  EXPECT_FALSE(first.isOpen());  // NOLINT(bugprone-use-after-move): the moved-from state is the point
  ASSERT_TRUE(second.isOpen());
  char text[6] = {};
  EXPECT_TRUE(second.read(0, text, 6));
  EXPECT_STREQ(text, "moved");
  second = SegmentReader();
  EXPECT_FALSE(second.isOpen());
}

}  // namespace

namespace {

using agent::spf::sharedmemory::ScopeFolder;

TEST_F(SegmentReuseTest, ReaderOpensSegmentsInAFolderOpenedOnce) {
  makeSegment(name, 64, "in folder");
  const ScopeFolder folder = ScopeFolder::open("");
  ASSERT_TRUE(folder.isOpen());
  const SegmentReader reader = SegmentReader::open(folder, name, 64, "", posix);
  ASSERT_TRUE(reader.isOpen());
  char text[10] = {};
  ASSERT_TRUE(reader.read(0, text, 10));
  EXPECT_STREQ(text, "in folder");
  er::test::LogCapture capture(channel + "=all");
  EXPECT_FALSE(SegmentReader::open(folder, name + "missing", 64, "", posix).isOpen());
  EXPECT_FALSE(SegmentReader::open(folder, name, 65, "", posix).isOpen());
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].message, "find: " + pathOf(name) + "missing: not found");
  EXPECT_EQ(records[1].message, "find: " + pathOf(name) + ": size 64 is smaller than 65");
}

// The names read through an open folder are the names read by trustee.
TEST_F(SegmentReuseTest, AnOpenFolderListsTheSegmentsThatTheTrusteeLists) {
  makeSegment(name + "a", 64, "a");
  makeSegment(name + "b", 64, "b");
  const ScopeFolder folder = ScopeFolder::open("");
  ASSERT_TRUE(folder.isOpen());
  bool complete = false;
  std::vector<std::string> names = folder.segmentNames(name, &complete);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{name + "a", name + "b"}));
  EXPECT_TRUE(complete);
  std::vector<std::string> byTrustee = agent::spf::sharedmemory::listSegmentNames("", name);
  std::sort(byTrustee.begin(), byTrustee.end());
  EXPECT_EQ(names, byTrustee);
  complete = true;
  EXPECT_TRUE(ScopeFolder().segmentNames(name, &complete).empty());
  EXPECT_FALSE(complete);
}

TEST_F(SegmentReuseTest, AFolderThatCannotBeOpenedIsReportedByEachRead) {
  const std::string group = "erNoSuchGroup" + std::to_string(getpid());
  er::test::LogCapture capture(channel + "=all");
  const ScopeFolder folder = ScopeFolder::open(group);
  EXPECT_FALSE(folder.isOpen());
  EXPECT_TRUE(capture.records().empty());
  EXPECT_FALSE(SegmentReader::open(folder, name, 64, group, posix).isOpen());
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].message, "find: \"" + name + "\" of trustee \"" + group + "\": unknown group");
}

}  // namespace

namespace {

// The mappings of this process whose file name begins with `prefix`.
std::size_t mappingsOf(const std::string& prefix) {
  std::ifstream maps("/proc/self/maps");
  std::size_t count = 0;
  for (std::string line; std::getline(maps, line);) {
    if (line.find(userScope() + "/" + prefix) != std::string::npos) ++count;
  }
  return count;
}

// Released mappings are kept within bounds: 16 at most, none longer than
// 2 s, none of a segment this process removed.
TEST_F(SegmentReuseTest, KeptMappingsStayWithinTheirBounds) {
  for (int i = 0; i < 24; ++i) {
    makeSegment(name + "m" + std::to_string(i), 64, "many");
    EXPECT_EQ(findText(name + "m" + std::to_string(i), 64), "many");
  }
  EXPECT_EQ(mappingsOf(name + "m"), 16u);
  {
    SharedMemory segment = SharedMemory::find(name + "m23", 64, "", posix);
    ASSERT_TRUE(segment.isAttached());
    segment.markForDeletion();
  }
  EXPECT_EQ(mappingsOf(name + "m"), 15u);
  std::this_thread::sleep_for(std::chrono::milliseconds(2100));
  makeSegment(name, 64, "after");
  EXPECT_EQ(findText(name, 64), "after");  // any open lets expired mappings go
  EXPECT_EQ(mappingsOf(name + "m"), 0u);
}

}  // namespace
