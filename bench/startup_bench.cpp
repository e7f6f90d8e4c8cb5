// Whole processes, from posix_spawn to their reaping, against a bare
// process (a C++ program that links only the standard library) started in
// the same iterations, first and second in turn, so that the machine's
// drift does not enter the ratio:
// - startup/bare process: the floor on its own;
// - startup/linked, never called: a program that links the library and
//   does not call it;
// - startup/publishes one endpoint: a new process publishes one endpoint
//   and ends (withdrawing it);
// - startup/bus client owns a name: a new process connects to a private
//   bus, owns a name and ends (the bus's counterpart of the previous one).
// The started programs are bench/startup/*.cpp, built beside this one.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "bench_bus.hpp"
#include "bench_processes.hpp"
#include "bench_support.hpp"

namespace {

using erbench::Clock;
using erbench::Plan;
using erbench::Samples;

// The directory this program runs from, where the started programs are.
const std::string& ownDirectory() {
  static const std::string directory = [] {
    std::vector<char> buffer(4096);
    const ssize_t n = readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
    const std::string self = n > 0 ? std::string(buffer.data(), static_cast<std::size_t>(n)) : std::string();
    return self.substr(0, self.rfind('/') + 1);
  }();
  return directory;
}

// Starts `program` (beside this one) with `arguments` and waits for it to
// end: the time from the spawn to its reaping, or nothing when it could not
// be started or did not end with status 0.
std::optional<Clock::duration> runWhole(const std::string& program, const std::vector<std::string>& arguments) {
  std::vector<std::string> words{ownDirectory() + program};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  const auto start = Clock::now();
  pid_t pid = -1;
  if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return std::nullopt;
  // Waited for through a pidfd, so that a program that hangs is killed
  // after a minute instead of holding the run for ever. Both programs of a
  // ratio are waited for the same way.
  const int exited = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (exited >= 0) {
    pollfd wait{exited, POLLIN, 0};
    int ready = 0;
    while ((ready = poll(&wait, 1, 60'000)) < 0 && errno == EINTR) {
    }
    close(exited);
    if (ready == 0) kill(pid, SIGKILL);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return std::nullopt;
  }
  const auto elapsed = Clock::now() - start;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
  return elapsed;
}

void bareProcess(benchmark::State& state) {
  Samples samples;
  for (auto _ : state) {
    const auto elapsed = runWhole("start_bare", {});
    if (!elapsed) {
      state.SkipWithError("start_bare failed");
      break;
    }
    samples.add(state, *elapsed);
  }
  samples.report(state);
}

// Times `program` once per iteration, and a bare process beside it; the
// bare process is reported as the counters start_median_ns and start_p99_ns.
void besideBare(benchmark::State& state, const std::string& program,
                const std::function<std::vector<std::string>()>& arguments) {
  Samples samples;
  Samples floor;
  bool floorFirst = true;
  for (auto _ : state) {
    const std::vector<std::string> these = arguments();
    std::optional<Clock::duration> floorElapsed;
    if (floorFirst) floorElapsed = runWhole("start_bare", {});
    const std::optional<Clock::duration> elapsed = runWhole(program, these);
    if (!floorFirst) floorElapsed = runWhole("start_bare", {});
    floorFirst = !floorFirst;
    if (!elapsed || !floorElapsed) {
      state.SkipWithError((program + " failed").c_str());
      break;
    }
    samples.add(state, *elapsed);
    floor.addSide(*floorElapsed);
  }
  samples.report(state);
  floor.report(state, 1, "start_");
}

void registerFigures(const Plan& plan) {
  const long iterations = plan.iterations(300);
  erbench::figure("startup/bare process", bareProcess, iterations);
  erbench::figure(
      "startup/linked, never called",
      [](auto& state) { besideBare(state, "start_linked", [] { return std::vector<std::string>{}; }); }, iterations);
  erbench::figure(
      "startup/publishes one endpoint",
      [](auto& state) {
        const std::string tag = erbench::uniqueName("erBenchStart");
        besideBare(state, "start_publish", [&tag] { return std::vector<std::string>{tag}; });
      },
      iterations);
  if (access((ownDirectory() + "start_bus").c_str(), X_OK) == 0) {
    erbench::figure(
        "startup/bus client owns a name",
        [](auto& state) {
          const std::string& address = erbench::busAddress();
          besideBare(state, "start_bus", [&address] {
            return std::vector<std::string>{address, "org.erbench.start." + erbench::uniqueName("p")};
          });
        },
        iterations);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int code = erbench::runBenchmarks(argc, argv, registerFigures);
  erbench::daemonSlot().reset();
  return code;
}
