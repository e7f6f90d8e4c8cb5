// Change notification: how soon a Watcher tells, what an idle one costs, and
// what one re-read after an event costs. Their bus counterparts (the
// NameOwnerChanged signal) are in bus_bench.cpp.
//
// - watch/publish to event: this process publishes and waits for the
//   watcher's "appeared";
// - watch/withdraw to event: it withdraws and waits for "disappeared";
// - watch/SIGKILL to event: a child holding an endpoint is killed; this
//   process waits for "disappeared";
// - watch/idle CPU: the CPU time this process uses while the watcher waits
//   for 10 s with 10 live endpoints and nothing changing;
// - watch/re-read:N: one changes() after an event (a record's times set)
//   with N live endpoints held by a child.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <agent/spf/sharedmemory/shared_memory.hpp>
#include <endpointregistry/endpoint.hpp>
#include <endpointregistry/watcher.hpp>

#include "bench_processes.hpp"
#include "bench_support.hpp"
#include "directory/segment_names.hpp"

namespace {

using agent::spf::endpointregistry::Endpoint;
using agent::spf::endpointregistry::EndpointChange;
using agent::spf::endpointregistry::Watcher;
using erbench::Plan;
using erbench::Samples;

constexpr auto patience = std::chrono::seconds(10);

// Waits for an event of `kind`; false when none comes in time.
bool awaitEvent(Watcher& watcher, EndpointChange::Kind kind) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (std::chrono::steady_clock::now() < deadline) {
    for (const EndpointChange& change : watcher.waitForChanges(patience)) {
      if (change.kind == kind) return true;
    }
  }
  return false;
}

void publishToEvent(benchmark::State& state, bool timeWithdrawal) {
  const std::string tag = erbench::uniqueName("erBenchWatch");
  // A kept endpoint keeps the work thread, as in a process that publishes.
  const Endpoint keeper = Endpoint::publish("keeper", "1", tag + "-keeper");
  Watcher watcher(tag, {""});
  (void)watcher.changes();
  Samples samples;
  long serial = 0;
  for (auto _ : state) {
    Endpoint endpoint;
    const auto publish = [&] {
      endpoint = Endpoint::publish("10.9.9.9", std::to_string(serial++), tag);
      return awaitEvent(watcher, EndpointChange::Appeared);
    };
    const auto withdraw = [&] {
      endpoint.reset();
      return awaitEvent(watcher, EndpointChange::Disappeared);
    };
    bool seen = false;
    if (timeWithdrawal) {
      const bool appeared = publish();
      samples.time(state, [&] { seen = withdraw() && appeared; });
    } else {
      samples.time(state, [&] { seen = publish(); });
      seen = withdraw() && seen;
    }
    if (!seen) {
      state.SkipWithError("the watcher missed an event");
      break;
    }
  }
  samples.report(state);
}

void killToEvent(benchmark::State& state) {
  const std::string tag = erbench::uniqueName("erBenchWatchKill");
  Watcher watcher(tag, {""});
  (void)watcher.changes();
  Samples samples;
  for (auto _ : state) {
    erbench::ChildHolding child([&tag] {
      auto endpoint = std::make_shared<Endpoint>(Endpoint::publish("10.9.9.9", "1", tag));
      return [endpoint] {};
    });
    if (!awaitEvent(watcher, EndpointChange::Appeared)) {
      state.SkipWithError("the child's endpoint did not appear");
      break;
    }
    bool seen = false;
    samples.time(state, [&] {
      child.kill();
      seen = awaitEvent(watcher, EndpointChange::Disappeared);
    });
    child.letGo();
    if (!seen) {
      state.SkipWithError("the watcher missed the death");
      break;
    }
  }
  samples.report(state);
}

std::chrono::nanoseconds cpuTime() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return std::chrono::seconds(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         std::chrono::microseconds(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

// Holds `n` endpoints of `tag` in a child.
std::unique_ptr<erbench::ChildHolding> holdEndpoints(const std::string& tag, long n) {
  return std::make_unique<erbench::ChildHolding>([&tag, n] {
    auto held = std::make_shared<std::vector<Endpoint>>();
    held->reserve(static_cast<std::size_t>(n));
    for (long i = 0; i < n; ++i) held->push_back(Endpoint::publish("10.9.9.9", std::to_string(i), tag));
    return [held] {};
  });
}

void idleCpu(benchmark::State& state, std::chrono::milliseconds quiet) {
  const std::string tag = erbench::uniqueName("erBenchIdle");
  const auto holder = holdEndpoints(tag, 10);
  Watcher watcher(tag, {""});
  if (watcher.changes().size() != 10) state.SkipWithError("the endpoints are not listed");
  Samples samples;
  for (auto _ : state) {
    const auto before = cpuTime();
    pollfd readable{watcher.fileDescriptor(), POLLIN, 0};
    const int ready = poll(&readable, 1, static_cast<int>(quiet.count()));
    const auto used = cpuTime() - before;
    samples.add(state, used);
    if (ready != 0) state.SkipWithError("the watcher woke although nothing changed");
  }
  samples.report(state);
}

void reread(benchmark::State& state, long n) {
  const std::string tag = erbench::uniqueName("erBenchReread");
  const auto holder = holdEndpoints(tag, n);
  Watcher watcher(tag, {""});
  if (static_cast<long>(watcher.changes().size()) != n) state.SkipWithError("the endpoints are not listed");
  const std::string scope = agent::spf::sharedmemory::scopeFolderPath("");
  // A record of the tag, whose times are set to make an event.
  std::string record;
  for (const std::string& name :
       agent::spf::sharedmemory::listSegmentNames("", agent::spf::endpointregistry::groupPrefix(tag))) {
    record = name;
    break;
  }
  Samples samples;
  for (auto _ : state) {
    utimensat(AT_FDCWD, (scope + "/" + record).c_str(), nullptr, 0);
    pollfd readable{watcher.fileDescriptor(), POLLIN, 0};
    if (poll(&readable, 1, 10000) != 1) {
      state.SkipWithError("no event");
      break;
    }
    std::size_t changed = 0;
    samples.time(state, [&] { changed = watcher.changes().size(); });
    if (changed != 0) state.SkipWithError("a re-read found a change where there was none");
  }
  samples.report(state, static_cast<double>(n));
}

void registerFigures(const Plan& plan) {
  erbench::figure(
      "watch/publish to event", [](auto& s) { publishToEvent(s, false); }, plan.iterations(500));
  erbench::figure(
      "watch/withdraw to event", [](auto& s) { publishToEvent(s, true); }, plan.iterations(500));
  erbench::figure("watch/SIGKILL to event", killToEvent, plan.iterations(200));
  const auto quiet = plan.smoke ? std::chrono::milliseconds(200) : std::chrono::milliseconds(10000);
  erbench::figure(
      "watch/idle CPU", [quiet](auto& s) { idleCpu(s, quiet); }, 1);
  for (long n : plan.sizes()) {
    if (n == 100) continue;  // 10, 1,000 and 10,000 tell the growth
    erbench::figure(
        "watch/re-read:" + std::to_string(n), [n](auto& s) { reread(s, n); }, plan.sweepIterations(n, 200));
  }
}

}  // namespace

int main(int argc, char** argv) { return erbench::runBenchmarks(argc, argv, registerFigures); }
