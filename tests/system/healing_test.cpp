// Publications that heal themselves: while three publishers live, their
// record segments, their directory, the whole scope folder, are removed;
// the directory is overwritten with garbage; segments are truncated at
// random while others list. Every live endpoint is listed again, with no
// call from its publisher (or, for garbage written through a mapping, which
// the kernel does not report, after the next publication or collection),
// and no process dies.
//
// Each test runs its processes as a temporary user, whose registry only the
// test uses (root).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <endpointregistry/endpoint.hpp>
#include <endpointregistry/garbage_collection.hpp>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <thread>

#include "directory/directory_entry.hpp"
#include "directory/segment_names.hpp"
#include "record/record_layout.hpp"
#include "support/child_process.hpp"
#include "support/shm_files.hpp"
#include "support/system_accounts.hpp"
#include "support/text.hpp"

namespace agent::spf::endpointregistry {
namespace {

using er::test::ChildProcess;
using namespace std::chrono_literals;
using Pairs = std::vector<std::pair<std::string, std::string>>;

constexpr auto healingLimit = 10s;  // generous: the healing itself takes milliseconds

std::string asLine(const Pairs& pairs) {
  std::ostringstream line;
  for (const auto& [first, second] : pairs) line << first << '=' << second << ';';
  return line.str();
}

class HealingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!er::test::runningAsRoot()) GTEST_SKIP() << "needs root to make a user with a registry of its own";
    user = std::make_unique<er::test::TemporaryUser>();
    scope = "/dev/shm/u" + std::to_string(user->uid());
  }

  void TearDown() override {
    publishers.clear();
    if (group) std::filesystem::remove_all(groupScope());
    if (user) std::filesystem::remove_all(scope);
  }

  bool becomeTheUser() const {
    std::vector<gid_t> groups;
    if (group) groups.push_back(group->gid());
    return er::test::becomeUser(user->uid(), user->gid(), groups);
  }

  std::set<std::string> trustees() const {
    std::set<std::string> all{""};
    if (group) all.insert(group->name());
    return all;
  }

  std::string groupScope() const { return er::test::groupScope(group->gid()); }

  // A publisher of ("p<index>", "1"), also under the group trustee if any;
  // it answers "ping" with "pong" until told "end".
  void startPublisher(int index) {
    auto child = std::make_unique<ChildProcess>([this, index](ChildProcess& self) {
      if (!becomeTheUser()) return 3;
      Endpoint endpoint = Endpoint::publish(er::test::concat("p", std::to_string(index)), "1", tag);
      if (group) endpoint.addTrustees({group->name()});
      self.tellParent("published");
      for (auto line = self.readFromParent(60s); line && *line != "end"; line = self.readFromParent(60s)) {
        self.tellParent("pong");
      }
      return 0;
    });
    ASSERT_EQ(child->readFromChild(), "published");
    publishers.push_back(std::move(child));
  }

  Pairs expected(int count) const {
    Pairs pairs;
    for (int i = 0; i < count; ++i) pairs.emplace_back(er::test::concat("p", std::to_string(i)), "1");
    return pairs;
  }

  // Lists as the user, under `trusteeSet`, until the listing is `wanted` or
  // the limit passes; the last listing.
  std::string listedAsUser(const Pairs& wanted, const std::set<std::string>& trusteeSet) {
    ChildProcess lister([&](ChildProcess& self) {
      if (!becomeTheUser()) return 3;
      const auto deadline = std::chrono::steady_clock::now() + healingLimit;
      Pairs listed;
      for (;;) {
        listed = Endpoint::filter(tag, trusteeSet);
        if (listed == wanted || std::chrono::steady_clock::now() > deadline) break;
        std::this_thread::sleep_for(1ms);
      }
      self.tellParent(asLine(listed));
      return 0;
    });
    const auto line = lister.readFromChild(healingLimit + 30s);
    EXPECT_EQ(lister.wait(), 0);
    return line.value_or("<no answer>");
  }

  // Every publisher is alive and answers.
  void expectPublishersAlive() {
    for (auto& publisher : publishers) {
      publisher->tellChild("ping");
      EXPECT_EQ(publisher->readFromChild(), "pong") << "publisher " << publisher->pid();
    }
  }

  // Removes a scope folder at once, with everything in it: it is moved out of
  // the way first, so that healers that publish at once cannot refill it
  // before it goes (as they can with a plain rm -rf, whose last rmdir then
  // fails on the new segments, leaving the folder in place).
  void removeFolder(const std::string& folder) {
    const std::string gone = folder + ".gone";
    ASSERT_EQ(std::rename(folder.c_str(), gone.c_str()), 0);
    std::filesystem::remove_all(gone);
  }

  void removeFiles(const std::string& folder, const std::string& prefix) {
    for (const std::string& name : er::test::filesIn(folder, prefix)) std::filesystem::remove(folder + "/" + name);
  }

  // Overwrites `length` bytes at `offset` of a segment through a mapping,
  // which the kernel reports to no watch.
  void scribble(const std::string& path, std::size_t offset, std::size_t length, std::mt19937& random) {
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd, 0) << path;
    struct stat st {};
    ASSERT_EQ(fstat(fd, &st), 0);
    const auto size = static_cast<std::size_t>(st.st_size);
    void* bytes = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    ASSERT_NE(bytes, MAP_FAILED);
    for (std::size_t i = offset; i < offset + length && i < size; ++i) {
      static_cast<unsigned char*>(bytes)[i] = static_cast<unsigned char>(random());
    }
    munmap(bytes, size);
  }

  // The active container of the user's directory, as named by its files.
  std::string containerPath() {
    for (const std::string& name : er::test::filesIn(scope, "qzEndpointRegistryv0")) {
      if (name != "qzEndpointRegistryv0") return scope + "/" + name;
    }
    return "";
  }

  std::string tag = er::test::uniqueName("healTag");
  std::unique_ptr<er::test::TemporaryUser> user;
  std::unique_ptr<er::test::TemporaryGroup> group;
  std::string scope;
  std::vector<std::unique_ptr<ChildProcess>> publishers;
};

TEST_F(HealingTest, RemovedRecordSegmentsArePublishedAgain) {
  for (int i = 0; i < 3; ++i) startPublisher(i);
  ASSERT_EQ(er::test::filesIn(scope, groupPrefix(tag)).size(), 3u);
  removeFiles(scope, groupPrefix(tag));
  EXPECT_EQ(listedAsUser(expected(3), {""}), asLine(expected(3)));
  EXPECT_EQ(er::test::filesIn(scope, groupPrefix(tag)).size(), 3u);
  expectPublishersAlive();
}

TEST_F(HealingTest, RemovedDirectoryIsRebuiltFromTheRecords) {
  for (int i = 0; i < 3; ++i) startPublisher(i);
  removeFiles(scope, "qzEndpointRegistryv0");
  EXPECT_EQ(listedAsUser(expected(3), {""}), asLine(expected(3)));
  expectPublishersAlive();
}

TEST_F(HealingTest, RemovedScopeFolderIsMadeAgain) {
  for (int i = 0; i < 3; ++i) startPublisher(i);
  removeFolder(scope);
  EXPECT_EQ(listedAsUser(expected(3), {""}), asLine(expected(3)));
  struct stat st {};
  ASSERT_EQ(stat(scope.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, user->uid());
  EXPECT_EQ(st.st_mode & 07777, 0700u);
  EXPECT_EQ(er::test::filesIn(scope, groupPrefix(tag)).size(), 3u);
  expectPublishersAlive();
}

TEST_F(HealingTest, RemovedGroupScopeFolderIsMadeAgain) {
  group = std::make_unique<er::test::TemporaryGroup>();
  for (int i = 0; i < 3; ++i) startPublisher(i);
  ASSERT_EQ(er::test::filesIn(groupScope(), groupPrefix(tag)).size(), 3u);
  removeFolder(groupScope());
  EXPECT_EQ(listedAsUser(expected(3), {group->name()}), asLine(expected(3)));
  struct stat st {};
  ASSERT_EQ(stat(groupScope().c_str(), &st), 0);
  EXPECT_EQ(st.st_gid, group->gid());
  EXPECT_EQ(st.st_mode & 07777, 02770u);
  expectPublishersAlive();
}

// Garbage written through a mapping reaches no watch: the directory reads
// as empty (or as junk) until the next publication, which rebuilds it from
// the live records.
TEST_F(HealingTest, GarbageInTheDirectoryIsHealedByTheNextPublication) {
  for (int i = 0; i < 3; ++i) startPublisher(i);
  std::mt19937 random(20261124);
  scribble(containerPath(), 8, 4096, random);
  scribble(scope + "/qzEndpointRegistryv0", 5, 51, random);  // activeSlot and both descriptors
  startPublisher(3);
  EXPECT_EQ(listedAsUser(expected(4), {""}), asLine(expected(4)));
  expectPublishersAlive();
}

TEST_F(HealingTest, GarbageInTheDirectoryIsHealedByGarbageCollection) {
  for (int i = 0; i < 3; ++i) startPublisher(i);
  std::mt19937 random(4242);
  scribble(containerPath(), 8, 4096, random);
  scribble(scope + "/qzEndpointRegistryv0", 8, 48, random);  // both descriptors
  const auto code = er::test::runInChild([&](ChildProcess&) {
    if (!becomeTheUser()) return 3;
    const GarbageReport report = collectGarbage({""});
    return report.rebuiltDirectories == 1 ? 0 : 4;
  });
  EXPECT_EQ(code, 0);
  EXPECT_EQ(listedAsUser(expected(3), {""}), asLine(expected(3)));
  expectPublishersAlive();
}

// A record segment cut short and then lengthened again has its full size,
// its flag and its held mutex, but zeros where its data was: its publisher
// sees that its data is gone and publishes it again.
TEST_F(HealingTest, ARecordCutAndLengthenedAgainIsPublishedAgain) {
  for (int i = 0; i < 3; ++i) startPublisher(i);
  const std::set<std::string> records = er::test::filesIn(scope, groupPrefix(tag));
  ASSERT_EQ(records.size(), 3u);
  for (const std::string& name : records) {
    const std::string path = scope + "/" + name;
    struct stat before {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(recordDataOffset)), 0);
    ASSERT_EQ(truncate(path.c_str(), before.st_size), 0);
  }
  EXPECT_EQ(listedAsUser(expected(3), {""}), asLine(expected(3)));
  expectPublishersAlive();
}

// Segments (records, the base, containers) cut to random lengths at random
// while two processes list in a loop: nobody dies, and once the cutting
// stops every endpoint is listed again.
TEST_F(HealingTest, NoProcessDiesOfSegmentsTruncatedAtRandom) {
  for (int i = 0; i < 3; ++i) startPublisher(i);
  std::vector<std::unique_ptr<ChildProcess>> listers;
  for (int i = 0; i < 2; ++i) {
    listers.push_back(std::make_unique<ChildProcess>([this](ChildProcess& self) {
      if (!becomeTheUser()) return 3;
      self.tellParent("listing");
      unsigned long listings = 0;
      const auto deadline = std::chrono::steady_clock::now() + 60s;
      while (!self.readFromParent(0ms) && std::chrono::steady_clock::now() < deadline) {
        try {
          (void)Endpoint::filter(tag, {""});
        } catch (const std::exception& error) {
          std::cerr << "listing threw: " << error.what() << std::endl;
          return 5;
        }
        ++listings;
      }
      return listings > 0 ? 0 : 4;
    }));
    ASSERT_EQ(listers.back()->readFromChild(), "listing");
  }
  std::mt19937 random(7);
  const auto until = std::chrono::steady_clock::now() + 5s;
  unsigned truncations = 0;
  while (std::chrono::steady_clock::now() < until) {
    const std::set<std::string> files = er::test::filesIn(scope, "qz");
    if (files.empty()) continue;
    auto chosen = files.begin();
    std::advance(chosen, static_cast<long>(random() % files.size()));
    if (truncate((scope + "/" + *chosen).c_str(), static_cast<off_t>(random() % 120)) == 0) ++truncations;
    std::this_thread::sleep_for(std::chrono::microseconds(200 + random() % 800));
  }
  EXPECT_GT(truncations, 100u);
  for (auto& lister : listers) {
    lister->tellChild("stop");
    EXPECT_EQ(lister->wait(), 0) << "a lister died";
  }
  expectPublishersAlive();
  // What was cut while nobody watched it (a container, or the base after the
  // last publication) is rebuilt by a collection.
  (void)er::test::runInChild([&](ChildProcess&) { return becomeTheUser() ? (void)collectGarbage({""}), 0 : 3; });
  EXPECT_EQ(listedAsUser(expected(3), {""}), asLine(expected(3)));
}

// A record cut short after its publisher died cannot be read: it goes with
// the next listing's sweep when no name leads to it, and with garbage
// collection when it is named (a listing leaves a named record it cannot
// read alone).
TEST_F(HealingTest, TruncatedRecordsOfGonePublishersAreCleared) {
  for (int i = 0; i < 3; ++i) startPublisher(i);
  std::map<unsigned long, std::string> byPid;
  for (const std::string& name : er::test::filesIn(scope, groupPrefix(tag))) byPid[recordPid(name)] = name;
  const std::string named = byPid.at(static_cast<unsigned long>(publishers[1]->pid()));
  const std::string unnamed = byPid.at(static_cast<unsigned long>(publishers[2]->pid()));
  for (std::size_t i : {1u, 2u}) {
    publishers[i]->kill(SIGKILL);
    EXPECT_EQ(publishers[i]->wait(), 128 + SIGKILL);
  }
  publishers.resize(1);
  ASSERT_EQ(truncate((scope + "/" + named).c_str(), 0), 0);
  ASSERT_EQ(truncate((scope + "/" + unnamed).c_str(), 3), 0);
  const auto listing = er::test::runInChild([&](ChildProcess&) {
    if (!becomeTheUser()) return 3;
    // No name leads to it any more, as when its publisher died between
    // un-naming and removing it.
    eraseDirectoryName(unnamed, "");
    return Endpoint::filter(tag, {""}) == expected(1) ? 0 : 4;
  });
  EXPECT_EQ(listing, 0);
  EXPECT_EQ(er::test::filesIn(scope, groupPrefix(tag)), (std::set<std::string>{byPid.begin()->second, named}));
  const auto collection = er::test::runInChild([&](ChildProcess&) {
    if (!becomeTheUser()) return 3;
    const GarbageReport report = collectGarbage({""});
    return report.staleRecords == 1 && report.unnamedSegments == 0 ? 0 : 4;
  });
  EXPECT_EQ(collection, 0);
  EXPECT_EQ(er::test::filesIn(scope, groupPrefix(tag)).size(), 1u);
  EXPECT_EQ(listedAsUser(expected(1), {""}), asLine(expected(1)));
  expectPublishersAlive();
}

}  // namespace
}  // namespace agent::spf::endpointregistry
