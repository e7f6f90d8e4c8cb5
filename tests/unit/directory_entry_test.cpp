// The registry's use of the name directory: DirectoryEntry, eraseDirectoryName
// and listDirectoryNames on the directory "qzEndpointRegistry" of a trustee.
// The tests use a temporary group as trustee, so that the directory is theirs
// alone; that needs root.
#include <gtest/gtest.h>
#include <unistd.h>
#include <string>
#include <vector>

#include "diagnostics/diagnostics.hpp"
#include "directory/directory_entry.hpp"
#include "support/directory_test_support.hpp"
#include "support/log_capture.hpp"
#include "support/system_accounts.hpp"

namespace er::test {
namespace {

using agent::spf::endpointregistry::DirectoryEntry;
using agent::spf::endpointregistry::eraseDirectoryName;
using agent::spf::endpointregistry::listDirectoryNames;
using agent::spf::endpointregistry::registryDirectoryName;

// A temporary group whose scope folder and segments go with it.
class TrusteeGroup {
 public:
  TrusteeGroup() : scope(groupScope(group.gid())) {}
  ~TrusteeGroup() {
    for (const std::string& name : filesIn(scope)) std::remove((scope + "/" + name).c_str());
    rmdir(scope.c_str());
  }
  TrusteeGroup(const TrusteeGroup&) = delete;
  TrusteeGroup& operator=(const TrusteeGroup&) = delete;

  const std::string& name() const { return group.name(); }

  TemporaryGroup group;
  const std::string scope;
};

TEST(DirectoryEntryTest, RegistryDirectoryNameIsFixed) { EXPECT_EQ(registryDirectoryName, "qzEndpointRegistry"); }

TEST(DirectoryEntryTest, InsertsOnConstructionAndErasesOnDestruction) {
  if (!runningAsRoot()) GTEST_SKIP() << "needs root for a temporary group";
  TrusteeGroup trustee;
  {
    DirectoryEntry entry("qzERabcl1p2v0", trustee.name());
    EXPECT_EQ(listDirectoryNames("qzER", trustee.name()), std::vector<std::string>{"qzERabcl1p2v0"});
    EXPECT_EQ(NamedStringArray(registryDirectoryName, 0, trustee.name()).listEntries(""),
              (std::vector<Entry>{{"qzERabcl1p2v0"}}));
    EXPECT_EQ(filesIn(trustee.scope), (std::set<std::string>{"qzEndpointRegistryv0", "qzEndpointRegistryv02"}));
    EXPECT_EQ(rowOf(readBytes(trustee.scope + "/qzEndpointRegistryv02"), 16, 0),
              std::string("\x01qzERabcl1p2v0\0\0", 16));
  }
  EXPECT_TRUE(listDirectoryNames("", trustee.name()).empty());
  EXPECT_EQ(filesIn(trustee.scope), (std::set<std::string>{"qzEndpointRegistryv0", "qzEndpointRegistryv03"}));
}

TEST(DirectoryEntryTest, ListDirectoryNamesKeepsOneStringEntriesInOrder) {
  if (!runningAsRoot()) GTEST_SKIP() << "needs root for a temporary group";
  TrusteeGroup trustee;
  NamedStringArray directory(registryDirectoryName, 0, trustee.name());
  directory.insert("qzERone");
  directory.insert(Entry{"qzERtwo", "strings"});
  directory.insert("other");
  directory.insert("qzERthree");
  directory.insert(Entry{"qzERfour", ""});
  EXPECT_EQ(listDirectoryNames("qzER", trustee.name()), (std::vector<std::string>{"qzERone", "qzERthree"}));
  EXPECT_EQ(listDirectoryNames("", trustee.name()), (std::vector<std::string>{"qzERone", "other", "qzERthree"}));
  EXPECT_TRUE(listDirectoryNames("none", trustee.name()).empty());
}

TEST(DirectoryEntryTest, EraseDirectoryNameRemovesOneNameAndLogsAMissingOne) {
  if (!runningAsRoot()) GTEST_SKIP() << "needs root for a temporary group";
  TrusteeGroup trustee;
  NamedStringArray directory(registryDirectoryName, 0, trustee.name());
  directory.insert("qzERa");
  directory.insert("qzERb");
  directory.insert(Entry{"qzERa", "x"});
  eraseDirectoryName("qzERa", trustee.name());
  EXPECT_EQ(directory.listEntries(""), (std::vector<Entry>{{"qzERb"}, {"qzERa", "x"}}));
  LogCapture log("agent::spf::endpointregistry=all");
  eraseDirectoryName("qzERa", trustee.name());
  EXPECT_EQ(log.messages(), std::vector<std::string>{"NamedStringArray::erase(): Entry could not be found."});
  EXPECT_EQ(listDirectoryNames("", trustee.name()), std::vector<std::string>{"qzERb"});
}

TEST(DirectoryEntryTest, NamesOfTwoTrusteesAreKeptApart) {
  if (!runningAsRoot()) GTEST_SKIP() << "needs root for temporary groups";
  TrusteeGroup first;
  TrusteeGroup second;
  DirectoryEntry a("qzERfirst", first.name());
  DirectoryEntry b("qzERsecond", second.name());
  EXPECT_EQ(listDirectoryNames("qzER", first.name()), std::vector<std::string>{"qzERfirst"});
  EXPECT_EQ(listDirectoryNames("qzER", second.name()), std::vector<std::string>{"qzERsecond"});
}

}  // namespace
}  // namespace er::test
