// Listings keep the mappings of the live records they read, and read them
// there the next time. A kept mapping answers only while its record shows
// live in it; a record withdrawn, killed, published anew under its name or
// cut short is read by name again, as a first listing reads it.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include <endpointregistry/endpoint.hpp>

#include "diagnostics/test_hooks.hpp"
#include "directory/segment_names.hpp"
#include "discovery/kept_records.hpp"
#include "support/child_process.hpp"
#include "support/eventually.hpp"
#include "support/registry_cleanup.hpp"
#include "support/shm_files.hpp"

namespace agent::spf::endpointregistry {
namespace {

using er::test::ChildProcess;
using er::test::eventually;
using er::test::fileExists;
using er::test::filesIn;
using er::test::RegistryCleanup;
using er::test::uniqueName;
using er::test::userPath;
using er::test::userScope;
using Pairs = std::vector<std::pair<std::string, std::string>>;

#if defined(ENDPOINTREGISTRY_TEST_HOOKS)
std::atomic<int> opened{0};
void countOpening(const char* point) {
  if (std::strcmp(point, "record.opening") == 0) ++opened;
}
#endif

// True when the record file `name` (or what is left of it once deleted) is
// mapped into this process.
bool mappedHere(const std::string& name) { return er::test::mappedHere("/" + name); }

// The one record file of `tag` in the user's scope (empty if none or more).
std::string recordFileOf(const std::string& tag) {
  const std::set<std::string> files = filesIn(userScope(), groupPrefix(tag));
  return files.size() == 1 ? *files.begin() : std::string();
}

// Lists `tag` twice: the first listing notes the names, the second maps
// the records. The second listing's result.
Pairs listedTwice(const std::string& tag) {
  (void)Endpoint::filter(tag);
  return Endpoint::filter(tag);
}

// A child that publishes {first, "1"} under `tag`, says "live", and
// withdraws when told "go" (then says "gone" and waits to be told "end").
std::unique_ptr<ChildProcess> publisher(const std::string& tag, const std::string& first) {
  auto child = std::make_unique<ChildProcess>([tag, first](ChildProcess& self) {
    auto endpoint = std::make_unique<Endpoint>(std::make_pair(first, std::string("1")), tag);
    self.tellParent("live");
    if (self.readFromParent() != "go") return 1;
    endpoint.reset();
    self.tellParent("gone");
    return self.readFromParent() == "end" ? 0 : 2;
  });
  EXPECT_EQ(child->readFromChild(), "live");
  return child;
}

// Tells the publisher to withdraw, checks that a listing no longer shows
// its endpoint, and lets it end.
void withdrawAndExpectGone(ChildProcess& child, const std::string& tag) {
  child.tellChild("go");
  ASSERT_EQ(child.readFromChild(), "gone");
  EXPECT_EQ(Endpoint::filter(tag), Pairs{});
  child.tellChild("end");
  EXPECT_EQ(child.wait(), 0);
}

class KeptRecordsTest : public ::testing::Test {
 protected:
  void SetUp() override { KeptRecords::ofProcess().clear(); }
  void TearDown() override {
#if defined(ENDPOINTREGISTRY_TEST_HOOKS)
    testhooks::install(nullptr);
#endif
    KeptRecords::ofProcess().clear();
  }
  std::string tag = uniqueName("keptTag");
  RegistryCleanup cleanup{tag};
};

TEST_F(KeptRecordsTest, AListingAgainOpensNoRecordThatIsStillLive) {
#if !defined(ENDPOINTREGISTRY_TEST_HOOKS)
  GTEST_SKIP() << "needs the test hooks (not in Release builds)";
#else
  auto a = publisher(tag, "a");
  auto b = publisher(tag, "b");
  auto c = publisher(tag, "c");
  testhooks::install(countOpening);
  const Pairs expected{{"a", "1"}, {"b", "1"}, {"c", "1"}};
  // The first listing reads by name and maps nothing; the second maps.
  EXPECT_EQ(Endpoint::filter(tag), expected);
  EXPECT_EQ(opened.exchange(0), 3);
  EXPECT_EQ(KeptRecords::ofProcess().size(), 0u);
  EXPECT_EQ(KeptRecords::ofProcess().names(), 3u);
  for (const std::string& file : filesIn(userScope(), groupPrefix(tag))) EXPECT_FALSE(mappedHere(file)) << file;
  EXPECT_EQ(Endpoint::filter(tag), expected);
  EXPECT_EQ(opened.exchange(0), 3);
  EXPECT_EQ(KeptRecords::ofProcess().size(), 3u);
  for (const std::string& file : filesIn(userScope(), groupPrefix(tag))) EXPECT_TRUE(mappedHere(file)) << file;
  EXPECT_EQ(Endpoint::filter(tag), expected);
  EXPECT_EQ(Endpoint::filter(tag), expected);
  EXPECT_EQ(opened.exchange(0), 0);
  EXPECT_EQ(KeptRecords::ofProcess().size(), 3u);
#endif
}

TEST_F(KeptRecordsTest, AWithdrawnRecordIsNotListedAndItsMappingGoes) {
  auto child = publisher(tag, "w");
  ASSERT_EQ(listedTwice(tag), (Pairs{{"w", "1"}}));
  const std::string file = recordFileOf(tag);
  ASSERT_FALSE(file.empty());
  ASSERT_TRUE(mappedHere(file));
  child->tellChild("go");
  ASSERT_EQ(child->readFromChild(), "gone");
  EXPECT_EQ(Endpoint::filter(tag), Pairs{});
  EXPECT_FALSE(mappedHere(file));
  EXPECT_EQ(KeptRecords::ofProcess().size(), 0u);
  EXPECT_EQ(Endpoint::filter(tag), Pairs{});
  EXPECT_EQ(KeptRecords::ofProcess().names(), 0u);  // its name left the directory
  child->tellChild("end");
  EXPECT_EQ(child->wait(), 0);
}

TEST_F(KeptRecordsTest, AKilledPublishersRecordIsClearedAwayAsByAFirstListing) {
  auto child = publisher(tag, "k");
  ASSERT_EQ(listedTwice(tag), (Pairs{{"k", "1"}}));
  const std::string file = recordFileOf(tag);
  ASSERT_FALSE(file.empty());
  child->kill(SIGKILL);
  ASSERT_EQ(child->wait(), 128 + SIGKILL);
  EXPECT_EQ(Endpoint::filter(tag), Pairs{});
  EXPECT_FALSE(fileExists(userPath(file)));
  EXPECT_FALSE(mappedHere(file));
  EXPECT_EQ(KeptRecords::ofProcess().size(), 0u);
}

// The same name, a new segment: the kept mapping of the old one shows it
// withdrawn, and the new one is read (and kept) by name.
TEST_F(KeptRecordsTest, ARecordPublishedAgainUnderItsNameIsReadAnew) {
  auto first = std::make_unique<Endpoint>(std::make_pair(std::string("again"), std::string("1")), tag);
  ASSERT_EQ(listedTwice(tag), (Pairs{{"again", "1"}}));
  ASSERT_EQ(KeptRecords::ofProcess().size(), 1u);
  struct stat before {};
  ASSERT_EQ(stat(userPath(recordFileOf(tag)).c_str(), &before), 0);
  first.reset();
  Endpoint second({"again", "1"}, tag);
  struct stat after {};
  ASSERT_EQ(stat(userPath(recordFileOf(tag)).c_str(), &after), 0);
  ASSERT_NE(before.st_ino, after.st_ino);
  EXPECT_EQ(Endpoint::filter(tag), (Pairs{{"again", "1"}}));  // read by name, mapped again
  EXPECT_EQ(Endpoint::filter(tag), (Pairs{{"again", "1"}}));
  EXPECT_EQ(KeptRecords::ofProcess().size(), 1u);
}

// Another process removes a kept record's file; its publisher publishes it
// anew and lets go of the old segment, which the kept mapping still shows.
// After the publisher withdraws, the endpoint is listed no more.
TEST_F(KeptRecordsTest, AHealedRecordIsListedOnceAndGoesWithItsWithdrawal) {
  auto child = publisher(tag, "healed");
  ASSERT_EQ(listedTwice(tag), (Pairs{{"healed", "1"}}));
  ASSERT_EQ(KeptRecords::ofProcess().size(), 1u);
  const std::string file = recordFileOf(tag);
  struct stat before {};
  ASSERT_EQ(stat(userPath(file).c_str(), &before), 0);
  ASSERT_EQ(unlink(userPath(file).c_str()), 0);
  ASSERT_TRUE(eventually([&] {
    struct stat now {};
    return stat(userPath(file).c_str(), &now) == 0 && now.st_ino != before.st_ino;
  }));
  EXPECT_EQ(Endpoint::filter(tag), (Pairs{{"healed", "1"}}));
  EXPECT_EQ(Endpoint::filter(tag), (Pairs{{"healed", "1"}}));
  withdrawAndExpectGone(*child, tag);
  EXPECT_EQ(KeptRecords::ofProcess().size(), 0u);
}

// A kept record cut to nothing, or to its header alone (its data would
// then read as zeros), never makes a listing fault or list zeros: it lists
// the data as published, or nothing, until the publisher publishes it anew.
TEST_F(KeptRecordsTest, AKeptRecordCutShortNeverFaultsNorListsZeros) {
  for (const off_t length : {off_t{0}, off_t{56}}) {
    SCOPED_TRACE(length);
    KeptRecords::ofProcess().clear();
    auto child = publisher(tag, "cut");
    ASSERT_EQ(listedTwice(tag), (Pairs{{"cut", "1"}}));
    ASSERT_EQ(KeptRecords::ofProcess().size(), 1u);
    ASSERT_EQ(truncate(userPath(recordFileOf(tag)).c_str(), length), 0);
    for (int i = 0; i < 3; ++i) {
      const Pairs during = Endpoint::filter(tag);
      EXPECT_TRUE(during.empty() || during == (Pairs{{"cut", "1"}})) << during.size();
    }
    EXPECT_TRUE(eventually([&] { return Endpoint::filter(tag) == Pairs{{"cut", "1"}}; }));
    withdrawAndExpectGone(*child, tag);
  }
}

// Another process writes a flag other than 1: the kept mapping no longer
// answers; the publisher publishes the record anew and clears the old
// segment's flag, and its withdrawal ends the listing of it.
TEST_F(KeptRecordsTest, AKeptRecordWithAForeignFlagIsReadByNameAndHealed) {
  auto child = publisher(tag, "flag");
  ASSERT_EQ(listedTwice(tag), (Pairs{{"flag", "1"}}));
  ASSERT_EQ(KeptRecords::ofProcess().size(), 1u);
  const std::string path = userPath(recordFileOf(tag));
  struct stat before {};
  ASSERT_EQ(stat(path.c_str(), &before), 0);
  {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    ASSERT_TRUE(file.is_open());
    file.seekp(0);
    file.put(static_cast<char>(2));
  }
  ASSERT_TRUE(eventually([&] {
    struct stat now {};
    return stat(path.c_str(), &now) == 0 && now.st_ino != before.st_ino;
  }));
  EXPECT_TRUE(eventually([&] { return Endpoint::filter(tag) == Pairs{{"flag", "1"}}; }));
  EXPECT_EQ(Endpoint::filter(tag), (Pairs{{"flag", "1"}}));
  withdrawAndExpectGone(*child, tag);
}

// A forked child inherits none of the kept mappings: a child that lives on
// would otherwise hold the segments of records withdrawn since for as long
// as it lives. It starts with nothing kept and lists by name, then keeps
// mappings of its own.
TEST_F(KeptRecordsTest, AForkedChildInheritsNoKeptMapping) {
  auto child = publisher(tag, "inherited");
  ASSERT_EQ(listedTwice(tag), (Pairs{{"inherited", "1"}}));
  const std::set<std::string> files = filesIn(userScope(), groupPrefix(tag));
  ASSERT_EQ(files.size(), 1u);
  const std::string file = *files.begin();
  ASSERT_TRUE(mappedHere(file));
  const std::optional<int> code = er::test::runInChild([this, &file](ChildProcess&) {
    if (mappedHere(file)) return 2;
    if (KeptRecords::ofProcess().size() != 0 || KeptRecords::ofProcess().names() != 0) return 3;
    if (listedTwice(tag) != Pairs{{"inherited", "1"}}) return 4;
    if (KeptRecords::ofProcess().size() != 1 || !mappedHere(file)) return 5;
    return Endpoint::filter(tag) == Pairs{{"inherited", "1"}} ? 0 : 6;
  });
  EXPECT_EQ(code, 0);
  child->tellChild("go");
  ASSERT_EQ(child->readFromChild(), "gone");
  const std::optional<int> afterwards =
      er::test::runInChild([this](ChildProcess&) { return Endpoint::filter(tag).empty() ? 0 : 5; });
  EXPECT_EQ(afterwards, 0);
  EXPECT_EQ(Endpoint::filter(tag), Pairs{});
  child->tellChild("end");
  EXPECT_EQ(child->wait(), 0);
}

#if defined(ENDPOINTREGISTRY_TEST_HOOKS)

namespace {

// Forks at the second record opened from the time it is set (once).
int openingsBeforeFork = -1;
pid_t forkedChild = -1;
bool inForkedChild = false;

void forkAtSecondOpening(const char* point) {
  if (std::strcmp(point, "record.opening") != 0 || openingsBeforeFork < 0) return;
  if (openingsBeforeFork-- > 0) return;
  const pid_t pid = fork();
  if (pid == 0) {
    inForkedChild = true;
  } else {
    forkedChild = pid;
  }
}

}  // namespace

// A fork made in the middle of a listing (here from a test point, as a log
// sink or a signal handler could) leaves the child's side of that listing
// whole: the child goes on reading by name, never through a mapping it did
// not inherit, and keeps mappings of its own afterwards. The parent's
// listing is not disturbed.
TEST_F(KeptRecordsTest, AForkInTheMiddleOfAListingLeavesBothSidesWhole) {
  auto a = publisher(tag, "a");
  auto b = publisher(tag, "b");
  auto c = publisher(tag, "c");
  const Pairs expected{{"a", "1"}, {"b", "1"}, {"c", "1"}};
  ASSERT_EQ(Endpoint::filter(tag), expected);  // notes the names
  // The listing that maps: the first record is kept before the fork, the
  // second is mapped after it, the third is met in the child after it.
  openingsBeforeFork = 1;
  testhooks::install(forkAtSecondOpening);
  const Pairs listed = Endpoint::filter(tag);
  testhooks::install(nullptr);
  if (inForkedChild) {
    int code = 0;
    if (listed != expected) {
      code = 2;
    } else if (listedTwice(tag) != expected || Endpoint::filter(tag) != expected) {
      code = 3;
    } else if (KeptRecords::ofProcess().size() != 3) {
      code = 4;
    }
    std::_Exit(code);
  }
  ASSERT_GT(forkedChild, 0);
  EXPECT_EQ(er::test::reapWithin(std::exchange(forkedChild, -1)), std::optional<int>(0));
  EXPECT_EQ(listed, expected);
  EXPECT_EQ(KeptRecords::ofProcess().size(), 3u);
  EXPECT_EQ(Endpoint::filter(tag), expected);
  for (ChildProcess* child : {a.get(), b.get()}) {
    child->tellChild("go");
    ASSERT_EQ(child->readFromChild(), "gone");
    child->tellChild("end");
    EXPECT_EQ(child->wait(), 0);
  }
  EXPECT_EQ(Endpoint::filter(tag), (Pairs{{"c", "1"}}));
  withdrawAndExpectGone(*c, tag);
}

#endif

}  // namespace
}  // namespace agent::spf::endpointregistry
