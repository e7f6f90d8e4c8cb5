// Publishers and listers in pid namespaces of their own, as in containers
// that share /dev/shm and a user but not their process ids: a listing from
// any namespace lists every live endpoint and never destroys one, and the
// record of a killed publisher goes with the next listing from any side.
#include <gtest/gtest.h>

#include <unistd.h>
#include <csignal>
#include <endpointregistry/endpoint.hpp>
#include <sstream>

#include "directory/directory_entry.hpp"
#include "directory/segment_names.hpp"
#include "support/pid_namespace.hpp"
#include "support/registry_cleanup.hpp"
#include "support/shm_files.hpp"

namespace agent::spf::endpointregistry {
namespace {

using er::test::ChildProcess;
using er::test::NamespacedChild;
using er::test::uniqueName;
using er::test::userScope;
using namespace std::chrono_literals;
using Pairs = std::vector<std::pair<std::string, std::string>>;

constexpr int killed = 128 + SIGKILL;

// A listing as one line: "first=second;" for each pair.
std::string asLine(const Pairs& pairs) {
  std::ostringstream line;
  for (const auto& [first, second] : pairs) line << first << '=' << second << ';';
  return line.str();
}

class PidNamespaceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!er::test::canMakePidNamespaces()) GTEST_SKIP() << "needs root to make pid namespaces";
  }

  // A body that publishes (first, second) under the test's tag, reports
  // "published", then answers each "list" with its listing of the tag, until
  // told "end".
  ChildProcess::Body publisher(const std::string& first, const std::string& second) const {
    return [this, first, second](ChildProcess& self) {
      Endpoint endpoint = Endpoint::publish(first, second, tag);
      self.tellParent("published");
      return answerListings(self);
    };
  }

  // A body that publishes nothing and answers listings.
  ChildProcess::Body lister() const {
    return [this](ChildProcess& self) {
      self.tellParent("ready");
      return answerListings(self);
    };
  }

  int answerListings(ChildProcess& self) const {
    for (auto line = self.readFromParent(60s); line && *line != "end"; line = self.readFromParent(60s)) {
      self.tellParent(asLine(Endpoint::filterFromLocal(tag)));
    }
    return 0;
  }

  // The names of the tag's records: in the directory, and as segments.
  std::vector<std::string> directoryNames() const { return listDirectoryNames(groupPrefix(tag), ""); }
  std::set<std::string> segments() const { return er::test::filesIn(userScope(), groupPrefix(tag)); }

  std::string tag = uniqueName("nsTag");
  er::test::RegistryCleanup cleanup{tag};
};

TEST_F(PidNamespaceTest, PublisherInANewNamespaceIsListedFromTheParentAndStaysIntact) {
  NamespacedChild child(publisher("ns-addr", "1234"));
  ASSERT_EQ(child.readFromChild(), "published");
  // Its record name carries the pid it has in its own namespace.
  const std::string name = recordName({"ns-addr", "1234"}, tag, 0, "");
  const std::string inner = name.substr(0, name.rfind('p')) + "p1v0";
  for (int listing = 0; listing < 2; ++listing) {
    EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"ns-addr", "1234"}})) << "listing " << listing;
  }
  EXPECT_EQ(directoryNames(), std::vector<std::string>{inner});
  EXPECT_EQ(segments(), std::set<std::string>{inner});
  child.tellChild("list");
  EXPECT_EQ(child.readFromChild(), "ns-addr=1234;");  // its publisher still sees it
  child.tellChild("end");
  EXPECT_EQ(child.wait(), 0);
  EXPECT_TRUE(directoryNames().empty());
  EXPECT_TRUE(segments().empty());
}

TEST_F(PidNamespaceTest, ParentsPublisherIsListedFromANewNamespaceAndStaysIntact) {
  Endpoint endpoint = Endpoint::publish("host-addr", "80", tag);
  NamespacedChild child(lister());
  ASSERT_EQ(child.readFromChild(), "ready");
  for (int listing = 0; listing < 2; ++listing) {
    child.tellChild("list");
    EXPECT_EQ(child.readFromChild(), "host-addr=80;") << "listing " << listing;
  }
  child.tellChild("end");
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"host-addr", "80"}}));
  EXPECT_EQ(directoryNames(), std::vector<std::string>{recordName({"host-addr", "80"}, tag, 0, "")});
  EXPECT_EQ(segments().size(), 1u);
}

TEST_F(PidNamespaceTest, PublishersOfTwoNamespacesAreListedFromAThird) {
  Endpoint endpoint = Endpoint::publish("host", "1", tag);
  NamespacedChild publishing(publisher("container", "2"));
  ASSERT_EQ(publishing.readFromChild(), "published");
  NamespacedChild listing(lister());
  ASSERT_EQ(listing.readFromChild(), "ready");
  for (int round = 0; round < 2; ++round) {
    listing.tellChild("list");
    EXPECT_EQ(listing.readFromChild(), "container=2;host=1;") << "round " << round;
    publishing.tellChild("list");
    EXPECT_EQ(publishing.readFromChild(), "container=2;host=1;") << "round " << round;
    EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"container", "2"}, {"host", "1"}}));
  }
  EXPECT_EQ(directoryNames().size(), 2u);
  EXPECT_EQ(segments().size(), 2u);
  for (NamespacedChild* child : {&listing, &publishing}) child->tellChild("end");
  EXPECT_EQ(listing.wait(), 0);
  EXPECT_EQ(publishing.wait(), 0);
}

TEST_F(PidNamespaceTest, KilledNamespacedPublisherIsClearedByTheParentsNextListing) {
  NamespacedChild child(publisher("doomed", "1"));
  ASSERT_EQ(child.readFromChild(), "published");
  ASSERT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"doomed", "1"}}));
  child.kill(SIGKILL);
  ASSERT_EQ(child.wait(), killed);
  EXPECT_TRUE(Endpoint::filterFromLocal(tag).empty());
  EXPECT_TRUE(directoryNames().empty());
  EXPECT_TRUE(segments().empty());
}

TEST_F(PidNamespaceTest, KilledPublisherIsClearedByTheNextListingFromAnotherNamespace) {
  NamespacedChild victim(publisher("doomed", "2"));
  ASSERT_EQ(victim.readFromChild(), "published");
  NamespacedChild listing(lister());
  ASSERT_EQ(listing.readFromChild(), "ready");
  listing.tellChild("list");
  ASSERT_EQ(listing.readFromChild(), "doomed=2;");
  victim.kill(SIGKILL);
  ASSERT_EQ(victim.wait(), killed);
  listing.tellChild("list");
  EXPECT_EQ(listing.readFromChild(), "");
  EXPECT_TRUE(directoryNames().empty());
  EXPECT_TRUE(segments().empty());
  listing.tellChild("end");
  EXPECT_EQ(listing.wait(), 0);
}

// The test process's own publisher, killed, is cleared by a listing made in
// a namespace where its pid means nothing.
TEST_F(PidNamespaceTest, KilledHostPublisherIsClearedByTheNextListingFromANamespace) {
  ChildProcess victim([this](ChildProcess& self) {
    Endpoint endpoint = Endpoint::publish("doomed", "3", tag);
    self.tellParent("published");
    self.readFromParent(60s);
    return 0;
  });
  ASSERT_EQ(victim.readFromChild(), "published");
  NamespacedChild listing(lister());
  ASSERT_EQ(listing.readFromChild(), "ready");
  listing.tellChild("list");
  ASSERT_EQ(listing.readFromChild(), "doomed=3;");
  victim.kill(SIGKILL);
  ASSERT_EQ(victim.wait(), killed);
  listing.tellChild("list");
  EXPECT_EQ(listing.readFromChild(), "");
  EXPECT_TRUE(directoryNames().empty());
  EXPECT_TRUE(segments().empty());
  listing.tellChild("end");
  EXPECT_EQ(listing.wait(), 0);
}

}  // namespace
}  // namespace agent::spf::endpointregistry
