// Directories of a group trustee: where their segments live, who may open
// them, and members of one group sharing one directory. Needs root (it makes
// temporary users and groups).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "diagnostics/diagnostics.hpp"
#include "support/child_process.hpp"
#include "support/directory_test_support.hpp"
#include "support/system_accounts.hpp"
#include "support/text.hpp"

namespace er::test {
namespace {

using agent::spf::endpointregistry::registryDirectoryName;

// Removes the files of a group's scope folder and the folder itself.
class GroupScopeCleanup {
 public:
  explicit GroupScopeCleanup(gid_t gid) : scope(groupScope(gid)) {}
  ~GroupScopeCleanup() {
    for (const std::string& name : filesIn(scope)) std::remove((scope + "/" + name).c_str());
    rmdir(scope.c_str());
  }
  GroupScopeCleanup(const GroupScopeCleanup&) = delete;
  GroupScopeCleanup& operator=(const GroupScopeCleanup&) = delete;

  const std::string scope;
};

std::set<std::string> registryFiles(std::initializer_list<const char*> containers) {
  std::set<std::string> names{registryDirectoryName + "v0"};
  for (const char* number : containers) names.insert(registryDirectoryName + "v0" + number);
  return names;
}

TEST(NamedStringArrayGroupTest, GroupDirectoryIsSharedWithTheGroupOnly) {
  if (!runningAsRoot()) GTEST_SKIP() << "needs root for temporary groups and users";
  TemporaryGroup group;
  GroupScopeCleanup cleanup(group.gid());
  TemporaryUser outsider;
  NamedStringArray array(registryDirectoryName, 0, group.name());
  array.insert("x");

  EXPECT_EQ(filesIn(cleanup.scope), registryFiles({"2"}));
  for (const std::string& name : registryFiles({"2"})) {
    struct stat st {};
    ASSERT_EQ(stat((cleanup.scope + "/" + name).c_str(), &st), 0) << name;
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0660u) << name;
    EXPECT_EQ(st.st_gid, group.gid()) << name;
  }
  EXPECT_EQ(array.listEntries(""), (std::vector<Entry>{{"x"}}));

  const std::string basePath = cleanup.scope + "/" + registryDirectoryName + "v0";
  const auto outsiderRun = runInChild([&](ChildProcess&) {
    if (!becomeUser(outsider.uid(), outsider.gid(), {})) return 2;
    const int fd = open(basePath.c_str(), O_RDONLY);
    if (fd >= 0) return 3;
    if (errno != EACCES) return 4;
    if (!NamedStringArray(registryDirectoryName, 0, group.name()).listEntries("").empty()) return 5;
    return 0;
  });
  EXPECT_EQ(outsiderRun, 0);
}

TEST(NamedStringArrayGroupTest, EachMemberRemovesThePreviousContainerWhoeverMadeIt) {
  if (!runningAsRoot()) GTEST_SKIP() << "needs root for temporary groups and users";
  TemporaryUser first;
  TemporaryUser second;
  TemporaryGroup group({first.name(), second.name()});
  GroupScopeCleanup cleanup(group.gid());

  const auto as = [&](const TemporaryUser& user, const std::function<void(NamedStringArray&)>& work) {
    return runInChild([&](ChildProcess&) {
      if (!becomeUser(user.uid(), user.gid(), {group.gid()})) return 2;
      NamedStringArray array(registryDirectoryName, 0, group.name());
      work(array);
      return 0;
    });
  };
  const auto ownerOf = [&](const char* number) {
    struct stat st {};
    return stat((cleanup.scope + "/" + registryDirectoryName + "v0" + number).c_str(), &st) == 0 ? st.st_uid
                                                                                                 : uid_t(-1);
  };
  NamedStringArray observer(registryDirectoryName, 0, group.name());

  ASSERT_EQ(as(first, [](NamedStringArray& array) { array.insert("a"); }), 0);
  EXPECT_EQ(filesIn(cleanup.scope), registryFiles({"2"}));
  EXPECT_EQ(ownerOf("2"), first.uid());

  ASSERT_EQ(as(second,
               [](NamedStringArray& array) {
                 for (int i = 0; i < 10; ++i) array.insert(er::test::concat("b", std::to_string(i)));
               }),
            0);
  EXPECT_EQ(filesIn(cleanup.scope), registryFiles({"3"}));  // 11 entries: 20 rows
  EXPECT_EQ(ownerOf("3"), second.uid());

  ASSERT_EQ(as(first, [](NamedStringArray& array) { array.erase("a"); }), 0);
  EXPECT_EQ(filesIn(cleanup.scope), registryFiles({"4"}));  // 10 entries: 10 rows
  EXPECT_EQ(ownerOf("4"), first.uid());
  EXPECT_EQ(observer.listEntries("").size(), 10u);

  ASSERT_EQ(as(second,
               [](NamedStringArray& array) {
                 for (int i = 0; i < 10; ++i) array.erase(er::test::concat("b", std::to_string(i)));
               }),
            0);
  EXPECT_EQ(filesIn(cleanup.scope), registryFiles({"5"}));
  EXPECT_EQ(ownerOf("5"), second.uid());
  EXPECT_TRUE(observer.listEntries("").empty());
}

}  // namespace
}  // namespace er::test
