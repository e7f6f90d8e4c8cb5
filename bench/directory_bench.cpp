// Cost of the name directory as it fills: one insert plus one erase, and one
// listing, in a directory already holding N record names.
//
// With N a multiple of the row increment (10) the directory is full, so the
// insert moves it to a new container and the erase moves it back: both
// rebuild. With N + 5 names there is room, and neither does.
#include <benchmark/benchmark.h>
#include <unistd.h>
#include <string>
#include <utility>

#include "directory/named_string_array.hpp"
#include "directory/segment_names.hpp"

namespace {

using agent::spf::endpointregistry::NamedStringArray;
using agent::spf::endpointregistry::recordName;

// A directory of its own, filled with `count` record names; deleted when done.
class BenchDirectory {
 public:
  explicit BenchDirectory(long count)
      : name("erBenchDir" + std::to_string(getpid()) + "n" + std::to_string(counter++)), array(name, 0, "") {
    for (long i = 0; i < count; ++i) array.insert(nameOf(i));
  }
  ~BenchDirectory() { NamedStringArray::deleteNamedStringArray(name, 0, ""); }
  BenchDirectory(const BenchDirectory&) = delete;
  BenchDirectory& operator=(const BenchDirectory&) = delete;

  static std::string nameOf(long i) {
    return recordName(std::make_pair("host" + std::to_string(i), std::string("4711")), "benchGroup", 0, "");
  }

  std::string name;
  NamedStringArray array;

 private:
  static inline long counter = 0;
};

void insertAndErase(benchmark::State& state, long count) {
  BenchDirectory directory(count);
  const std::string probe = BenchDirectory::nameOf(-1);
  for (auto _ : state) {
    directory.array.insert(probe);
    directory.array.erase(probe);
  }
  state.counters["names"] = static_cast<double>(count);
}

void BM_InsertErase(benchmark::State& state) { insertAndErase(state, state.range(0)); }
void BM_InsertEraseWithRoom(benchmark::State& state) { insertAndErase(state, state.range(0) + 5); }

void BM_ListEntries(benchmark::State& state) {
  BenchDirectory directory(state.range(0));
  const std::string prefix = "qzER";
  std::size_t listed = 0;
  for (auto _ : state) {
    auto entries = directory.array.listEntries(prefix);
    listed = entries.size();
    benchmark::DoNotOptimize(entries);
  }
  state.counters["listed"] = static_cast<double>(listed);
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}

BENCHMARK(BM_InsertErase)->Arg(10)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_InsertEraseWithRoom)->Arg(10)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ListEntries)->Arg(10)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
