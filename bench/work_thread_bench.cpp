// The hand-off of one job to the process's work thread, against its floor:
// a promise and future handed to a worker thread that sleeps on a condition
// variable (a queue as plain as it can be), and the start and join of a
// thread.
//
// - floor/promise+future hand-off: the floor queue, its worker asleep;
// - hand-off/held: WorkThreadGuard::executeAndSet while a guard keeps the
//   work thread alive, back to back, and after the worker has been idle
//   for 2 ms (asleep);
// - hand-off/unheld: executeAndSet with no guard alive, which starts the
//   work thread, runs the job and joins the thread;
// - floor/thread start+join.
#include <benchmark/benchmark.h>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

#include "bench_support.hpp"
#include "concurrency/work_queue.hpp"

namespace {

using agent::spf::endpointregistry::WorkThreadGuard;
using erbench::Plan;
using erbench::Samples;

// The plainest queue of jobs for one worker thread: every push wakes the
// worker through the condition variable, every result comes back through a
// promise. `idle` tells when the worker is waiting, so that each timed
// hand-off meets it asleep.
class FloorQueue {
 public:
  FloorQueue() : worker([this] { run(); }) {}
  ~FloorQueue() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      stop = true;
    }
    condition.notify_all();
    worker.join();
  }
  FloorQueue(const FloorQueue&) = delete;
  FloorQueue& operator=(const FloorQueue&) = delete;

  void push(std::function<void()> job) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      jobs.push_back(std::move(job));
      idle = false;
    }
    condition.notify_one();
  }

  // Waits (untimed) until the worker is asleep on the condition variable.
  void awaitIdle() {
    for (;;) {
      {
        std::lock_guard<std::mutex> lock(mutex);
        if (idle) return;
      }
      std::this_thread::yield();
    }
  }

 private:
  void run() {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
      idle = jobs.empty();
      condition.wait(lock, [this] { return stop || !jobs.empty(); });
      if (stop) return;
      std::function<void()> job = std::move(jobs.front());
      jobs.pop_front();
      lock.unlock();
      job();
      lock.lock();
    }
  }

  std::mutex mutex;
  bool stop = false;
  bool idle = false;
  std::deque<std::function<void()>> jobs;
  std::condition_variable condition;
  std::thread worker;
};

void promiseFutureHandOff(benchmark::State& state) {
  FloorQueue queue;
  Samples samples;
  int sum = 0;
  for (auto _ : state) {
    queue.awaitIdle();
    samples.time(state, [&] {
      auto promise = std::make_shared<std::promise<int>>();
      std::future<int> future = promise->get_future();
      queue.push([promise] { promise->set_value(1); });
      sum += future.get();
    });
  }
  benchmark::DoNotOptimize(sum);
  samples.report(state);
}

int runOnWorkThread(WorkThreadGuard* keep = nullptr) {
  int result = 0;
  WorkThreadGuard guard = WorkThreadGuard::executeAndSet([] { return 1; }, result);
  if (keep != nullptr) *keep = std::move(guard);
  return result;
}

void handOffHeld(benchmark::State& state, std::chrono::microseconds idleBefore) {
  WorkThreadGuard keep([] {});
  Samples samples;
  int sum = 0;
  for (auto _ : state) {
    if (idleBefore.count() > 0) std::this_thread::sleep_for(idleBefore);
    samples.time(state, [&] { sum += runOnWorkThread(); });
  }
  benchmark::DoNotOptimize(sum);
  samples.report(state);
}

void handOffUnheld(benchmark::State& state) {
  Samples samples;
  int sum = 0;
  for (auto _ : state) {
    samples.time(state, [&] { sum += runOnWorkThread(); });
  }
  benchmark::DoNotOptimize(sum);
  samples.report(state);
}

void threadStartJoin(benchmark::State& state) {
  Samples samples;
  for (auto _ : state) {
    samples.time(state, [] {
      std::thread thread([] {});
      thread.join();
    });
  }
  samples.report(state);
}

void registerFigures(const Plan& plan) {
  using namespace std::chrono_literals;
  erbench::figure("floor/promise+future hand-off", promiseFutureHandOff, plan.iterations(5000));
  erbench::figure(
      "hand-off/held, back to back", [](auto& s) { handOffHeld(s, 0us); }, plan.iterations(20000));
  erbench::figure(
      "hand-off/held, worker asleep", [](auto& s) { handOffHeld(s, 2000us); }, plan.iterations(1000));
  erbench::figure("hand-off/unheld, start+join", handOffUnheld, plan.iterations(3000));
  erbench::figure("floor/thread start+join", threadStartJoin, plan.iterations(3000));
}

}  // namespace

int main(int argc, char** argv) { return erbench::runBenchmarks(argc, argv, registerFigures); }
