// Processes coming and going:
// - the time from SIGKILL of a publisher to the first listing that no
//   longer shows its endpoint, against its floor: SIGKILL of a child to its
//   reaping;
// - healing: three publishers' record segments removed, and this user's
//   whole scope folder removed (rm -rf, which the publishers race), each
//   until a listing shows all three endpoints again, with no call from the
//   publishers. (The second removes the running user's scope folder; every
//   live publication of the user is made again within milliseconds.)
#include <benchmark/benchmark.h>
#include <unistd.h>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <endpointregistry/endpoint.hpp>

#include "directory/segment_names.hpp"
#include "discovery/kept_records.hpp"

#include "bench_processes.hpp"
#include "bench_support.hpp"

namespace {

using agent::spf::endpointregistry::Endpoint;
using agent::spf::endpointregistry::KeptRecords;
using erbench::Plan;
using erbench::Samples;

// A child that blocks until killed.
std::unique_ptr<erbench::ChildHolding> sleeper() {
  return std::make_unique<erbench::ChildHolding>([] { return [] {}; });
}

void killToReaped(benchmark::State& state) {
  Samples samples;
  for (auto _ : state) {
    auto child = sleeper();
    samples.time(state, [&] {
      child->kill();
      child->letGo();
    });
  }
  samples.report(state);
}

// Each iteration: a child publishes one endpoint; it is killed, and this
// process lists (filters by the endpoint's tag) until the endpoint is gone.
// This process holds no endpoint, as a plain lister would not.
void killToGone(benchmark::State& state) {
  Samples samples;
  long listings = 0;
  for (auto _ : state) {
    const std::string tag = erbench::uniqueName("erBenchKill");
    erbench::ChildHolding child([&tag] {
      auto endpoint = std::make_shared<Endpoint>(Endpoint::publish("10.9.9.9", "1", tag));
      return [endpoint] {};
    });
    if (Endpoint::filterFromLocal(tag).size() != 1) {
      state.SkipWithError("the child's endpoint is not listed");
      break;
    }
    samples.time(state, [&] {
      child.kill();
      do {
        ++listings;
      } while (!Endpoint::filterFromLocal(tag).empty());
    });
  }
  samples.report(state);
  state.counters["listings"] = static_cast<double>(listings) / static_cast<double>(samples.size());
}

// Three children that publish ("healed", i) under `tag` and hold it.
std::vector<std::unique_ptr<erbench::ChildHolding>> threePublishers(const std::string& tag) {
  std::vector<std::unique_ptr<erbench::ChildHolding>> publishers;
  for (int i = 0; i < 3; ++i) {
    publishers.push_back(std::make_unique<erbench::ChildHolding>([&tag, i] {
      auto endpoint = std::make_shared<Endpoint>(Endpoint::publish("healed", std::to_string(i), tag));
      return [endpoint] {};
    }));
  }
  return publishers;
}

// Each iteration removes what `remove` removes, then lists until the three
// endpoints are listed again; only that wait is timed.
template <class Remove>
void removedToListedAgain(benchmark::State& state, const std::string& stem, const Remove& remove) {
  const std::string tag = erbench::uniqueName(stem);
  const auto publishers = threePublishers(tag);
  // A publisher starts watching its records 50 ms after its first
  // publication (and then looks for damage done before): healing from then on
  // is what is timed.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  Samples samples;
  long listings = 0;
  for (auto _ : state) {
    // The publishers may still be finishing the last healing.
    const auto patience = erbench::Clock::now() + std::chrono::seconds(2);
    std::size_t listed = 0;
    while ((listed = Endpoint::filterFromLocal(tag).size()) != 3 && erbench::Clock::now() < patience) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (listed != 3) {
      state.SkipWithError("the publishers' endpoints are not listed");
      break;
    }
    remove(tag);
    samples.time(state, [&] {
      do {
        // Each listing a first one: a listing that kept the records mapped
        // would show them, still held by their publishers, before they are
        // published again, which is what is timed here.
        KeptRecords::ofProcess().clear();
        ++listings;
      } while (Endpoint::filterFromLocal(tag).size() != 3);
    });
  }
  samples.report(state);
  state.counters["listings"] = static_cast<double>(listings) / static_cast<double>(samples.size());
}

std::string ownScopeFolder() { return "/dev/shm/u" + std::to_string(geteuid()); }

void recordsRemovedToListedAgain(benchmark::State& state) {
  removedToListedAgain(state, "erBenchHealRecords", [](const std::string& tag) {
    const std::string prefix = agent::spf::endpointregistry::groupPrefix(tag);
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(ownScopeFolder(), ignored)) {
      if (entry.path().filename().string().rfind(prefix, 0) == 0) std::filesystem::remove(entry.path(), ignored);
    }
  });
}

void folderRemovedToListedAgain(benchmark::State& state) {
  removedToListedAgain(state, "erBenchHealFolder", [](const std::string&) {
    // As rm -rf: the healers may refill the folder before its last rmdir.
    std::error_code ignored;
    std::filesystem::remove_all(ownScopeFolder(), ignored);
  });
}

void registerFigures(const Plan& plan) {
  erbench::figure("floor/SIGKILL to reaped", killToReaped, plan.iterations(200));
  erbench::figure("SIGKILL to gone from listing", killToGone, plan.iterations(200));
  erbench::figure("healing/record segments removed", recordsRemovedToListedAgain, plan.iterations(100));
  erbench::figure("healing/scope folder removed", folderRemovedToListedAgain, plan.iterations(100));
}

}  // namespace

int main(int argc, char** argv) { return erbench::runBenchmarks(argc, argv, registerFigures); }
