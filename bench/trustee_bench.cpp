// Trustees: listFromAllTrustees with 0 and with 2 trustee groups, and the
// publication of an endpoint under 2 trustees.
//
// The process is given the supplementary groups it needs for the run (root
// only; otherwise the figures are skipped): none, or the two groups of
// lowest non-zero id in the group database. 100 endpoints are published by
// this process; with 2 groups each also goes under both groups, so a
// listing reads 300 records for 100 results. The directory reads alone (one
// per trustee) are timed alongside.
#include <benchmark/benchmark.h>
#include <unistd.h>
#include <set>
#include <string>
#include <vector>

#include <endpointregistry/endpoint.hpp>

#include "bench_processes.hpp"
#include "bench_support.hpp"
#include "directory/directory_entry.hpp"

namespace {

using agent::spf::endpointregistry::Endpoint;
using agent::spf::endpointregistry::listDirectoryNames;
using erbench::Plan;
using erbench::Samples;
using erbench::SupplementaryGroups;

constexpr long endpointCount = 100;

struct Groups {
  std::vector<gid_t> ids;
  std::set<std::string> names;
};

// The two trustee groups, or an empty set when the run cannot use them.
Groups trusteeGroups() {
  Groups groups;
  if (geteuid() != 0) return groups;
  for (const auto& [id, name] : SupplementaryGroups::twoTrusteeGroups()) {
    groups.ids.push_back(id);
    groups.names.insert(name);
  }
  if (groups.ids.size() != 2) return {};
  return groups;
}

void listAllTrustees(benchmark::State& state, bool withGroups) {
  const Groups groups = trusteeGroups();
  if (groups.ids.empty()) {
    state.SkipWithError("needs root and two groups in the group database");
    for (auto _ : state) {
    }
    return;
  }
  SupplementaryGroups membership(withGroups ? groups.ids : std::vector<gid_t>{});
  if (!membership.applied()) {
    state.SkipWithError("setgroups failed");
    for (auto _ : state) {
    }
    return;
  }
  const std::string tag = erbench::uniqueName("erBenchTrustees");
  std::vector<Endpoint> endpoints;
  for (long i = 0; i < endpointCount; ++i) {
    endpoints.emplace_back(Endpoint::publish("10.2.0." + std::to_string(i), "443", tag));
    if (withGroups) endpoints.back().addTrustees(groups.names);
  }
  std::set<std::string> trustees{""};
  if (withGroups) trustees.insert(groups.names.begin(), groups.names.end());

  Samples samples;
  Samples directory;
  std::size_t listed = 0;
  for (auto _ : state) {
    samples.time(state, [&] {
      auto result = Endpoint::listFromAllTrustees();
      listed = result.size();
      benchmark::DoNotOptimize(result);
    });
    const auto start = erbench::Clock::now();
    for (const std::string& trustee : trustees) benchmark::DoNotOptimize(listDirectoryNames("qzER", trustee));
    directory.addSide(erbench::Clock::now() - start);
  }
  if (static_cast<long>(listed) < endpointCount) state.SkipWithError("fewer endpoints listed than published");
  const double recordsRead = static_cast<double>(endpointCount * static_cast<long>(trustees.size()));
  samples.report(state, recordsRead);
  directory.report(state, recordsRead, "dir_");
  state.counters["trustees"] = static_cast<double>(trustees.size());
}

// Publish under the own trustee and 2 groups, then withdraw all three
// records; another endpoint of the process stays alive meanwhile.
void publishWithTrustees(benchmark::State& state) {
  const Groups groups = trusteeGroups();
  SupplementaryGroups membership(groups.ids);
  if (groups.ids.empty() || !membership.applied()) {
    state.SkipWithError("needs root and two groups in the group database");
    for (auto _ : state) {
    }
    return;
  }
  const std::string tag = erbench::uniqueName("erBenchPubTrustees");
  Endpoint other = Endpoint::publish("beside", "1", tag);
  static long serial = 0;
  Samples samples;
  for (auto _ : state) {
    const std::string first = "trusted" + std::to_string(serial++);
    samples.time(state, [&] {
      Endpoint endpoint = Endpoint::publish(first, "4711", tag);
      endpoint.addTrustees(groups.names);
    });
  }
  samples.report(state, 3);
}

void registerFigures(const Plan& plan) {
  erbench::figure(
      "listFromAllTrustees/0 groups", [](auto& s) { listAllTrustees(s, false); }, plan.iterations(300));
  erbench::figure(
      "listFromAllTrustees/2 groups", [](auto& s) { listAllTrustees(s, true); }, plan.iterations(300));
  erbench::figure("publish+withdraw/2 trustees", publishWithTrustees, plan.iterations(500));
}

}  // namespace

int main(int argc, char** argv) { return erbench::runBenchmarks(argc, argv, registerFigures); }
