// Publishing, withdrawing, listing and filtering endpoints through the
// public class, with N endpoints live.
//
// - publish+withdraw of one endpoint (new data each time): alone in the
//   process (each cycle starts and joins the work thread), beside one other
//   endpoint of the process (with a record name as long as the cycle's, and
//   with a shorter one, which makes each cycle widen and narrow the
//   directory), and beside N of them (the curve of publication
//   cost against directory size, with the directory work one publication
//   does at that size timed alongside);
// - listing and filtering with N live endpoints, published by this process
//   or by 4 other processes, with the directory read timed alongside: a
//   process that lists again (reading the records it keeps mapped), and,
//   for 4 other processes, each listing a first one (and, for a lister
//   that holds no endpoint, the listing with the work thread kept alive).
#include <benchmark/benchmark.h>
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <endpointregistry/endpoint.hpp>

#include "bench_processes.hpp"
#include "bench_support.hpp"
#include "concurrency/work_queue.hpp"
#include "directory/directory_entry.hpp"
#include "directory/segment_names.hpp"
#include "discovery/kept_records.hpp"

namespace {

using agent::spf::endpointregistry::DirectoryEntry;
using agent::spf::endpointregistry::Endpoint;
using agent::spf::endpointregistry::KeptRecords;
using agent::spf::endpointregistry::listDirectoryNames;
using agent::spf::endpointregistry::synonymPrefix;
using agent::spf::endpointregistry::WorkThreadGuard;
using erbench::Plan;
using erbench::Samples;

// Group tags: the population's endpoints are spread over this many tags, so
// that a filter by one tag reads a tenth of them.
constexpr long tagsPerPopulation = 10;

std::string dataOf(long i) { return "10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250); }

// Endpoints published by this process, kept across figures and grown as the
// sweep goes on (sizes ascend).
class Population {
 public:
  const std::string& tagBase() const { return base; }
  std::string tag(long i) const { return base + "t" + std::to_string(i % tagsPerPopulation); }
  long size() const { return static_cast<long>(endpoints.size()); }

  // Publishes endpoints until `count` are live; returns the mean time of one
  // publication in nanoseconds (0 when none was needed).
  double grow(long count) {
    const long first = size();
    if (count <= first) return 0;
    const auto start = erbench::Clock::now();
    for (long i = first; i < count; ++i) endpoints.emplace_back(Endpoint::publish(dataOf(i), "8080", tag(i)));
    const auto elapsed = erbench::Clock::now() - start;
    return static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count()) /
           static_cast<double>(count - first);
  }
  void clear() { endpoints.clear(); }

 private:
  std::string base = erbench::uniqueName("erBenchPop");
  std::vector<Endpoint> endpoints;
};

Population& population() {
  static Population thePopulation;
  return thePopulation;
}

// New data for each cycle, all of one length ("cycle00000042").
std::string cycleData(long serial) {
  char text[32];
  std::snprintf(text, sizeof text, "cycle%08ld", serial % 100000000);
  return text;
}

// Publishes and withdraws one endpoint per iteration, new data each time.
void publishWithdraw(benchmark::State& state, Samples& samples, const std::string& tag) {
  static long serial = 0;
  for (auto _ : state) {
    const std::string first = cycleData(serial++);
    samples.time(state, [&] {
      Endpoint endpoint = Endpoint::publish(first, "4711", tag);
      benchmark::DoNotOptimize(endpoint);
    });
  }
}

void publishAlone(benchmark::State& state) {
  Samples samples;
  publishWithdraw(state, samples, erbench::uniqueName("erBenchAlone"));
  samples.report(state);
}

// Beside another endpoint of the process, published with `first` and
// `second` under the same tag.
void publishBesideOther(benchmark::State& state, const std::string& stem, const std::string& first,
                        const std::string& second) {
  const std::string tag = erbench::uniqueName(stem);
  Endpoint other = Endpoint::publish(first, second, tag);
  Samples samples;
  publishWithdraw(state, samples, tag);
  samples.report(state);
}

// The other record name is as long as the cycle's: the directory keeps its
// row width.
void publishBeside(benchmark::State& state) { publishBesideOther(state, "erBenchBeside", "cycle-beside", "4711"); }

// The other record name is shorter than the cycle's: each publication
// widens the directory's rows (a new container) and each withdrawal narrows
// them again (another one).
void publishWidening(benchmark::State& state) { publishBesideOther(state, "erBenchWiden", "short", "1"); }

// The directory work of one publication and withdrawal at this size: the
// two synonym counts read the directory, the record's name goes in and out.
void directoryWorkOfOnePublication(const std::string& name, const std::string& prefix) {
  benchmark::DoNotOptimize(listDirectoryNames(prefix, ""));
  DirectoryEntry entry(name, "");
  benchmark::DoNotOptimize(listDirectoryNames(prefix, ""));
}

// Publication beside n live endpoints of this process; the directory work
// of one publication at that size is timed in alternate iterations.
void publishBesideN(benchmark::State& state, long n) {
  const double setupPerEndpoint = population().grow(n);
  const std::string tag = population().tag(0);
  static long serial = 0;
  Samples samples;
  Samples directory;
  for (auto _ : state) {
    const std::string first = "curve" + std::to_string(serial++);
    samples.time(state, [&] {
      Endpoint endpoint = Endpoint::publish(first, "4711", tag);
      benchmark::DoNotOptimize(endpoint);
    });
    const auto pair = std::make_pair(first, std::string("4712"));
    const std::string name = agent::spf::endpointregistry::recordName(pair, tag, 0, "");
    const std::string prefix = synonymPrefix(pair, tag);
    const auto start = erbench::Clock::now();
    directoryWorkOfOnePublication(name, prefix);
    directory.addSide(erbench::Clock::now() - start);
  }
  samples.report(state);
  directory.report(state, 1, "dir_");
  state.counters["live"] = static_cast<double>(n);
  if (setupPerEndpoint > 0) state.counters["setup_per_endpoint_ns"] = setupPerEndpoint;
}

// One listing (or filter by one tag) per iteration; the directory read
// alone (the names under the same prefix) is timed alongside. A process
// that holds no endpoint starts and joins the work thread for each
// directory read; with `alsoHeld` the listing is timed a third time while a
// work-thread guard is kept, which shows what that costs.
// With `first`, the process forgets the records its listings keep mapped
// before each one (not timed): each listing is a first listing.
template <class Listing>
void timeListing(benchmark::State& state, const Listing& listing, const std::string& prefix, long expected,
                 bool alsoHeld = false, bool first = false) {
  Samples samples;
  Samples directory;
  Samples held;
  std::size_t listed = 0;
  for (auto _ : state) {
    if (first) KeptRecords::ofProcess().clear();
    samples.time(state, [&] {
      auto result = listing();
      listed = result.size();
      benchmark::DoNotOptimize(result);
    });
    auto start = erbench::Clock::now();
    benchmark::DoNotOptimize(listDirectoryNames(prefix, ""));
    directory.addSide(erbench::Clock::now() - start);
    if (alsoHeld) {
      if (first) KeptRecords::ofProcess().clear();
      WorkThreadGuard keep([] {});
      start = erbench::Clock::now();
      benchmark::DoNotOptimize(listing());
      held.addSide(erbench::Clock::now() - start);
    }
  }
  if (static_cast<long>(listed) < expected) {
    state.SkipWithError(("listed " + std::to_string(listed) + " of " + std::to_string(expected)).c_str());
  }
  samples.report(state, static_cast<double>(expected));
  directory.report(state, static_cast<double>(expected), "dir_");
  if (alsoHeld) held.report(state, static_cast<double>(expected), "held_");
}

void listOwn(benchmark::State& state, long n) {
  population().grow(n);
  timeListing(
      state, [] { return Endpoint::listFromLocal(); }, "qzER", n);
}

void filterOwn(benchmark::State& state, long n) {
  population().grow(n);
  const std::string tag = population().tag(3);
  timeListing(
      state, [&] { return Endpoint::filterFromLocal(tag); }, agent::spf::endpointregistry::groupPrefix(tag),
      n / tagsPerPopulation);
}

// Four other processes publish n endpoints between them, spread over ten
// tags as the population is; this process holds none.
class FourPublishers {
 public:
  explicit FourPublishers(long n) {
    for (int p = 0; p < 4; ++p) {
      const long from = n * p / 4;
      const long to = n * (p + 1) / 4;
      children.push_back(std::make_unique<erbench::ChildHolding>([this, from, to] {
        auto held = std::make_shared<std::vector<Endpoint>>();
        for (long i = from; i < to; ++i) {
          held->emplace_back(Endpoint::publish(dataOf(i), "9090", tag(i)));
        }
        return [held] {};
      }));
    }
  }
  std::string tag(long i) const { return base + "t" + std::to_string(i % tagsPerPopulation); }

 private:
  std::string base = erbench::uniqueName("erBenchFour");
  std::vector<std::unique_ptr<erbench::ChildHolding>> children;
};

// The four publishers of the current size, kept for the figures of that size.
std::unique_ptr<FourPublishers>& fourPublishersSlot() {
  static std::unique_ptr<FourPublishers> slot;
  return slot;
}

FourPublishers& fourPublishers(long n) {
  static long current = -1;
  auto& slot = fourPublishersSlot();
  if (!slot || current != n) {
    population().clear();  // only the four publishers' endpoints are listed
    slot.reset();
    slot = std::make_unique<FourPublishers>(n);
    current = n;
  }
  return *slot;
}

void listFour(benchmark::State& state, long n, bool first) {
  fourPublishers(n);
  // A first listing is also timed with the work thread kept alive (held_),
  // to show what the thread's start costs it; a listing again starts none.
  timeListing(
      state, [] { return Endpoint::listFromLocal(); }, "qzER", n, first, first);
}

void filterFour(benchmark::State& state, long n) {
  const std::string tag = fourPublishers(n).tag(3);
  timeListing(
      state, [&] { return Endpoint::filterFromLocal(tag); }, agent::spf::endpointregistry::groupPrefix(tag),
      n / tagsPerPopulation);
}

void registerFigures(const Plan& plan) {
  erbench::figure("publish+withdraw/alone", publishAlone, plan.iterations(400));
  erbench::figure("publish+withdraw/beside", publishBeside, plan.iterations(1000));
  erbench::figure("publish+withdraw/widening", publishWidening, plan.iterations(400));
  for (long n : plan.sizes()) {
    const std::string size = std::to_string(n);
    erbench::figure(
        "publish+withdraw/own:" + size, [n](auto& s) { publishBesideN(s, n); }, plan.sweepIterations(n, 400));
    erbench::figure(
        "list/own:" + size, [n](auto& s) { listOwn(s, n); }, plan.sweepIterations(n, 400));
    erbench::figure(
        "filter/own:" + size, [n](auto& s) { filterOwn(s, n); }, plan.sweepIterations(n, 400));
  }
  for (long n : plan.sizes()) {
    const std::string size = std::to_string(n);
    erbench::figure(
        "list/four:" + size, [n](auto& s) { listFour(s, n, false); }, plan.sweepIterations(n, 400));
    erbench::figure(
        "list/four first:" + size, [n](auto& s) { listFour(s, n, true); }, plan.sweepIterations(n, 400));
    erbench::figure(
        "filter/four:" + size, [n](auto& s) { filterFour(s, n); }, plan.sweepIterations(n, 400));
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int code = erbench::runBenchmarks(argc, argv, registerFigures);
  fourPublishersSlot().reset();
  population().clear();
  return code;
}
