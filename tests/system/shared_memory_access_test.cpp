// Who may open a segment: scope folders of users and groups, owners, groups
// and modes of folders and segments, planted files of the wrong kind, and
// processes of other users inside and outside a trustee group.
#include <agent/spf/sharedmemory/accounts.hpp>
#include <agent/spf/sharedmemory/shared_memory.hpp>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <vector>

#include "support/child_process.hpp"
#include "support/log_capture.hpp"
#include "support/shm_files.hpp"
#include "support/system_accounts.hpp"

namespace {

using agent::spf::sharedmemory::SharedMemory;
using er::test::uniqueName;

constexpr auto posix = SharedMemory::ImplementationSpecifications::PosixSharedMemory;
const std::string channel = "agent::spf::sharedmemory";

#define REQUIRE_ROOT() \
  if (!er::test::runningAsRoot()) GTEST_SKIP() << "needs root"

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

// Removes a scope folder (or whatever was planted in its place) with its files.
class FolderCleanup {
 public:
  explicit FolderCleanup(std::string path) : path_(std::move(path)) {}
  ~FolderCleanup() {
    for (const auto& file : er::test::filesIn(path_)) std::remove((path_ + "/" + file).c_str());
    if (rmdir(path_.c_str()) != 0) unlink(path_.c_str());
  }
  FolderCleanup(const FolderCleanup&) = delete;
  FolderCleanup& operator=(const FolderCleanup&) = delete;

 private:
  std::string path_;
};

// Plants a regular file of `size` bytes with the given owner, group and mode.
void plantFile(const std::string& path, off_t size, uid_t owner, gid_t group, mode_t mode) {
  const int fd = open(path.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0) << path;
  EXPECT_EQ(ftruncate(fd, size), 0);
  EXPECT_EQ(fchown(fd, owner, group), 0);
  EXPECT_EQ(fchmod(fd, mode), 0);
  close(fd);
}

void plantFolder(const std::string& path, uid_t owner, gid_t group, mode_t mode) {
  ASSERT_EQ(mkdir(path.c_str(), 0700), 0) << path;
  ASSERT_EQ(chown(path.c_str(), owner, group), 0);
  ASSERT_EQ(chmod(path.c_str(), mode), 0);
}

class SharedMemoryAccessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Makes sure the user's scope folder exists.
    SharedMemory::create(uniqueName("shmaScope"), 1, "", posix);
  }
  std::string inUserScope(const std::string& file) const { return er::test::userScope() + "/" + file; }

  const std::string name = uniqueName("shma");
  er::test::ShmCleanup cleanup{er::test::userScope(), {name}};
};

TEST_F(SharedMemoryAccessTest, GroupScopeFolderAndSegmentsBelongToTheGroup) {
  REQUIRE_ROOT();
  er::test::TemporaryGroup group;
  const std::string scope = er::test::groupScope(group.gid());
  FolderCleanup folderCleanup(scope);
  SharedMemory segment = SharedMemory::create(name, 64, group.name(), posix);
  ASSERT_TRUE(segment.isAttached());
  EXPECT_EQ(segment.getTrustee(), group.name());
  const struct stat folder = lstatOf(scope);
  EXPECT_TRUE(S_ISDIR(folder.st_mode));
  EXPECT_EQ(folder.st_mode & 07777, 02770u);
  EXPECT_EQ(folder.st_gid, group.gid());
  const struct stat file = lstatOf(scope + "/" + name);
  EXPECT_EQ(file.st_mode & 07777, 0660u);
  EXPECT_EQ(file.st_gid, group.gid());
  EXPECT_EQ(file.st_size, 64);

  SharedMemory found = SharedMemory::find(name, 64, group.name(), posix);
  ASSERT_TRUE(found.isAttached());
  EXPECT_EQ(found.getTrustee(), group.name());
  EXPECT_FALSE(SharedMemory::find(name, 64, "", posix).isAttached());
  segment = SharedMemory();
  EXPECT_FALSE(er::test::fileExists(scope + "/" + name));
}

TEST_F(SharedMemoryAccessTest, UserScopeFolderOfAnotherUserIsMadePrivate) {
  REQUIRE_ROOT();
  er::test::TemporaryUser user;
  const std::string scope = "/dev/shm/u" + std::to_string(user.uid());
  FolderCleanup folderCleanup(scope);
  const auto code = er::test::runInChild([&](er::test::ChildProcess&) {
    if (!er::test::becomeUser(user.uid(), user.gid(), {})) return 1;
    if (agent::spf::sharedmemory::getCurrentUserName() != user.name()) return 2;
    SharedMemory segment = SharedMemory::create(name, 64, "", posix);
    if (!segment.isAttached()) return 3;
    segment.makePersistent();
    return 0;
  });
  ASSERT_EQ(code, 0);
  const struct stat folder = lstatOf(scope);
  EXPECT_TRUE(S_ISDIR(folder.st_mode));
  EXPECT_EQ(folder.st_mode & 07777, 0700u);
  EXPECT_EQ(folder.st_uid, user.uid());
  const struct stat file = lstatOf(scope + "/" + name);
  EXPECT_EQ(file.st_mode & 07777, 0600u);
  EXPECT_EQ(file.st_uid, user.uid());
}

TEST_F(SharedMemoryAccessTest, SegmentOfAnotherOwnerIsRefused) {
  REQUIRE_ROOT();
  plantFile(inUserScope(name), 64, 65534, 65534, 0600);
  er::test::LogCapture capture(channel + "=all");
  EXPECT_FALSE(SharedMemory::find(name, 64, "", posix).isAttached());
  expectRefusal(capture, "find: " + inUserScope(name) + ": owner 65534 is not 0");
  EXPECT_FALSE(SharedMemory::createOrFind(name, 64, "", posix).isAttached());
  expectRefusal(capture, "createOrFind: " + inUserScope(name) + ": owner 65534 is not 0");
  EXPECT_EQ(lstatOf(inUserScope(name)).st_uid, 65534u);
}

TEST_F(SharedMemoryAccessTest, SegmentWithExtraModeBitsIsRefused) {
  SharedMemory creator = SharedMemory::create(name, 64, "", posix);
  ASSERT_TRUE(creator.isAttached());
  er::test::LogCapture capture(channel + "=all");
  const std::vector<std::pair<mode_t, std::string>> modes = {{0640, "0640"}, {0602, "0602"}, {04600, "04600"}};
  for (const auto& [mode, text] : modes) {
    ASSERT_EQ(chmod(inUserScope(name).c_str(), mode), 0);
    EXPECT_FALSE(SharedMemory::find(name, 64, "", posix).isAttached()) << text;
    expectRefusal(capture, "find: " + inUserScope(name) + ": mode " + text + " exceeds 0600");
  }
  ASSERT_EQ(chmod(inUserScope(name).c_str(), 0400), 0);  // fewer bits are fine
  EXPECT_TRUE(SharedMemory::find(name, 64, "", posix).isAttached());
}

TEST_F(SharedMemoryAccessTest, GroupSegmentOfAnotherGroupOrWithExtraBitsIsRefused) {
  REQUIRE_ROOT();
  er::test::TemporaryGroup group;
  const std::string scope = er::test::groupScope(group.gid());
  FolderCleanup folderCleanup(scope);
  SharedMemory segment = SharedMemory::create(name, 64, group.name(), posix);
  ASSERT_TRUE(segment.isAttached());
  const std::string path = scope + "/" + name;
  er::test::LogCapture capture(channel + "=all");
  ASSERT_EQ(chmod(path.c_str(), 0664), 0);
  EXPECT_FALSE(SharedMemory::find(name, 64, group.name(), posix).isAttached());
  expectRefusal(capture, "find: " + path + ": mode 0664 exceeds 0660");
  ASSERT_EQ(chmod(path.c_str(), 0660), 0);
  ASSERT_EQ(chown(path.c_str(), 0, 0), 0);
  EXPECT_FALSE(SharedMemory::find(name, 64, group.name(), posix).isAttached());
  expectRefusal(capture, "find: " + path + ": group 0 is not " + std::to_string(group.gid()));
}

TEST_F(SharedMemoryAccessTest, FilesOfOtherKindsAreRefused) {
  er::test::LogCapture capture(channel + "=all");
  ASSERT_EQ(mkdir(inUserScope(name).c_str(), 0700), 0);
  EXPECT_FALSE(SharedMemory::find(name, 64, "", posix).isAttached());
  expectRefusal(capture, "find: " + inUserScope(name) + ": not a regular file");
  ASSERT_EQ(rmdir(inUserScope(name).c_str()), 0);

  ASSERT_EQ(mkfifo(inUserScope(name).c_str(), 0600), 0);
  EXPECT_FALSE(SharedMemory::createOrFind(name, 64, "", posix).isAttached());
  expectRefusal(capture, "createOrFind: " + inUserScope(name) + ": not a regular file");
  ASSERT_EQ(unlink(inUserScope(name).c_str()), 0);

  const std::string target = name + "target";
  SharedMemory real = SharedMemory::create(target, 64, "", posix);
  ASSERT_TRUE(real.isAttached());
  capture.clear();
  ASSERT_EQ(symlink(target.c_str(), inUserScope(name).c_str()), 0);
  EXPECT_FALSE(SharedMemory::find(name, 64, "", posix).isAttached());
  expectRefusal(capture, "find: " + inUserScope(name) + ": is a symbolic link");
  EXPECT_FALSE(SharedMemory::create(name, 64, "", posix).isAttached());
  expectRefusal(capture, "create: " + inUserScope(name) + ": exists already");
}

TEST_F(SharedMemoryAccessTest, PlantedGroupScopeFoldersAreRefused) {
  REQUIRE_ROOT();
  er::test::TemporaryGroup group;
  const std::string scope = er::test::groupScope(group.gid());
  const std::string gid = std::to_string(group.gid());
  er::test::LogCapture capture(channel + "=all");
  {
    FolderCleanup folderCleanup(scope);
    plantFolder(scope, 0, 0, 02770);
    EXPECT_FALSE(SharedMemory::find(name, 64, group.name(), posix).isAttached());
    expectRefusal(capture, "find: " + scope + "/" + name + ": scope folder group 0 is not " + gid);
    EXPECT_FALSE(SharedMemory::create(name, 64, group.name(), posix).isAttached());
    expectRefusal(capture, "create: " + scope + "/" + name + ": scope folder group 0 is not " + gid);
    EXPECT_TRUE(er::test::filesIn(scope).empty());
  }
  {
    FolderCleanup folderCleanup(scope);
    plantFolder(scope, 0, group.gid(), 02775);
    EXPECT_FALSE(SharedMemory::createOrFind(name, 64, group.name(), posix).isAttached());
    expectRefusal(capture, "createOrFind: " + scope + "/" + name + ": scope folder mode 02775 grants access to others");
    EXPECT_TRUE(er::test::filesIn(scope).empty());
  }
  {
    const std::string real = scope + "real";
    FolderCleanup realCleanup(real);
    plantFolder(real, 0, group.gid(), 02770);
    FolderCleanup folderCleanup(scope);
    ASSERT_EQ(symlink(real.c_str(), scope.c_str()), 0);
    EXPECT_FALSE(SharedMemory::create(name, 64, group.name(), posix).isAttached());
    expectRefusal(capture, "create: " + scope + "/" + name + ": scope folder is not a folder");
    EXPECT_TRUE(er::test::filesIn(real).empty());
  }
  EXPECT_FALSE(SharedMemory::find(name, 64, group.name(), posix).isAttached());
  expectRefusal(capture, "find: " + scope + "/" + name + ": scope folder not found");
  EXPECT_FALSE(er::test::fileExists(scope));  // find never makes a folder
}

TEST_F(SharedMemoryAccessTest, PlantedUserScopeFoldersAreRefused) {
  REQUIRE_ROOT();
  er::test::TemporaryUser user;
  const std::string scope = "/dev/shm/u" + std::to_string(user.uid());
  const std::vector<std::pair<uid_t, mode_t>> planted = {{0, 0700}, {user.uid(), 0770}, {user.uid(), 0701}};
  for (const auto& [owner, mode] : planted) {
    FolderCleanup folderCleanup(scope);
    plantFolder(scope, owner, user.gid(), mode);
    const auto code = er::test::runInChild([&](er::test::ChildProcess&) {
      if (!er::test::becomeUser(user.uid(), user.gid(), {})) return 1;
      if (SharedMemory::create(name, 64, "", posix).isAttached()) return 2;
      if (SharedMemory::createOrFind(name, 64, "", posix).isAttached()) return 3;
      return SharedMemory::find(name, 64, "", posix).isAttached() ? 4 : 0;
    });
    EXPECT_EQ(code, 0) << owner << " " << std::oct << mode;
    EXPECT_TRUE(er::test::filesIn(scope).empty());
  }
}

TEST_F(SharedMemoryAccessTest, GroupMembersShareAndRemoveEachOthersSegments) {
  REQUIRE_ROOT();
  er::test::TemporaryUser first;
  er::test::TemporaryUser second;
  er::test::TemporaryGroup group({first.name(), second.name()});
  const std::string scope = er::test::groupScope(group.gid());
  FolderCleanup folderCleanup(scope);
  const auto created = er::test::runInChild([&](er::test::ChildProcess&) {
    if (!er::test::becomeUser(first.uid(), first.gid(), {group.gid()})) return 1;
    SharedMemory segment = SharedMemory::createOrFind(name, 64, group.name(), posix);
    if (!segment.isAttached() || !segment.isCreator()) return 2;
    std::memcpy(segment.getPointer(), "from first", 11);
    segment.makePersistent();
    return 0;
  });
  ASSERT_EQ(created, 0);
  const struct stat folder = lstatOf(scope);
  EXPECT_EQ(folder.st_uid, first.uid());
  EXPECT_EQ(folder.st_gid, group.gid());
  EXPECT_EQ(folder.st_mode & 07777, 02770u);
  EXPECT_EQ(lstatOf(scope + "/" + name).st_uid, first.uid());

  const auto removed = er::test::runInChild([&](er::test::ChildProcess&) {
    if (!er::test::becomeUser(second.uid(), second.gid(), {group.gid()})) return 1;
    SharedMemory segment = SharedMemory::find(name, 64, group.name(), posix);
    if (!segment.isAttached() || segment.isCreator()) return 2;
    if (std::strcmp(static_cast<const char*>(segment.getPointer()), "from first") != 0) return 3;
    segment.markForDeletion();
    return 0;
  });
  EXPECT_EQ(removed, 0);
  EXPECT_FALSE(er::test::fileExists(scope + "/" + name));
}

TEST_F(SharedMemoryAccessTest, NonMemberCannotOpenGroupOrOtherUsersSegments) {
  REQUIRE_ROOT();
  er::test::TemporaryUser outsider;
  er::test::TemporaryGroup group;
  const std::string scope = er::test::groupScope(group.gid());
  FolderCleanup folderCleanup(scope);
  SharedMemory groupSegment = SharedMemory::create(name, 64, group.name(), posix);
  SharedMemory userSegment = SharedMemory::create(name, 64, "", posix);
  ASSERT_TRUE(groupSegment.isAttached());
  ASSERT_TRUE(userSegment.isAttached());
  const std::string rootsPath = inUserScope(name);
  const auto code = er::test::runInChild([&](er::test::ChildProcess&) {
    if (!er::test::becomeUser(outsider.uid(), outsider.gid(), {})) return 1;
    if (SharedMemory::find(name, 64, group.name(), posix).isAttached()) return 2;
    if (SharedMemory::createOrFind(name, 64, group.name(), posix).isAttached()) return 3;
    if (SharedMemory::find(name, 64, "", posix).isAttached()) return 4;
    if (open(rootsPath.c_str(), O_RDWR) >= 0 || errno != EACCES) return 5;
    if (open((scope + "/" + name).c_str(), O_RDWR) >= 0 || errno != EACCES) return 6;
    return 0;
  });
  EXPECT_EQ(code, 0);
  EXPECT_FALSE(er::test::fileExists("/dev/shm/u" + std::to_string(outsider.uid())));
  EXPECT_EQ(er::test::filesIn(scope), std::set<std::string>{name});
}

TEST_F(SharedMemoryAccessTest, NonMemberCannotMakeAGroupScopeFolder) {
  REQUIRE_ROOT();
  er::test::TemporaryUser outsider;
  er::test::TemporaryGroup group;
  const std::string scope = er::test::groupScope(group.gid());
  FolderCleanup folderCleanup(scope);
  const auto code = er::test::runInChild([&](er::test::ChildProcess&) {
    if (!er::test::becomeUser(outsider.uid(), outsider.gid(), {})) return 1;
    return SharedMemory::create(name, 64, group.name(), posix).isAttached() ? 2 : 0;
  });
  EXPECT_EQ(code, 0);
  EXPECT_FALSE(er::test::fileExists(scope));
}

}  // namespace
