// The Watcher with real publishers: appearing, withdrawing and SIGKILLed
// publishers wake its descriptor; its events, applied in order, give the
// listing; two watchers, churn, an overflowed event queue, a fork, and an
// idle watcher that makes no wake-ups.
#include <endpointregistry/watcher.hpp>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <chrono>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <endpointregistry/endpoint.hpp>

#include "directory/segment_names.hpp"
#include "support/child_process.hpp"
#include "support/registry_cleanup.hpp"
#include "support/shm_files.hpp"
#include "support/text.hpp"

namespace registry = agent::spf::endpointregistry;
using er::test::ChildProcess;
using registry::Endpoint;
using registry::EndpointChange;
using registry::RecordChange;
using registry::Watcher;
using namespace std::chrono_literals;
using Pair = std::pair<std::string, std::string>;
using Pairs = std::vector<Pair>;

namespace {

// How long a test waits for what must come at once.
constexpr auto patience = 10s;

bool readable(int fd, std::chrono::milliseconds timeout) {
  pollfd wanted{fd, POLLIN, 0};
  return poll(&wanted, 1, static_cast<int>(timeout.count())) == 1;
}

// Applies events to a set as a client would.
void applyEvents(std::set<Pair>& listed, const std::vector<EndpointChange>& events) {
  for (const EndpointChange& event : events) {
    if (event.kind == EndpointChange::Appeared) {
      EXPECT_TRUE(listed.insert(event.data).second) << "appeared twice: " << event.data.first;
    } else {
      EXPECT_EQ(listed.erase(event.data), 1u) << "disappeared unseen: " << event.data.first;
    }
  }
}

Pairs asPairs(const std::set<Pair>& set) { return Pairs(set.begin(), set.end()); }

// The pairs that disappear in the next calls, until `count` have: the
// records of one dying process may be marked dead one after the other, and
// so come in one call or several.
std::set<Pair> awaitGone(Watcher& watcher, std::size_t count) {
  std::set<Pair> gone;
  while (gone.size() < count) {
    const std::vector<EndpointChange> events = watcher.waitForChanges(patience);
    if (events.empty()) break;
    for (const EndpointChange& event : events) {
      EXPECT_EQ(event.kind, EndpointChange::Disappeared);
      gone.insert(event.data);
    }
  }
  return gone;
}

// A child that publishes "<name> 1" on "publish <name>", withdraws on
// "withdraw <name>", and answers each with "ok".
std::unique_ptr<ChildProcess> startPublisher(const std::string& tag) {
  return std::make_unique<ChildProcess>([tag](ChildProcess& self) {
    std::map<std::string, Endpoint> held;
    self.tellParent("ready");
    for (;;) {
      const std::optional<std::string> line = self.readFromParent(60s);
      if (!line || *line == "exit") return 0;
      std::istringstream words(*line);
      std::string verb;
      std::string name;
      std::string otherTag;
      words >> verb >> name >> otherTag;
      if (verb == "publish")
        held.emplace(name + otherTag, Endpoint::publish(name, "1", otherTag.empty() ? tag : otherTag));
      if (verb == "withdraw") held.erase(name + otherTag);
      self.tellParent("ok");
    }
  });
}

class WatcherTest : public ::testing::Test {
 protected:
  const std::string tag = er::test::uniqueName("watch");
  er::test::RegistryCleanup cleanup{tag};

  void order(ChildProcess& publisher, const std::string& line) {
    publisher.tellChild(line);
    ASSERT_EQ(publisher.readFromChild(), "ok") << line;
  }

  static void stop(ChildProcess& publisher) {
    publisher.tellChild("exit");
    EXPECT_EQ(publisher.wait(), 0);
  }
};

TEST_F(WatcherTest, FirstCallListsEveryLiveEndpointAndThenNothing) {
  auto publisher = startPublisher(tag);
  ASSERT_EQ(publisher->readFromChild(), "ready");
  order(*publisher, "publish a");
  order(*publisher, "publish b");
  Watcher watcher(tag, {""});
  EXPECT_EQ(watcher.changes(), (std::vector<EndpointChange>{{EndpointChange::Appeared, {"a", "1"}},
                                                            {EndpointChange::Appeared, {"b", "1"}}}));
  EXPECT_TRUE(watcher.changes().empty());
  // Quiet now, unless a test running beside this one (ctest -j) touched the
  // shared scope folder meanwhile: such a wake-up brings no change.
  if (readable(watcher.fileDescriptor(), 0ms)) {
    EXPECT_TRUE(watcher.changes().empty());
  }
  stop(*publisher);
}

TEST_F(WatcherTest, PublicationAndWithdrawalWakeTheDescriptor) {
  auto publisher = startPublisher(tag);
  ASSERT_EQ(publisher->readFromChild(), "ready");
  Watcher watcher(tag, {""});
  EXPECT_TRUE(watcher.changes().empty());
  order(*publisher, "publish x");
  ASSERT_TRUE(readable(watcher.fileDescriptor(), patience));
  EXPECT_EQ(watcher.waitForChanges(patience), (std::vector<EndpointChange>{{EndpointChange::Appeared, {"x", "1"}}}));
  order(*publisher, "withdraw x");
  ASSERT_TRUE(readable(watcher.fileDescriptor(), patience));
  EXPECT_EQ(watcher.waitForChanges(patience), (std::vector<EndpointChange>{{EndpointChange::Disappeared, {"x", "1"}}}));
  publisher->tellChild("exit");
  EXPECT_EQ(publisher->wait(), 0);
}

// A killed publisher wakes the descriptor through its record's mutex, with
// no timer, and its record is cleared away by the read.
TEST_F(WatcherTest, KilledPublisherWakesTheDescriptor) {
  auto publisher = startPublisher(tag);
  ASSERT_EQ(publisher->readFromChild(), "ready");
  order(*publisher, "publish doomed");
  Watcher watcher(tag, {""});
  EXPECT_EQ(watcher.changes().size(), 1u);
  publisher->kill(SIGKILL);
  EXPECT_EQ(publisher->wait(), 128 + SIGKILL);
  ASSERT_TRUE(readable(watcher.fileDescriptor(), patience));
  EXPECT_EQ(watcher.changes(), (std::vector<EndpointChange>{{EndpointChange::Disappeared, {"doomed", "1"}}}));
  EXPECT_TRUE(Endpoint::filter(tag).empty());
  EXPECT_TRUE(er::test::filesIn(er::test::userScope(), registry::groupPrefix(tag)).empty());
}

// The waiting threads are handed new words after each death: every later
// death is seen too, and so is a publication in between.
TEST_F(WatcherTest, SuccessiveDeathsAreEachSeen) {
  std::vector<std::unique_ptr<ChildProcess>> publishers;
  for (int i = 0; i < 3; ++i) {
    publishers.push_back(startPublisher(tag));
    ASSERT_EQ(publishers.back()->readFromChild(), "ready");
    order(*publishers.back(), er::test::concat("publish p", std::to_string(i)));
  }
  Watcher watcher(tag, {""});
  EXPECT_EQ(watcher.changes().size(), 3u);
  const auto kill = [&](std::size_t index) {
    publishers[index]->kill(SIGKILL);
    EXPECT_EQ(publishers[index]->wait(), 128 + SIGKILL);
  };
  kill(0);
  EXPECT_EQ(watcher.waitForChanges(patience),
            (std::vector<EndpointChange>{{EndpointChange::Disappeared, {"p0", "1"}}}));
  order(*publishers[2], "publish late");
  EXPECT_EQ(watcher.waitForChanges(patience), (std::vector<EndpointChange>{{EndpointChange::Appeared, {"late", "1"}}}));
  kill(1);
  EXPECT_EQ(watcher.waitForChanges(patience),
            (std::vector<EndpointChange>{{EndpointChange::Disappeared, {"p1", "1"}}}));
  kill(2);
  EXPECT_EQ(awaitGone(watcher, 2), (std::set<Pair>{{"late", "1"}, {"p2", "1"}}));
}

TEST_F(WatcherTest, TwoWatchersBothSeeADeath) {
  auto publisher = startPublisher(tag);
  ASSERT_EQ(publisher->readFromChild(), "ready");
  order(*publisher, "publish shared");
  Watcher first(tag, {""});
  Watcher second(tag, {""});
  EXPECT_EQ(first.changes().size(), 1u);
  EXPECT_EQ(second.changes().size(), 1u);
  publisher->kill(SIGKILL);
  EXPECT_EQ(publisher->wait(), 128 + SIGKILL);
  const std::vector<EndpointChange> gone{{EndpointChange::Disappeared, {"shared", "1"}}};
  EXPECT_EQ(first.waitForChanges(patience), gone);
  EXPECT_EQ(second.waitForChanges(patience), gone);
}

// The same data under two tags are two records: withdrawing one is a record
// event while the pair stays listed.
TEST_F(WatcherTest, RecordsAreSeenApartFromPairs) {
  const std::string otherTag = tag + "-other";
  er::test::RegistryCleanup otherCleanup{otherTag};
  auto publisher = startPublisher(tag);
  ASSERT_EQ(publisher->readFromChild(), "ready");
  order(*publisher, "publish same");
  order(*publisher, "publish same " + otherTag);
  Watcher watcher("", {""});
  const auto ofOurs = [&](std::vector<RecordChange> changes) {
    std::vector<RecordChange> ours;
    for (RecordChange& change : changes) {
      if (change.data.first == "same") ours.push_back(std::move(change));
    }
    return ours;
  };
  const std::vector<RecordChange> first = ofOurs(watcher.recordChanges());
  ASSERT_EQ(first.size(), 2u);
  std::set<std::string> hashes;
  for (const RecordChange& change : first) {
    EXPECT_EQ(change.kind, EndpointChange::Appeared);
    EXPECT_EQ(change.trustee, "");
    EXPECT_EQ(change.publisherPid, static_cast<unsigned long>(publisher->pid()));
    EXPECT_EQ(change.recordName.rfind("qzER" + change.groupTagHash, 0), 0u);
    EXPECT_LE(change.appearedAt, std::chrono::system_clock::now());
    hashes.insert(change.groupTagHash);
  }
  EXPECT_EQ(hashes,
            (std::set<std::string>{registry::groupPrefix(tag).substr(4), registry::groupPrefix(otherTag).substr(4)}));
  // The pair level saw one pair.
  std::vector<EndpointChange> pairs;
  for (const EndpointChange& change : watcher.changes()) {
    if (change.data.first == "same") pairs.push_back(change);
  }
  EXPECT_EQ(pairs, (std::vector<EndpointChange>{{EndpointChange::Appeared, {"same", "1"}}}));

  order(*publisher, "withdraw same " + otherTag);
  ASSERT_TRUE(readable(watcher.fileDescriptor(), patience));
  const std::vector<RecordChange> second = ofOurs(watcher.waitForRecordChanges(patience));
  ASSERT_EQ(second.size(), 1u);
  EXPECT_EQ(second[0].kind, EndpointChange::Disappeared);
  EXPECT_EQ(second[0].groupTagHash, registry::groupPrefix(otherTag).substr(4));
  for (const EndpointChange& change : watcher.changes()) EXPECT_NE(change.data.first, "same");
  publisher->tellChild("exit");
  EXPECT_EQ(publisher->wait(), 0);
}

// Eight processes publish and withdraw at random while the watcher reads
// now and then; once they rest, the events applied give the listing.
TEST_F(WatcherTest, ChurnByEightProcessesEndsExact) {
  std::vector<std::unique_ptr<ChildProcess>> churners;
  for (int process = 0; process < 8; ++process) {
    churners.push_back(std::make_unique<ChildProcess>([this, process](ChildProcess& self) {
      std::mt19937 random(static_cast<unsigned>(process));
      std::map<int, Endpoint> held;
      self.tellParent("ready");
      for (int step = 0; step < 300; ++step) {
        const int which = static_cast<int>(random() % 10);
        if (held.count(which) != 0) {
          held.erase(which);
        } else {
          held.emplace(which,
                       Endpoint::publish(er::test::concat("c", std::to_string(process)), std::to_string(which), tag));
        }
      }
      self.tellParent("resting");
      (void)self.readFromParent(60s);
      return 0;
    }));
  }
  for (auto& churner : churners) ASSERT_EQ(churner->readFromChild(), "ready");
  Watcher watcher(tag, {""});
  std::set<Pair> listed;
  std::size_t resting = 0;
  while (resting < churners.size()) {
    applyEvents(listed, watcher.waitForChanges(5ms));
    for (auto& churner : churners) {
      if (churner->readFromChild(0ms) == std::optional<std::string>("resting")) ++resting;
    }
  }
  applyEvents(listed, watcher.changes());
  EXPECT_EQ(asPairs(listed), Endpoint::filter(tag));
  for (auto& churner : churners) {
    churner->tellChild("exit");
    EXPECT_EQ(churner->wait(), 0);
  }
  applyEvents(listed, watcher.waitForChanges(patience));
  while (!listed.empty()) {
    const std::vector<EndpointChange> events = watcher.waitForChanges(patience);
    ASSERT_FALSE(events.empty()) << listed.size() << " pairs never went";
    applyEvents(listed, events);
  }
  EXPECT_TRUE(Endpoint::filter(tag).empty());
}

// More events than the kernel queues while the watcher does not read: the
// queue overflows, the publications and withdrawals that come after it are
// lost to inotify, and the next read is still exact.
TEST_F(WatcherTest, OverflowedEventQueueStillEndsExact) {
  unsigned long queueLimit = 16384;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> queueLimit;
  if (queueLimit > 1'000'000) GTEST_SKIP() << "the event queue holds " << queueLimit << " events";
  auto publisher = startPublisher(tag);
  ASSERT_EQ(publisher->readFromChild(), "ready");
  order(*publisher, "publish stays");
  order(*publisher, "publish gone");
  Watcher watcher(tag, {""});
  std::set<Pair> listed;
  applyEvents(listed, watcher.changes());
  // Setting the times of two files of the folder in turn makes one event
  // each time (the kernel merges only repeats of the last event). Files of
  // the test's own, so that the publisher's healing does not hear of them.
  const std::vector<std::string> files{er::test::userScope() + "/" + tag + "-a",
                                       er::test::userScope() + "/" + tag + "-b"};
  for (const std::string& file : files) close(open(file.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  for (unsigned long i = 0; i < queueLimit + 100; ++i) {
    ASSERT_EQ(utimensat(AT_FDCWD, files[i % 2].c_str(), nullptr, 0), 0);
  }
  for (const std::string& file : files) unlink(file.c_str());
  order(*publisher, "withdraw gone");
  order(*publisher, "publish passing");
  order(*publisher, "withdraw passing");
  order(*publisher, "publish last");
  applyEvents(listed, watcher.changes());
  const Pairs expected{{"last", "1"}, {"stays", "1"}};
  EXPECT_EQ(Endpoint::filter(tag), expected);
  EXPECT_EQ(asPairs(listed), expected);
  EXPECT_TRUE(watcher.changes().empty());
  stop(*publisher);
}

// A publication refused as a duplicate is no event, though the refused
// publisher may have made and removed a record file of its own; records of
// other tags wake the descriptor and are no event either.
TEST_F(WatcherTest, RefusedDuplicateAndOtherTagsMakeNoEvent) {
  auto publisher = startPublisher(tag);
  ASSERT_EQ(publisher->readFromChild(), "ready");
  order(*publisher, "publish x");
  Watcher watcher(tag, {""});
  EXPECT_EQ(watcher.changes(), (std::vector<EndpointChange>{{EndpointChange::Appeared, {"x", "1"}}}));
  EXPECT_EQ(watcher.recordChanges().size(), 1u);
  EXPECT_THROW((void)Endpoint::publish("x", "1", tag), Endpoint::DuplicateEndpointError);
  order(*publisher, er::test::concat("publish y ", tag, "-other"));
  ASSERT_TRUE(readable(watcher.fileDescriptor(), patience));
  EXPECT_TRUE(watcher.changes().empty());
  EXPECT_TRUE(watcher.recordChanges().empty());
  order(*publisher, er::test::concat("withdraw y ", tag, "-other"));
  stop(*publisher);
  EXPECT_EQ(awaitGone(watcher, 1), (std::set<Pair>{{"x", "1"}}));
}

// Another process cuts a watched record short: reading it, and the lock
// word the watcher looks at, fault on pages that are gone. Nothing crashes,
// and once all is quiet again the events give the listing.
TEST_F(WatcherTest, AWatchedRecordCutShortEndsExact) {
  auto publisher = startPublisher(tag);
  ASSERT_EQ(publisher->readFromChild(), "ready");
  order(*publisher, "publish cut");
  order(*publisher, "publish whole");
  Watcher watcher(tag, {""});
  std::set<Pair> listed;
  applyEvents(listed, watcher.changes());
  ASSERT_EQ(listed.size(), 2u);
  const std::set<std::string> records = er::test::filesIn(er::test::userScope(), registry::groupPrefix(tag));
  ASSERT_EQ(records.size(), 2u);
  int cut = 0;
  for (const std::string& name : records) {
    if (name.find(registry::hashText("cut1")) == std::string::npos) continue;
    ASSERT_EQ(truncate((er::test::userScope() + "/" + name).c_str(), 0), 0);
    ++cut;
  }
  ASSERT_EQ(cut, 1);
  // Quiet: no event for a while, and what the events gave is the listing.
  const auto deadline = std::chrono::steady_clock::now() + patience;
  Pairs listing;
  do {
    const std::vector<EndpointChange> events = watcher.waitForChanges(200ms);
    applyEvents(listed, events);
    listing = Endpoint::filter(tag);
    if (events.empty() && asPairs(listed) == listing) break;
  } while (std::chrono::steady_clock::now() < deadline);
  EXPECT_EQ(asPairs(listed), listing);
  EXPECT_EQ(listed.count({"whole", "1"}), 1u);
  stop(*publisher);
}

// A child forked from a process that holds a watcher may not use it, may
// destroy it, and watches with a new one; the parent's keeps working.
TEST_F(WatcherTest, ForkedChildMakesItsOwnWatcher) {
  auto publisher = startPublisher(tag);
  ASSERT_EQ(publisher->readFromChild(), "ready");
  order(*publisher, "publish before");
  auto watcher = std::make_unique<Watcher>(tag, std::set<std::string>{""});
  EXPECT_EQ(watcher->changes().size(), 1u);
  ChildProcess child([&](ChildProcess&) {
    try {
      (void)watcher->changes();
      return 1;
    } catch (const std::logic_error&) {
    }
    watcher.reset();
    Watcher own(tag, {""});
    return own.changes() == std::vector<EndpointChange>{{EndpointChange::Appeared, {"before", "1"}}} ? 0 : 2;
  });
  EXPECT_EQ(child.wait(), 0);
  order(*publisher, "publish after");
  EXPECT_EQ(watcher->waitForChanges(patience),
            (std::vector<EndpointChange>{{EndpointChange::Appeared, {"after", "1"}}}));
  publisher->kill(SIGKILL);
  EXPECT_EQ(publisher->wait(), 128 + SIGKILL);
  EXPECT_EQ(awaitGone(*watcher, 2), (std::set<Pair>{{"after", "1"}, {"before", "1"}}));
}

TEST_F(WatcherTest, AMovedFromWatcherHasNoDescriptorAndRefusesCalls) {
  Watcher watcher(tag, {""});
  const int fd = watcher.fileDescriptor();
  EXPECT_GE(fd, 0);
  Watcher moved(std::move(watcher));
  EXPECT_EQ(moved.fileDescriptor(), fd);
  EXPECT_EQ(watcher.fileDescriptor(), -1);  // NOLINT(bugprone-use-after-move): the moved-from state is specified
  EXPECT_THROW((void)watcher.changes(), std::logic_error);  // NOLINT(bugprone-use-after-move)
  EXPECT_TRUE(moved.changes().empty());
}

// Without descriptors to spare, making a watcher fails with the system's
// reason, and nothing is left open.
TEST_F(WatcherTest, NoDescriptorsLeftIsASystemError) {
  ChildProcess child([this](ChildProcess& self) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit before = limit;
    // Room for what is open now, and no more.
    int highest = 0;
    for (int fd = 0; fd < 1024; ++fd) {
      if (fcntl(fd, F_GETFD) >= 0) highest = fd;
    }
    limit.rlim_cur = static_cast<rlim_t>(highest + 1);
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 2;
    // The free numbers below it are taken too.
    while (open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0) {
    }
    try {
      Watcher watcher(tag, {""});
      return 3;
    } catch (const std::runtime_error& error) {
      // Descriptors again first: the sanitizers' checks need some.
      setrlimit(RLIMIT_NOFILE, &before);
      const std::string text = error.what();
      self.tellParent(text.substr(0, text.find(':', text.find(':', 14) + 1)));
    }
    return 0;
  });
  EXPECT_EQ(child.readFromChild(), "System error: Watcher: epoll_create1");
  EXPECT_EQ(child.wait(), 0);
}

// True when every thread of `pid` sleeps (state S in its stat line).
bool allAsleep(pid_t pid) {
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  DIR* folder = opendir(tasks.c_str());
  if (folder == nullptr) return false;
  bool asleep = true;
  while (const dirent* entry = readdir(folder)) {
    if (entry->d_name[0] == '.') continue;
    std::ifstream stat(tasks + "/" + entry->d_name + "/stat");
    std::string line;
    std::getline(stat, line);
    const std::size_t end = line.rfind(')');
    if (end == std::string::npos || end + 2 >= line.size() || line[end + 2] != 'S') asleep = false;
  }
  closedir(folder);
  return asleep;
}

// The sum of the context switches of every thread of `pid`.
unsigned long contextSwitches(pid_t pid) {
  unsigned long total = 0;
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  DIR* folder = opendir(tasks.c_str());
  if (folder == nullptr) return 0;
  while (const dirent* entry = readdir(folder)) {
    if (entry->d_name[0] == '.') continue;
    std::ifstream status(tasks + "/" + entry->d_name + "/status");
    std::string line;
    while (std::getline(status, line)) {
      if (line.rfind("voluntary_ctxt_switches:", 0) == 0 || line.rfind("nonvoluntary_ctxt_switches:", 0) == 0) {
        total += std::stoul(line.substr(line.find(':') + 1));
      }
    }
  }
  closedir(folder);
  return total;
}

// A watcher with live records and nothing changing makes no wake-ups: the
// context switches of its process's threads do not grow over 5 seconds.
TEST_F(WatcherTest, AnIdleWatcherMakesNoWakeUps) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "ThreadSanitizer's own thread wakes the process now and then";
#endif
  auto publisher = startPublisher(tag);
  ASSERT_EQ(publisher->readFromChild(), "ready");
  for (int i = 0; i < 3; ++i) order(*publisher, er::test::concat("publish idle", std::to_string(i)));
  ChildProcess watching([this](ChildProcess& self) {
    Watcher watcher(tag, {""});
    if (watcher.changes().size() != 3) return 2;
    self.tellParent("watching");
    // Blocks on the pipe from the parent meanwhile.
    const std::optional<std::string> line = self.readFromParent(60s);
    return line == std::optional<std::string>("stop") && watcher.changes().empty() ? 0 : 3;
  });
  ASSERT_EQ(watching.readFromChild(), "watching");
  // The threads settle into their waits first (every one asleep), then a
  // quiet spell is measured.
  const auto settled = std::chrono::steady_clock::now() + patience;
  while (!allAsleep(watching.pid()) && std::chrono::steady_clock::now() < settled) std::this_thread::yield();
  ASSERT_TRUE(allAsleep(watching.pid()));
  const unsigned long before = contextSwitches(watching.pid());
  std::this_thread::sleep_for(5s);
  const unsigned long after = contextSwitches(watching.pid());
  EXPECT_EQ(after, before);
  watching.tellChild("stop");
  EXPECT_EQ(watching.wait(), 0);
  stop(*publisher);
}

}  // namespace
