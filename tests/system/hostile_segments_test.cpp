// Objects planted in shared memory by other users, seen through Endpoint: a
// scope folder made in advance by another user or taken over by one, and
// segments with the wrong owner, group or mode. They are refused, never read
// or written; publishing that cannot proceed fails with a clear
// std::runtime_error, listing returns nothing from them, and the refusal is
// logged. Every test runs as root with forked children of temporary users.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <set>

#include <endpointregistry/endpoint.hpp>

#include "directory/segment_names.hpp"
#include "support/child_process.hpp"
#include "support/log_capture.hpp"
#include "support/shm_files.hpp"
#include "support/system_accounts.hpp"

namespace agent::spf::endpointregistry {
namespace {

using er::test::becomeUser;
using er::test::ChildProcess;
using er::test::filesIn;
using er::test::LogCapture;
using er::test::readBytes;
using er::test::TemporaryGroup;
using er::test::TemporaryUser;
using er::test::uniqueName;
using Pairs = std::vector<std::pair<std::string, std::string>>;
using namespace std::chrono_literals;

const std::string channels = "agent::spf::sharedmemory=all;agent::spf::endpointregistry=all";
const std::string registryBase = "qzEndpointRegistryv0";

std::string userFolder(uid_t uid) { return "/dev/shm/u" + std::to_string(uid); }

// Every file of a folder with its bytes, to show that nothing was written.
std::map<std::string, std::vector<unsigned char>> contentsOf(const std::string& folder) {
  std::map<std::string, std::vector<unsigned char>> contents;
  for (const std::string& file : filesIn(folder)) contents[file] = readBytes(folder + "/" + file);
  return contents;
}

// True when the captured records hold `message` at `level`.
bool logged(LogCapture& capture, unsigned level, const std::string& message) {
  const auto records = capture.records();
  return std::any_of(records.begin(), records.end(),
                     [&](const er::test::LogRecord& r) { return r.level == level && r.message == message; });
}

// Runs `body` in a child that has become `user` with the given groups; the
// body's expectations decide the exit code.
void runAs(const TemporaryUser& user, const std::vector<gid_t>& groups, const std::function<void()>& body) {
  const auto code = er::test::runInChild(
      [&](ChildProcess&) {
        if (!becomeUser(user.uid(), user.gid(), groups)) return 2;
        body();
        return ::testing::Test::HasFailure() ? 1 : 0;
      },
      60s);
  EXPECT_EQ(code, std::optional<int>(0));
}

// Expects `publish` to fail with the runtime error `text`.
void expectPublishingFails(const std::function<void()>& publish, const std::string& text) {
  try {
    publish();
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), text.c_str());
  }
}

// Removes a folder with everything in it when it goes, however the test ends.
struct FolderRemoval {
  explicit FolderRemoval(std::string path) : path(std::move(path)) {}
  ~FolderRemoval() { std::filesystem::remove_all(path); }
  FolderRemoval(const FolderRemoval&) = delete;
  FolderRemoval& operator=(const FolderRemoval&) = delete;
  std::string path;
};

const std::string recordCreationFailed = "System error: Endpoint::createSharedMemory: Failed to create shared memory";

class HostileSegmentsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!er::test::runningAsRoot()) GTEST_SKIP() << "needs root to make users and plant files";
    user = std::make_unique<TemporaryUser>();
    other = std::make_unique<TemporaryUser>();
    folder = userFolder(user->uid());
  }
  void TearDown() override {
    if (user) std::filesystem::remove_all(folder);
  }

  // A child of the user that publishes `data` under the tag and holds it
  // until it is killed.
  std::unique_ptr<ChildProcess> publisher(const std::pair<std::string, std::string>& data,
                                          const std::vector<gid_t>& groups = {},
                                          const std::set<std::string>& trustees = {}) {
    auto child = std::make_unique<ChildProcess>([=, this](ChildProcess& self) {
      if (!becomeUser(user->uid(), user->gid(), groups)) return 2;
      Endpoint endpoint(data, tag);
      endpoint.addTrustees(trustees);
      self.tellParent("published");
      self.readFromParent(120s);
      return 0;
    });
    EXPECT_EQ(child->readFromChild(), "published");
    return child;
  }

  std::string tag = uniqueName("hostileTag");
  std::unique_ptr<TemporaryUser> user;
  std::unique_ptr<TemporaryUser> other;
  std::string folder;
};

TEST_F(HostileSegmentsTest, ScopeFolderMadeInAdvanceByAnotherUserIsRefused) {
  runAs(*other, {}, [&] {
    ASSERT_EQ(mkdir(folder.c_str(), 0777), 0);
    ASSERT_EQ(chmod(folder.c_str(), 0777), 0);
  });
  runAs(*user, {}, [&] {
    LogCapture capture(channels);
    expectPublishingFails([&] { Endpoint endpoint({"planted", "folder"}, tag); }, recordCreationFailed);
    EXPECT_TRUE(Endpoint::listFromLocal().empty());
    EXPECT_TRUE(Endpoint::listFromAllTrustees().empty());
    const std::string refusal =
        ": scope folder owner " + std::to_string(other->uid()) + " is not " + std::to_string(user->uid());
    EXPECT_TRUE(logged(capture, 256, "find: " + folder + "/" + registryBase + refusal));
    const std::string record = recordName({"planted", "folder"}, tag, 0, "");
    EXPECT_TRUE(logged(capture, 256, "create: " + folder + "/" + record + refusal));
    EXPECT_TRUE(logged(capture, 512, "Endpoint::createSharedMemory Failed to create the shared memory"));
  });
  struct stat st {};
  ASSERT_EQ(lstat(folder.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, other->uid());
  EXPECT_TRUE(filesIn(folder).empty());
}

// The user's own registry, left by a publisher that was killed, in a folder
// that then passes to another owner or gains access for others: a listing
// would clear the dead record away, but it neither reads nor writes a thing.
TEST_F(HostileSegmentsTest, ScopeFolderTakenOverIsNeitherReadNorWritten) {
  publisher({"dead", "publisher"})->kill();
  const auto before = contentsOf(folder);
  ASSERT_EQ(before.size(), 3u);  // the directory's base and container, the record
  for (const auto& [owner, mode] : {std::pair{other->uid(), 0777u}, std::pair{user->uid(), 0770u}}) {
    ASSERT_EQ(chown(folder.c_str(), owner, user->gid()), 0);
    ASSERT_EQ(chmod(folder.c_str(), mode), 0);
    runAs(*user, {}, [&] {
      EXPECT_TRUE(Endpoint::filterFromLocal(tag).empty());
      expectPublishingFails([&] { Endpoint endpoint({"another", "one"}, tag); }, recordCreationFailed);
    });
    EXPECT_EQ(contentsOf(folder), before) << owner << " " << std::oct << mode;
  }
  // Given back to the user, the same listing clears the dead record away.
  ASSERT_EQ(chown(folder.c_str(), user->uid(), user->gid()), 0);
  ASSERT_EQ(chmod(folder.c_str(), 0700), 0);
  runAs(*user, {}, [&] { EXPECT_TRUE(Endpoint::filterFromLocal(tag).empty()); });
  EXPECT_TRUE(filesIn(folder, groupPrefix(tag)).empty());
}

TEST_F(HostileSegmentsTest, DirectoryBaseOfAnotherOwnerOrWithExtraModeBitsIsRefused) {
  const std::string base = folder + "/" + registryBase;
  runAs(*user, {}, [&] { Endpoint endpoint({"make", "folder"}, tag); });  // leaves the folder and a directory
  // Readable and writable by the user, so that only the library's check refuses them.
  for (const auto& [owner, mode] : {std::pair{uid_t{0}, 0666u}, std::pair{user->uid(), 0640u}}) {
    std::filesystem::remove(base);
    {
      std::FILE* planted = std::fopen(base.c_str(), "w");
      ASSERT_NE(planted, nullptr);
      std::fclose(planted);
    }
    ASSERT_EQ(truncate(base.c_str(), 96), 0);
    ASSERT_EQ(chown(base.c_str(), owner, user->gid()), 0);
    ASSERT_EQ(chmod(base.c_str(), mode), 0);
    runAs(*user, {}, [&] {
      LogCapture capture(channels);
      expectPublishingFails(
          [&] {
            Endpoint endpoint({"base", "refused"}, tag);
          },
          "System error: Endpoint::NamedStringArray::insert: Base shared memory could not be opened");
      EXPECT_TRUE(Endpoint::listFromLocal().empty());
      EXPECT_TRUE(logged(capture, 512, "NamedStringArray::insert(): Base shared memory could not be opened."));
      const std::string reason =
          owner == 0 ? "owner 0 is not " + std::to_string(user->uid()) : "mode 0640 exceeds 0600";
      EXPECT_TRUE(logged(capture, 256, "find: " + base + ": " + reason)) << reason;
    });
    // The record made before the directory refused its name went with the failure.
    EXPECT_TRUE(filesIn(folder, groupPrefix(tag)).empty());
    EXPECT_EQ(readBytes(base), std::vector<unsigned char>(96, 0));
  }
}

// A segment of another owner planted under the very name the user's record
// is about to take: it is neither read nor reclaimed, and the publication
// fails with the creation error.
TEST_F(HostileSegmentsTest, SegmentOfAnotherOwnerUnderTheRecordsNameMakesPublishingFail) {
  runAs(*user, {}, [&] { Endpoint endpoint({"make", "folder"}, tag); });
  ChildProcess child([&](ChildProcess& self) {
    if (!becomeUser(user->uid(), user->gid(), {})) return 2;
    self.tellParent(recordName({"taken", "name"}, tag, 0, ""));
    if (self.readFromParent() != "planted") return 3;
    LogCapture capture(channels);
    expectPublishingFails([&] { Endpoint endpoint({"taken", "name"}, tag); }, recordCreationFailed);
    const std::string path = folder + "/" + recordName({"taken", "name"}, tag, 0, "");
    EXPECT_TRUE(
        logged(capture, 256,
               "find: " + path + ": owner " + std::to_string(other->uid()) + " is not " + std::to_string(user->uid())));
    EXPECT_TRUE(logged(capture, 256, "create: " + path + ": exists already"));
    return ::testing::Test::HasFailure() ? 1 : 0;
  });
  const auto name = child.readFromChild();
  ASSERT_TRUE(name);
  const std::string path = folder + "/" + *name;
  {
    std::FILE* planted = std::fopen(path.c_str(), "w");
    ASSERT_NE(planted, nullptr);
    std::fputs("planted by another user", planted);
    std::fclose(planted);
  }
  ASSERT_EQ(chown(path.c_str(), other->uid(), other->gid()), 0);
  ASSERT_EQ(chmod(path.c_str(), 0666), 0);  // open to the user, so that only the library's check refuses it
  const auto before = readBytes(path);
  child.tellChild("planted");
  EXPECT_EQ(child.wait(60s), 0);
  EXPECT_EQ(readBytes(path), before);
}

// A live record whose segment gains mode bits for others, or passes to
// another owner, is left out of the listing and left alone.
TEST_F(HostileSegmentsTest, RecordOfAnotherOwnerOrWithExtraModeBitsIsLeftOut) {
  auto live = publisher({"live", "record"});
  const auto records = filesIn(folder, groupPrefix(tag));
  ASSERT_EQ(records.size(), 1u);
  const std::string withPid = folder + "/" + *records.begin();
  runAs(*user, {}, [&] { EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"live", "record"}})); });
  for (const auto& [owner, mode] : {std::pair{user->uid(), 0644u}, std::pair{other->uid(), 0666u}}) {
    ASSERT_EQ(chown(withPid.c_str(), owner, user->gid()), 0);
    ASSERT_EQ(chmod(withPid.c_str(), mode), 0);
    const auto bytes = readBytes(withPid);
    runAs(*user, {}, [&] {
      LogCapture capture(channels);
      EXPECT_TRUE(Endpoint::filterFromLocal(tag).empty());
      const std::string reason = owner == user->uid()
                                     ? "mode 0644 exceeds 0600"
                                     : "owner " + std::to_string(owner) + " is not " + std::to_string(user->uid());
      EXPECT_TRUE(logged(capture, 256, "find: " + withPid + ": " + reason)) << reason;
    });
    EXPECT_EQ(readBytes(withPid), bytes);
  }
  ASSERT_EQ(chown(withPid.c_str(), user->uid(), user->gid()), 0);
  ASSERT_EQ(chmod(withPid.c_str(), 0600), 0);
  runAs(*user, {}, [&] { EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"live", "record"}})); });
}

// A group's scope folder made in advance by a user outside the group: the
// trustee record cannot be made (the own record stays published, as nothing
// is rolled back), and members list nothing from that folder.
TEST_F(HostileSegmentsTest, GroupScopeFolderOfAnOutsiderIsRefused) {
  TemporaryUser member;
  TemporaryGroup group({user->name(), member.name()});
  const std::string groupFolder = er::test::groupScope(group.gid());
  FolderRemoval groupFolderRemoval(groupFolder);
  FolderRemoval memberFolderRemoval(userFolder(member.uid()));
  runAs(*other, {}, [&] {
    ASSERT_EQ(mkdir(groupFolder.c_str(), 0777), 0);
    ASSERT_EQ(chmod(groupFolder.c_str(), 02777), 0);
  });
  runAs(*user, {group.gid()}, [&] {
    LogCapture capture(channels);
    Endpoint endpoint({"group", "refused"}, tag);
    expectPublishingFails([&] { endpoint.addTrustees({group.name()}); }, recordCreationFailed);
    EXPECT_EQ(endpoint.getTrustees(), std::set<std::string>{});
    EXPECT_EQ(Endpoint::filterFromAllTrustees(tag), (Pairs{{"group", "refused"}}));
    const std::string record = recordName({"group", "refused"}, tag, 0, group.name());
    EXPECT_TRUE(logged(capture, 256,
                       "create: " + groupFolder + "/" + record + ": scope folder group " +
                           std::to_string(other->gid()) + " is not " + std::to_string(group.gid())));
  });
  runAs(member, {group.gid()}, [&] { EXPECT_TRUE(Endpoint::filterFromAllTrustees(tag).empty()); });
  EXPECT_TRUE(filesIn(groupFolder).empty());
}

// A member's record in the group's folder that passes to another group is
// left out of other members' listings.
TEST_F(HostileSegmentsTest, GroupRecordOfAnotherGroupIsLeftOut) {
  TemporaryUser member;
  TemporaryGroup group({user->name(), member.name()});
  TemporaryGroup stranger;
  const std::string groupFolder = er::test::groupScope(group.gid());
  FolderRemoval groupFolderRemoval(groupFolder);
  FolderRemoval memberFolderRemoval(userFolder(member.uid()));
  auto live = publisher({"shared", "record"}, {group.gid()}, {group.name()});
  runAs(member, {group.gid()}, [&] { EXPECT_EQ(Endpoint::filterFromAllTrustees(tag), (Pairs{{"shared", "record"}})); });
  const auto records = filesIn(groupFolder, groupPrefix(tag));
  ASSERT_EQ(records.size(), 1u);
  const std::string path = groupFolder + "/" + *records.begin();
  ASSERT_EQ(chown(path.c_str(), user->uid(), stranger.gid()), 0);
  ASSERT_EQ(chmod(path.c_str(), 0666), 0);  // open to the member, so that only the library's check refuses it
  const auto bytes = readBytes(path);
  runAs(member, {group.gid()}, [&] {
    LogCapture capture(channels);
    EXPECT_TRUE(Endpoint::filterFromAllTrustees(tag).empty());
    EXPECT_TRUE(logged(
        capture, 256,
        "find: " + path + ": group " + std::to_string(stranger.gid()) + " is not " + std::to_string(group.gid())));
  });
  EXPECT_EQ(readBytes(path), bytes);
  live.reset();
}

}  // namespace
}  // namespace agent::spf::endpointregistry
