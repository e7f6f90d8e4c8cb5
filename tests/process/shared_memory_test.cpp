// Segments of the empty trustee: creating, finding, sizes, names, lifetime of
// names and handles, sharing with other processes, and the refusal lines.
#include <agent/spf/sharedmemory/accounts.hpp>
#include <agent/spf/sharedmemory/shared_memory.hpp>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <chrono>
#include <cstring>

#include "support/child_process.hpp"
#include "support/log_capture.hpp"
#include "support/shm_files.hpp"

namespace {

using agent::spf::sharedmemory::SharedMemory;
using er::test::uniqueName;
using er::test::userScope;

constexpr auto posix = SharedMemory::ImplementationSpecifications::PosixSharedMemory;
const std::string channel = "agent::spf::sharedmemory";

std::string pathOf(const std::string& name) { return er::test::userPath(name); }

struct stat lstatOf(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
  return st;
}

// Expects exactly one line, of level 256 on the library's channel.
void expectRefusal(er::test::LogCapture& capture, const std::string& message) {
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].channel, channel);
  EXPECT_EQ(records[0].level, 256u);
  EXPECT_EQ(records[0].message, message);
  capture.clear();
}

class SharedMemoryTest : public ::testing::Test {
 protected:
  const std::string name = uniqueName("shmt");
  er::test::ShmCleanup cleanup{userScope(), {name}};
};

TEST_F(SharedMemoryTest, CreateMakesZeroFilledPrivateSegmentOfExactSize) {
  SharedMemory segment = SharedMemory::create(name, 100, "", posix);
  ASSERT_TRUE(segment.isAttached());
  EXPECT_NE(segment.getPointer(), nullptr);
  EXPECT_TRUE(segment.isCreator());
  EXPECT_EQ(segment.getSize(), 100u);
  EXPECT_EQ(segment.getTrustee(), "");
  const struct stat st = lstatOf(pathOf(name));
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(st.st_uid, geteuid());
  EXPECT_EQ(er::test::readBytes(pathOf(name)), std::vector<unsigned char>(100, 0));
  const struct stat scope = lstatOf(userScope());
  EXPECT_TRUE(S_ISDIR(scope.st_mode));
  EXPECT_EQ(scope.st_mode & 07777, 0700u);
  EXPECT_EQ(scope.st_uid, geteuid());
}

TEST_F(SharedMemoryTest, FindSharesTheCreatorsBytes) {
  SharedMemory creator = SharedMemory::create(name, 64, "", posix);
  ASSERT_TRUE(creator.isAttached());
  std::memcpy(creator.getPointer(), "written by creator", 19);
  SharedMemory finder = SharedMemory::find(name, 64, "", posix);
  ASSERT_TRUE(finder.isAttached());
  EXPECT_FALSE(finder.isCreator());
  EXPECT_EQ(finder.getSize(), 64u);
  EXPECT_NE(finder.getPointer(), creator.getPointer());
  EXPECT_STREQ(static_cast<const char*>(finder.getPointer()), "written by creator");
  std::memcpy(static_cast<char*>(finder.getPointer()) + 32, "reply", 6);
  EXPECT_STREQ(static_cast<const char*>(creator.getPointer()) + 32, "reply");
}

TEST_F(SharedMemoryTest, FindMapsOnlyTheSizeAskedFor) {
  SharedMemory creator = SharedMemory::create(name, 4096, "", posix);
  ASSERT_TRUE(creator.isAttached());
  SharedMemory finder = SharedMemory::find(name, 10, "", posix);
  ASSERT_TRUE(finder.isAttached());
  EXPECT_EQ(finder.getSize(), 10u);
}

TEST_F(SharedMemoryTest, CreateOnAnExistingNameIsRefused) {
  er::test::LogCapture capture(channel + "=all");
  SharedMemory first = SharedMemory::create(name, 64, "", posix);
  ASSERT_TRUE(first.isAttached());
  static_cast<char*>(first.getPointer())[0] = 7;
  SharedMemory second = SharedMemory::create(name, 64, "", posix);
  EXPECT_FALSE(second.isAttached());
  EXPECT_EQ(second.getPointer(), nullptr);
  EXPECT_FALSE(second.isCreator());
  EXPECT_EQ(second.getSize(), 0u);
  expectRefusal(capture, "create: " + pathOf(name) + ": exists already");
  EXPECT_EQ(er::test::readBytes(pathOf(name))[0], 7);
}

TEST_F(SharedMemoryTest, FindOfAMissingSegmentIsRefused) {
  er::test::LogCapture capture(channel + "=all");
  SharedMemory::create(uniqueName("shmtScope"), 1, "", posix);  // makes sure the scope folder exists
  capture.clear();
  EXPECT_FALSE(SharedMemory::find(name, 64, "", posix).isAttached());
  expectRefusal(capture, "find: " + pathOf(name) + ": not found");
  EXPECT_FALSE(er::test::fileExists(pathOf(name)));
}

TEST_F(SharedMemoryTest, CreateOrFindCreatesOnceThenFinds) {
  SharedMemory first = SharedMemory::createOrFind(name, 128, "", posix);
  ASSERT_TRUE(first.isAttached());
  EXPECT_TRUE(first.isCreator());
  EXPECT_EQ(er::test::readBytes(pathOf(name)), std::vector<unsigned char>(128, 0));
  static_cast<unsigned char*>(first.getPointer())[127] = 0xAB;
  SharedMemory second = SharedMemory::createOrFind(name, 128, "", posix);
  ASSERT_TRUE(second.isAttached());
  EXPECT_FALSE(second.isCreator());
  EXPECT_EQ(static_cast<unsigned char*>(second.getPointer())[127], 0xAB);
}

TEST_F(SharedMemoryTest, SmallerSegmentIsRefused) {
  er::test::LogCapture capture(channel + "=all");
  SharedMemory creator = SharedMemory::create(name, 64, "", posix);
  ASSERT_TRUE(creator.isAttached());
  EXPECT_FALSE(SharedMemory::find(name, 65, "", posix).isAttached());
  expectRefusal(capture, "find: " + pathOf(name) + ": size 64 is smaller than 65");
}

TEST_F(SharedMemoryTest, CreateOrFindGivesUpOnASegmentThatStaysTooSmall) {
  SharedMemory::create(uniqueName("shmtScope"), 1, "", posix);
  const int fd = open(pathOf(name).c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  close(fd);
  er::test::LogCapture capture(channel + "=all");
  const auto start = std::chrono::steady_clock::now();
  SharedMemory segment = SharedMemory::createOrFind(name, 64, "", posix);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_FALSE(segment.isAttached());
  expectRefusal(capture, "createOrFind: " + pathOf(name) + ": size 0 is smaller than 64");
  EXPECT_EQ(lstatOf(pathOf(name)).st_size, 0);
}

TEST_F(SharedMemoryTest, CreateOrFindWaitsForACreatorThatIsStillSizing) {
  SharedMemory::create(uniqueName("shmtScope"), 1, "", posix);
  const std::string path = pathOf(name);
  // A creator claims the file as being created until it is done.
  const int fd = open(path.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  // The child sizes the file as soon as the parent first opens it.
  er::test::ChildProcess sizer([&](er::test::ChildProcess& self) {
    const int watch = inotify_init1(IN_CLOEXEC);
    if (watch < 0 || inotify_add_watch(watch, path.c_str(), IN_OPEN) < 0) return 1;
    self.tellParent("watching");
    alignas(inotify_event) char event[sizeof(inotify_event) + 256];
    if (read(watch, event, sizeof event) <= 0) return 2;
    return truncate(path.c_str(), 64) == 0 ? 0 : 3;
  });
  ASSERT_EQ(sizer.readFromChild(), "watching");
  SharedMemory segment = SharedMemory::createOrFind(name, 64, "", posix);
  close(fd);
  EXPECT_EQ(sizer.wait(), 0);
  ASSERT_TRUE(segment.isAttached());
  EXPECT_FALSE(segment.isCreator());
  EXPECT_EQ(segment.getSize(), 64u);
}

// A file too short that nobody claims as being created (one truncated after
// its creator let go of it) will not grow: it is not waited for.
TEST_F(SharedMemoryTest, CreateOrFindDoesNotWaitForAShortSegmentThatNobodyCreates) {
  SharedMemory::create(uniqueName("shmtScope"), 1, "", posix);
  const int fd = open(pathOf(name).c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  close(fd);
  er::test::LogCapture capture(channel + "=all");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(SharedMemory::createOrFind(name, 64, "", posix).isAttached());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(400));  // not the 500 ms patience
  EXPECT_EQ(capture.messages(),
            std::vector<std::string>{"createOrFind: " + userScope() + "/" + name + ": size 0 is smaller than 64"});
}

TEST_F(SharedMemoryTest, BadNamesAndSizesAreRefused) {
  er::test::LogCapture capture(channel + "=all");
  const std::string scope = userScope() + "/";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", ""},
      {".", "."},
      {"..", ".."},
      {"a/b", "a/b"},
      {std::string("a\0b", 3), "a\\x00b"},
      {std::string(256, 'x'), std::string(255, 'x') + "..."},
  };
  for (const auto& [badName, shown] : cases) {
    EXPECT_FALSE(SharedMemory::create(badName, 64, "", posix).isAttached());
    expectRefusal(capture, "create: " + scope + shown + ": invalid name");
    EXPECT_FALSE(SharedMemory::find(badName, 64, "", posix).isAttached());
    expectRefusal(capture, "find: " + scope + shown + ": invalid name");
    EXPECT_FALSE(SharedMemory::createOrFind(badName, 64, "", posix).isAttached());
    expectRefusal(capture, "createOrFind: " + scope + shown + ": invalid name");
  }
  EXPECT_FALSE(SharedMemory::create(name, 0, "", posix).isAttached());
  expectRefusal(capture, "create: " + pathOf(name) + ": size 0 is not allowed");
  EXPECT_FALSE(er::test::fileExists(pathOf(name)));

  const std::string longest = name + std::string(255 - name.size(), 'y');
  er::test::ShmCleanup longCleanup(userScope(), {longest});
  EXPECT_TRUE(SharedMemory::create(longest, 8, "", posix).isAttached());
}

TEST_F(SharedMemoryTest, UnknownTrusteeIsRefused) {
  er::test::LogCapture capture(channel + "=all");
  const std::string trustee = uniqueName("ertNoSuchGroup");
  EXPECT_FALSE(SharedMemory::create(name, 64, trustee, posix).isAttached());
  expectRefusal(capture, "create: \"" + name + "\" of trustee \"" + trustee + "\": unknown group");
  EXPECT_FALSE(SharedMemory::find(name, 64, trustee, posix).isAttached());
  expectRefusal(capture, "find: \"" + name + "\" of trustee \"" + trustee + "\": unknown group");
}

TEST_F(SharedMemoryTest, ReleaseRemovesTheCreatedNameOnly) {
  SharedMemory creator = SharedMemory::create(name, 64, "", posix);
  ASSERT_TRUE(creator.isAttached());
  {
    SharedMemory finder = SharedMemory::find(name, 64, "", posix);
    ASSERT_TRUE(finder.isAttached());
  }
  EXPECT_TRUE(er::test::fileExists(pathOf(name)));
  creator = SharedMemory();
  EXPECT_FALSE(creator.isAttached());
  EXPECT_FALSE(er::test::fileExists(pathOf(name)));
}

TEST_F(SharedMemoryTest, PersistentSegmentOutlivesItsCreator) {
  {
    SharedMemory creator = SharedMemory::create(name, 64, "", posix);
    ASSERT_TRUE(creator.isAttached());
    static_cast<char*>(creator.getPointer())[5] = 'p';
    creator.makePersistent();
  }
  SharedMemory finder = SharedMemory::find(name, 64, "", posix);
  ASSERT_TRUE(finder.isAttached());
  EXPECT_EQ(static_cast<char*>(finder.getPointer())[5], 'p');
}

TEST_F(SharedMemoryTest, MarkForDeletionRemovesTheNameAndKeepsTheMapping) {
  SharedMemory creator = SharedMemory::create(name, 64, "", posix);
  SharedMemory finder = SharedMemory::find(name, 64, "", posix);
  ASSERT_TRUE(finder.isAttached());
  finder.markForDeletion();
  EXPECT_FALSE(er::test::fileExists(pathOf(name)));
  EXPECT_TRUE(finder.isAttached());
  static_cast<char*>(finder.getPointer())[63] = 'z';
  EXPECT_EQ(static_cast<char*>(creator.getPointer())[63], 'z');
  SharedMemory successor = SharedMemory::create(name, 64, "", posix);
  ASSERT_TRUE(successor.isAttached());
  EXPECT_EQ(static_cast<char*>(successor.getPointer())[63], 0);
}

TEST_F(SharedMemoryTest, MarkForDeletionAlsoRemovesAPersistentSegment) {
  SharedMemory creator = SharedMemory::create(name, 64, "", posix);
  ASSERT_TRUE(creator.isAttached());
  creator.makePersistent();
  creator.markForDeletion();
  EXPECT_FALSE(er::test::fileExists(pathOf(name)));
}

TEST_F(SharedMemoryTest, ANewerSegmentUnderTheSameNameIsNeverRemoved) {
  SharedMemory old = SharedMemory::create(name, 64, "", posix);
  SharedMemory oldFinder = SharedMemory::find(name, 64, "", posix);
  ASSERT_TRUE(oldFinder.isAttached());
  ASSERT_EQ(unlink(pathOf(name).c_str()), 0);  // as by another process's markForDeletion
  SharedMemory newer = SharedMemory::create(name, 64, "", posix);
  ASSERT_TRUE(newer.isAttached());
  const ino_t newerInode = lstatOf(pathOf(name)).st_ino;
  oldFinder.markForDeletion();
  old = SharedMemory();
  ASSERT_TRUE(er::test::fileExists(pathOf(name)));
  EXPECT_EQ(lstatOf(pathOf(name)).st_ino, newerInode);
}

TEST_F(SharedMemoryTest, MoveTransfersTheSegment) {
  SharedMemory original = SharedMemory::create(name, 64, "", posix);
  void* address = original.getPointer();
  SharedMemory moved(std::move(original));
  EXPECT_FALSE(original.isAttached());
  EXPECT_FALSE(original.isCreator());
  EXPECT_EQ(original.getPointer(), nullptr);
  EXPECT_EQ(moved.getPointer(), address);
  EXPECT_TRUE(moved.isCreator());
  EXPECT_EQ(moved.getSize(), 64u);
  original = SharedMemory();  // releasing the moved-from handle removes nothing
  EXPECT_TRUE(er::test::fileExists(pathOf(name)));

  const std::string other = uniqueName("shmt");
  er::test::ShmCleanup otherCleanup(userScope(), {other});
  SharedMemory target = SharedMemory::create(other, 32, "", posix);
  ASSERT_TRUE(target.isAttached());
  target = std::move(moved);  // releases the target's own segment first
  EXPECT_FALSE(er::test::fileExists(pathOf(other)));
  EXPECT_FALSE(moved.isAttached());
  EXPECT_EQ(target.getPointer(), address);
  EXPECT_TRUE(target.isCreator());
  EXPECT_EQ(target.getTrustee(), "");
  target = SharedMemory();
  EXPECT_FALSE(er::test::fileExists(pathOf(name)));
}

TEST_F(SharedMemoryTest, DataIsSharedWithAForkedChild) {
  SharedMemory segment = SharedMemory::create(name, 64, "", posix);
  ASSERT_TRUE(segment.isAttached());
  std::memcpy(segment.getPointer(), "from parent", 12);
  er::test::ChildProcess child([&](er::test::ChildProcess& self) {
    SharedMemory found = SharedMemory::find(name, 64, "", posix);
    if (!found.isAttached() || found.isCreator()) return 1;
    if (std::strcmp(static_cast<const char*>(found.getPointer()), "from parent") != 0) return 2;
    std::memcpy(static_cast<char*>(found.getPointer()) + 32, "from child", 11);
    self.tellParent("written");
    return 0;
  });
  ASSERT_EQ(child.readFromChild(), "written");
  EXPECT_EQ(child.wait(), 0);
  EXPECT_STREQ(static_cast<const char*>(segment.getPointer()) + 32, "from child");
  EXPECT_TRUE(er::test::fileExists(pathOf(name)));
}

TEST_F(SharedMemoryTest, ConcurrentCreateOrFindMakesOneCreator) {
  constexpr int processes = 4;
  std::vector<std::unique_ptr<er::test::ChildProcess>> children;
  for (int i = 0; i < processes; ++i) {
    children.push_back(std::make_unique<er::test::ChildProcess>([&, i](er::test::ChildProcess& self) {
      if (self.readFromParent() != "go") return 1;
      SharedMemory segment = SharedMemory::createOrFind(name, 256, "", posix);
      if (!segment.isAttached()) return 2;
      static_cast<unsigned char*>(segment.getPointer())[i] = 1;
      self.tellParent(segment.isCreator() ? "creator" : "finder");
      return self.readFromParent() == "end" ? 0 : 3;
    }));
  }
  for (auto& child : children) child->tellChild("go");
  int creators = 0;
  for (auto& child : children) {
    const auto answer = child->readFromChild();
    ASSERT_TRUE(answer == "creator" || answer == "finder");
    creators += answer == "creator" ? 1 : 0;
  }
  EXPECT_EQ(creators, 1);
  const auto bytes = er::test::readBytes(pathOf(name));
  ASSERT_EQ(bytes.size(), 256u);
  for (int i = 0; i < processes; ++i) EXPECT_EQ(bytes[i], 1) << i;
  for (auto& child : children) child->tellChild("end");
  for (auto& child : children) EXPECT_EQ(child->wait(), 0);
  EXPECT_FALSE(er::test::fileExists(pathOf(name)));
}

TEST(CurrentUserName, IsTheEffectiveUsersName) {
  const passwd* entry = getpwuid(geteuid());
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(agent::spf::sharedmemory::getCurrentUserName(), entry->pw_name);
}

}  // namespace
