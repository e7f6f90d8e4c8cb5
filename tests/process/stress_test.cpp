// Load: eight processes of two threads each publish (the same pairs, racing
// on purpose), withdraw, change trustees and list for a bounded time. Then,
// with every process quiet, every process lists what all of them hold, no
// pair is held twice, and after the orderly end nothing is left behind.
// Prints the operations per second. ER_STRESS_SECONDS sets the time
// (default 5 s).
#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <endpointregistry/endpoint.hpp>
#include <filesystem>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "directory/named_string_array.hpp"
#include "support/child_process.hpp"
#include "support/registry_cleanup.hpp"
#include "support/registry_state.hpp"
#include "support/shm_files.hpp"
#include "support/system_accounts.hpp"

namespace agent::spf::endpointregistry {
namespace {

using er::test::ChildProcess;
using er::test::uniqueName;
using er::test::userScope;
using namespace std::chrono_literals;
using Pair = std::pair<std::string, std::string>;
using Pairs = std::vector<Pair>;

constexpr int processes = 8;
constexpr int threadsPerProcess = 2;
constexpr int pairsPerThread = 6;
constexpr auto childTimeout = 120s;

double stressSeconds() {
  const char* text = std::getenv("ER_STRESS_SECONDS");
  const double value = text != nullptr ? std::strtod(text, nullptr) : 0;
  return value > 0 ? value : 5.0;
}

// The pairs all processes race for. Thread t of every process uses the
// pairs k with k % threadsPerProcess == t: two threads of one process
// publishing the same pair at once would form the same record name, which
// the library refuses as a failed creation rather than as a duplicate.
Pair poolPair(int thread, int k) { return {"pool" + std::to_string(k * threadsPerProcess + thread), "x"}; }

// Shared by all processes: how many hold each pair now, and whether two ever did.
struct Holders {
  std::atomic<int> count[threadsPerProcess * pairsPerThread];
  std::atomic<int> overlaps;
};

class StressTest : public ::testing::Test {
 protected:
  void SetUp() override {
    void* memory = mmap(nullptr, sizeof(Holders), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    holders = new (memory) Holders{};
    if (er::test::runningAsRoot()) {
      group = std::make_unique<er::test::TemporaryGroup>();
      trustees.insert(group->name());
      scopes.emplace_back(group->name(), er::test::groupScope(group->gid()));
    }
    cleanup = std::make_unique<er::test::RegistryCleanup>(tag, scopes);
  }
  void TearDown() override {
    cleanup.reset();
    if (group) std::filesystem::remove_all(er::test::groupScope(group->gid()));
    if (holders != nullptr) munmap(holders, sizeof(Holders));
  }

  // One thread's work until `deadline`; returns the operations done. Leaves
  // `held` with what it still holds. `failures` counts listings that missed
  // one of the thread's own endpoints.
  long churn(int thread, unsigned seed, std::chrono::steady_clock::time_point deadline, std::map<int, Endpoint>& held,
             std::atomic<int>& failures) {
    std::mt19937 random(seed);
    long operations = 0;
    while (std::chrono::steady_clock::now() < deadline) {
      const int k = static_cast<int>(random() % pairsPerThread);
      const int slot = k * threadsPerProcess + thread;
      const unsigned step = random() % 10;
      if (step < 4 && held.count(k) == 0) {
        try {
          Endpoint endpoint(poolPair(thread, k), tag);
          if (++holders->count[slot] > 1) ++holders->overlaps;
          held.emplace(k, std::move(endpoint));
        } catch (const Endpoint::DuplicateEndpointError&) {
        }
      } else if (step < 6 && held.count(k) != 0) {
        --holders->count[slot];  // before the withdrawal, so that the next holder is never counted early
        held.erase(k);
      } else if (step < 7 && group && held.count(k) != 0) {
        Endpoint& endpoint = held.at(k);
        endpoint.setTrustees(endpoint.getTrustees().empty() ? std::set<std::string>{group->name()}
                                                            : std::set<std::string>{});
      } else {
        const Pairs listed = Endpoint::filter(tag, trustees);
        for (const auto& [own, endpoint] : held) {
          if (!std::binary_search(listed.begin(), listed.end(), poolPair(thread, own))) ++failures;
        }
      }
      ++operations;
    }
    return operations;
  }

  // A process of the load: two threads of churn, then quiet; reports its
  // operations and what it holds, lists on request, withdraws on request.
  int process(ChildProcess& self, int index, std::chrono::steady_clock::duration length) {
    if (group && !er::test::setSupplementaryGroups({group->gid()})) return 3;
    const auto deadline = std::chrono::steady_clock::now() + length;
    std::map<int, Endpoint> held[threadsPerProcess];
    long operations[threadsPerProcess] = {};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < threadsPerProcess; ++t) {
      threads.emplace_back(
          [&, t] { operations[t] = churn(t, static_cast<unsigned>(index * 100 + t), deadline, held[t], failures); });
    }
    for (auto& thread : threads) thread.join();
    self.tellParent("ops " + std::to_string(operations[0] + operations[1]));
    for (int t = 0; t < threadsPerProcess; ++t) {
      for (const auto& [k, endpoint] : held[t]) self.tellParent("held " + poolPair(t, k).first);
    }
    self.tellParent("quiet");
    if (self.readFromParent(childTimeout) != "list") return 4;
    for (const auto& [first, second] : Endpoint::filterFromAllTrustees(tag)) self.tellParent("listed " + first);
    self.tellParent("end");
    if (self.readFromParent(childTimeout) != "exit") return 5;
    for (int t = 0; t < threadsPerProcess; ++t) {
      for (auto& [k, endpoint] : held[t]) --holders->count[k * threadsPerProcess + t];
      held[t].clear();
    }
    return failures.load() == 0 ? 0 : 1;
  }

  std::string tag = uniqueName("stressTag");
  Holders* holders = nullptr;
  std::unique_ptr<er::test::TemporaryGroup> group;
  std::set<std::string> trustees{""};
  std::vector<std::pair<std::string, std::string>> scopes{{"", userScope()}};
  std::unique_ptr<er::test::RegistryCleanup> cleanup;
};

TEST_F(StressTest, EightProcessesOfTwoThreadsPublishWithdrawAndList) {
  const auto length =
      std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(stressSeconds()));
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::unique_ptr<ChildProcess>> children;
  for (int i = 0; i < processes; ++i) {
    children.push_back(std::make_unique<ChildProcess>([&, i](ChildProcess& self) { return process(self, i, length); }));
  }
  // Every wait below ends by this time at the latest.
  const auto giveUp = std::chrono::steady_clock::now() + length + 90s;
  auto left = [&] {
    return std::max(1ms,
                    std::chrono::duration_cast<std::chrono::milliseconds>(giveUp - std::chrono::steady_clock::now()));
  };

  // Quiet: what every process holds, and how much it did.
  long operations = 0;
  std::multiset<std::string> held;
  for (auto& child : children) {
    bool quiet = false;
    while (!quiet) {
      const auto line = child->readFromChild(left());
      if (!line) break;
      if (line->rfind("ops ", 0) == 0) operations += std::stol(line->substr(4));
      if (line->rfind("held ", 0) == 0) held.insert(line->substr(5));
      quiet = *line == "quiet";
    }
    ASSERT_TRUE(quiet) << "process " << child->pid() << " did not finish its load in time";
  }
  const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(holders->overlaps.load(), 0) << "a pair was held by two processes at once";
  Pairs expected;
  for (const std::string& first : std::set<std::string>(held.begin(), held.end())) expected.emplace_back(first, "x");
  EXPECT_EQ(expected.size(), held.size()) << "a pair is held twice";
  EXPECT_FALSE(expected.empty());

  // Every process lists exactly what all of them hold, and so does this one.
  EXPECT_EQ(Endpoint::filter(tag, trustees), expected);
  for (auto& child : children) {
    child->tellChild("list");
    std::vector<std::string> listed;
    for (auto line = child->readFromChild(left()); line && *line != "end"; line = child->readFromChild(left())) {
      listed.push_back(line->substr(7));
    }
    std::vector<std::string> firsts;
    for (const auto& pair : expected) firsts.push_back(pair.first);
    EXPECT_EQ(listed, firsts) << "process " << child->pid();
  }

  for (auto& child : children) child->tellChild("exit");
  for (auto& child : children) EXPECT_EQ(child->wait(left()), 0) << "process " << child->pid();
  EXPECT_TRUE(Endpoint::filter(tag, trustees).empty());
  for (const auto& [trustee, scope] : scopes) {
    EXPECT_TRUE(er::test::recordSegmentPids(scope, tag).empty()) << trustee;
    EXPECT_TRUE(er::test::directoryNamePids(tag, trustee).empty()) << trustee;
  }
  std::cout << "stress: " << operations << " ops in " << elapsed << " s = " << static_cast<long>(operations / elapsed)
            << " ops/s (" << processes << " processes x " << threadsPerProcess << " threads"
            << (group ? ", with a group trustee" : "") << ")" << std::endl;
}

// Two threads of each of two processes, each thread on a directory of its
// own: a work thread that waits for one directory while its process holds
// the other must still run its process's unlocks.
TEST(StressDirectories, ThreadsOfTwoProcessesOnTwoDirectoriesNeverDeadlock) {
  const std::string first = uniqueName("erStressX");
  const std::string second = uniqueName("erStressY");
  er::test::ShmCleanup cleanup(userScope(), {first, second});
  auto body = [&](ChildProcess& self) {
    self.readFromParent(childTimeout);
    auto loop = [&](const std::string& name, const std::string& entry) {
      NamedStringArray directory(name, 0, "");
      for (int i = 0; i < 400; ++i) {
        directory.insert(entry);
        directory.erase(entry);
      }
    };
    const std::string me = std::to_string(getpid());
    std::thread a([&] { loop(first, "a" + me); });
    std::thread b([&] { loop(second, "b" + me); });
    a.join();
    b.join();
    return 0;
  };
  ChildProcess one(body);
  ChildProcess two(body);
  one.tellChild("go");
  two.tellChild("go");
  EXPECT_EQ(one.wait(45s), 0);
  EXPECT_EQ(two.wait(45s), 0);
  for (const std::string& name : {first, second}) {
    EXPECT_TRUE(NamedStringArray(name, 0, "").listEntries("").empty());
    NamedStringArray::deleteNamedStringArray(name, 0, "");
  }
}

}  // namespace
}  // namespace agent::spf::endpointregistry
