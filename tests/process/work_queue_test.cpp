#include "concurrency/work_queue.hpp"

#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <latch>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include <gtest/gtest.h>

#include "concurrency/hand_off.hpp"
#include "support/child_process.hpp"
#include "support/eventually.hpp"
#include "support/log_capture.hpp"

namespace registry = agent::spf::endpointregistry;
using registry::WorkThreadGuard;
using registry::WorkThreadHold;
using namespace std::chrono_literals;

namespace {

const char* const mainChannel = "agent::spf::endpointregistry";
const std::string failedFunctionText =
    "WorkThreadGuard: Failed to execute the provided function in the work thread. Error: ";

pid_t kernelThreadId() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// Where a job ran.
struct RunPlace {
  std::thread::id id;
  pid_t tid = 0;  // kernel thread id: never reused while the test runs
};

// Runs a job that records where it runs; returns the guard that holds the queue.
WorkThreadGuard runAndRecord(RunPlace& place) {
  int result = -1;
  WorkThreadGuard guard = WorkThreadGuard::executeAndSet(
      [&place] {
        place.id = std::this_thread::get_id();
        place.tid = kernelThreadId();
        return 7;
      },
      result);
  EXPECT_EQ(result, 7);
  return guard;
}

// The state letter of a thread of this process ('R' running, 'S' asleep),
// or 0 if it cannot be read.
char threadState(pid_t tid) {
  std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string text;
  std::getline(stat, text);
  const std::size_t end = text.rfind(") ");
  return end == std::string::npos || end + 2 >= text.size() ? 0 : text[end + 2];
}

// Waits up to two seconds for the thread to be asleep; its last state.
char awaitAsleep(pid_t tid) {
  char state = 0;
  er::test::eventually([&] { return (state = threadState(tid)) == 'S'; }, 2s);
  return state;
}

// The CPUs the calling thread may run on.
cpu_set_t ownCpus() {
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  EXPECT_EQ(sched_getaffinity(0, sizeof cpus, &cpus), 0);
  return cpus;
}

// The ids of this process's threads.
std::set<pid_t> threadIds() {
  std::set<pid_t> ids;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    ids.insert(static_cast<pid_t>(std::stol(entry.path().filename().string())));
  }
  return ids;
}

// The CPUs that the work thread has while it runs a job.
cpu_set_t workThreadCpus(WorkThreadGuard& guard) {
  cpu_set_t seen;
  CPU_ZERO(&seen);
  int result = -1;
  guard = WorkThreadGuard::executeAndSet([&seen] { return sched_getaffinity(0, sizeof seen, &seen); }, result);
  EXPECT_EQ(result, 0);
  return seen;
}

// Sets a flag when the thread that touched it ends.
struct ThreadEndWitness {
  std::atomic<bool>* ended = nullptr;
  ~ThreadEndWitness() {
    if (ended != nullptr) ended->store(true);
  }
};
thread_local ThreadEndWitness threadEndWitness;

// The first two fields of /proc/self/task/<tid>/syscall: the system call the
// thread is blocked in and its first argument (-1 and 0 when running).
std::pair<long, std::uintptr_t> blockedIn(pid_t tid) {
  std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/syscall");
  long number = -1;
  std::string argument;
  if (!(in >> number >> argument) || number < 0) return {-1, 0};
  return {number, static_cast<std::uintptr_t>(std::stoull(argument, nullptr, 16))};
}

// Waits (bounded) until thread `tid` sleeps in poll(), i.e. the idle work
// thread waits for jobs and holds no lock of the allocator, so that a fork
// cannot catch it half-way.
bool waitUntilIdle(pid_t tid) {
  return er::test::eventually(
      [tid] {
        const long call = blockedIn(tid).first;
        return call == SYS_poll || call == SYS_ppoll;
      },
      30s);
}

// True once thread `tid` of this process sleeps in futex() on a word inside
// the descriptor of thread `joined`, which is where pthread_join waits.
bool isJoining(pid_t tid, pthread_t joined) {
  const auto [number, word] = blockedIn(tid);
  const auto descriptor = static_cast<std::uintptr_t>(joined);
  return number == SYS_futex && word >= descriptor && word < descriptor + 4096;
}

}  // namespace

TEST(WorkQueueTest, ReturnsTheResultAndRunsOffTheCallerThread) {
  RunPlace place;
  WorkThreadGuard guard = runAndRecord(place);
  ASSERT_NE(guard.queue(), nullptr);
  EXPECT_NE(place.id, std::this_thread::get_id());
  EXPECT_EQ(place.id, guard.queue()->threadId());
}

TEST(WorkQueueTest, CallersShareOneThreadWhileAGuardIsHeld) {
  RunPlace held;
  WorkThreadGuard guard = runAndRecord(held);
  RunPlace first;
  RunPlace second;
  std::latch start(2);
  std::thread a([&] {
    start.arrive_and_wait();
    WorkThreadGuard g = runAndRecord(first);
    EXPECT_EQ(g.queue(), guard.queue());
  });
  std::thread b([&] {
    start.arrive_and_wait();
    WorkThreadGuard g = runAndRecord(second);
    EXPECT_EQ(g.queue(), guard.queue());
  });
  a.join();
  b.join();
  EXPECT_EQ(first.id, held.id);
  EXPECT_EQ(second.id, held.id);
  EXPECT_EQ(first.tid, held.tid);
  EXPECT_EQ(second.tid, held.tid);
}

TEST(WorkQueueTest, NewThreadAfterEveryGuardIsDropped) {
  std::atomic<bool> firstThreadEnded{false};
  RunPlace before;
  std::weak_ptr<registry::WorkQueue> oldQueue;
  {
    int result = 0;
    WorkThreadGuard guard = WorkThreadGuard::executeAndSet(
        [&] {
          threadEndWitness.ended = &firstThreadEnded;
          before.tid = kernelThreadId();
          return 0;
        },
        result);
    WorkThreadGuard second = runAndRecord(before);
    oldQueue = guard.queue();
    EXPECT_FALSE(firstThreadEnded.load());
  }
  // The last guard stopped and joined the thread before returning.
  EXPECT_TRUE(oldQueue.expired());
  EXPECT_TRUE(firstThreadEnded.load());

  RunPlace after;
  WorkThreadGuard guard = runAndRecord(after);
  EXPECT_NE(after.tid, before.tid);
  EXPECT_EQ(after.id, guard.queue()->threadId());
}

// A publication or a listing holds the thread (WorkThreadHold, which keeps
// a guard from holdThread) while its own guards come and go.
TEST(WorkQueueTest, AHeldThreadServesOperationsWhoseGuardsComeAndGo) {
  std::weak_ptr<registry::WorkQueue> heldQueue;
  RunPlace first;
  RunPlace second;
  {
    const WorkThreadHold hold;
    ASSERT_NE(hold.queue(), nullptr);
    heldQueue = hold.queue();
    { WorkThreadGuard once = runAndRecord(first); }
    { WorkThreadGuard again = runAndRecord(second); }
    EXPECT_EQ(first.tid, second.tid);
    EXPECT_EQ(first.id, hold.queue()->threadId());
    EXPECT_FALSE(heldQueue.expired());
  }
  // Dropping the hold, the last guard, stopped and joined the thread.
  EXPECT_TRUE(heldQueue.expired());
  RunPlace after;
  WorkThreadGuard guard = runAndRecord(after);
  EXPECT_NE(after.tid, first.tid);
}

TEST(WorkQueueTest, HoldingTheThreadJoinsTheLiveQueueAndRunsNothing) {
  RunPlace place;
  WorkThreadGuard running = runAndRecord(place);
  const WorkThreadGuard held = WorkThreadGuard::holdThread();
  EXPECT_EQ(held.queue(), running.queue());
  running = WorkThreadGuard::holdThread();  // drops the job's guard; the thread stays
  RunPlace later;
  WorkThreadGuard guard = runAndRecord(later);
  EXPECT_EQ(later.tid, place.tid);
}

// The thread watches for the next job longer while a hold lasts, but not
// for ever: it falls asleep during the hold, and after it.
TEST(WorkQueueTest, TheThreadFallsAsleepDuringAHoldAndAfterIt) {
  RunPlace place;
  WorkThreadGuard kept = WorkThreadGuard::holdThread();
  {
    const WorkThreadHold hold;
    { WorkThreadGuard ran = runAndRecord(place); }
    EXPECT_EQ(awaitAsleep(place.tid), 'S');
    { WorkThreadGuard ranAgain = runAndRecord(place); }
  }
  EXPECT_EQ(awaitAsleep(place.tid), 'S');
}

// The work thread runs with the CPUs it inherited, from its first job on.
TEST(WorkQueueTest, JobsRunWithTheCpusTheThreadInherited) {
  const cpu_set_t mine = ownCpus();
  WorkThreadGuard guard = WorkThreadGuard::holdThread();
  cpu_set_t seen = workThreadCpus(guard);
  EXPECT_TRUE(CPU_EQUAL(&seen, &mine));
  seen = workThreadCpus(guard);
  EXPECT_TRUE(CPU_EQUAL(&seen, &mine));
}

// An application that pins the work thread (found among its threads) before
// its first job keeps it pinned: the library never sets a thread's CPUs.
TEST(WorkQueueTest, AnApplicationPinningTheThreadKeepsItPinned) {
  const cpu_set_t mine = ownCpus();
  if (CPU_COUNT(&mine) < 2) GTEST_SKIP() << "pinning narrows nothing with one CPU";
  const std::set<pid_t> before = threadIds();
  WorkThreadGuard guard = WorkThreadGuard::holdThread();
  std::set<pid_t> started;
  for (pid_t tid : threadIds()) {
    if (before.count(tid) == 0) started.insert(tid);
  }
  // The work thread, and any thread a sanitizer's runtime started meanwhile.
  ASSERT_GE(started.size(), 1u);
  int last = CPU_SETSIZE - 1;
  while (last >= 0 && !CPU_ISSET(last, &mine)) --last;
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(last, &one);
  for (pid_t tid : started) ASSERT_TRUE(sched_setaffinity(tid, sizeof one, &one) == 0 || errno == ESRCH);
  for (int i = 0; i < 3; ++i) {
    const cpu_set_t seen = workThreadCpus(guard);
    EXPECT_TRUE(CPU_EQUAL(&seen, &one));
  }
  const cpu_set_t after = ownCpus();
  EXPECT_TRUE(CPU_EQUAL(&after, &mine)) << "the caller's CPUs changed";
}

TEST(WorkQueueTest, ACreatorKeptToOneCpuGivesItsThreadThatCpu) {
  const cpu_set_t mine = ownCpus();
  int first = 0;
  while (first < CPU_SETSIZE && !CPU_ISSET(first, &mine)) ++first;
  ASSERT_LT(first, CPU_SETSIZE);
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(first, &one);
  cpu_set_t seen;
  CPU_ZERO(&seen);
  // On a thread of its own, so that this test's thread keeps its CPUs.
  std::thread creator([&] {
    ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
    WorkThreadGuard guard = WorkThreadGuard::holdThread();
    seen = workThreadCpus(guard);
  });
  creator.join();
  EXPECT_TRUE(CPU_EQUAL(&seen, &one));
}

// Whether spinning pays is decided once per process, on the CPUs that the
// process may use. Run in a process of its own, so that the decision is
// fresh: the new thread watches for a job, finds none and falls asleep.
TEST(WorkQueueTest, ANewThreadLeavesSpinningOnForTheProcess) {
  const cpu_set_t mine = ownCpus();
  if (CPU_COUNT(&mine) < 2) GTEST_SKIP() << "spinning pays only with two CPUs or more";
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        const WorkThreadGuard held = WorkThreadGuard::holdThread();
        if (!er::test::eventually([&] { return held.queue()->awakeOn() == registry::WorkQueue::asleep; }, 2s))
          std::_Exit(2);
        std::_Exit(registry::handoff::spinningHelps() ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

// A fork waits for the thread to drop the job it holds, so the thread must
// tell when it holds none.
TEST(WorkQueueTest, TellsWhenTheThreadHoldsNoJob) {
  RunPlace place;
  WorkThreadGuard guard = runAndRecord(place);
  EXPECT_TRUE(guard.queue()->awaitNoJobInHand(2s));

  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::promise<void> started;
  WorkThreadGuard blocked([&started, released] {
    started.set_value();
    released.wait();
  });
  started.get_future().wait();
  EXPECT_FALSE(guard.queue()->awaitNoJobInHand(1ms));
  release.set_value();
  EXPECT_TRUE(guard.queue()->awaitNoJobInHand(2s));
}

TEST(WorkQueueTest, StandardExceptionIsLoggedAndRethrown) {
  er::test::LogCapture capture("agent::spf::endpointregistry=all");
  RunPlace before;
  WorkThreadGuard guard = runAndRecord(before);

  int result = -5;
  try {
    WorkThreadGuard::executeAndSet([]() -> int { throw std::runtime_error("x"); }, result);
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(typeid(error), typeid(std::runtime_error));
    EXPECT_STREQ(error.what(), "x");
  }
  EXPECT_EQ(result, -5);

  const auto records = capture.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].channel, mainChannel);
  EXPECT_EQ(records[0].level, 512u);
  EXPECT_EQ(records[0].message, failedFunctionText + "x");

  // The work thread keeps running.
  RunPlace after;
  WorkThreadGuard again = runAndRecord(after);
  EXPECT_EQ(after.tid, before.tid);
}

TEST(WorkQueueTest, NonStandardExceptionIsRethrownWithoutARecord) {
  er::test::LogCapture capture("agent::spf::endpointregistry=all");
  int result = -5;
  try {
    WorkThreadGuard::executeAndSet([]() -> int { throw 42; }, result);
    FAIL() << "no exception";
  } catch (int value) {
    EXPECT_EQ(value, 42);
  }
  EXPECT_EQ(result, -5);
  EXPECT_TRUE(capture.records().empty());
}

TEST(WorkQueueTest, EmptyFunctionThrowsBadFunctionCallAfterARecord) {
  er::test::LogCapture capture("agent::spf::endpointregistry=all");
  int result = -5;
  EXPECT_THROW(WorkThreadGuard::executeAndSet(std::function<int()>(), result), std::bad_function_call);
  EXPECT_EQ(result, -5);
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, 512u);
  EXPECT_EQ(records[0].message, failedFunctionText + std::bad_function_call().what());
}

TEST(WorkQueueTest, FailingJobIsLoggedAndTheThreadSurvives) {
  er::test::LogCapture capture("agent::spf::endpointregistry=all");
  RunPlace before;
  WorkThreadGuard guard = runAndRecord(before);
  {
    WorkThreadGuard throwing([] { throw std::runtime_error("boom"); });
    WorkThreadGuard empty{std::function<void()>()};
  }
  // Jobs run in push order, so both failures are over once this one has run.
  RunPlace after;
  WorkThreadGuard again = runAndRecord(after);
  EXPECT_EQ(after.tid, before.tid);

  const auto records = capture.records();
  ASSERT_EQ(records.size(), 4u);
  for (std::size_t i : {0u, 2u}) {
    EXPECT_EQ(records[i].channel, mainChannel);
    EXPECT_EQ(records[i].level, 16u);
    EXPECT_EQ(records[i].message.rfind("Exception caught: ", 0), 0u) << records[i].message;
    EXPECT_EQ(records[i + 1].level, 512u);
    EXPECT_EQ(records[i + 1].message, "WorkThreadGuard: Failed to execute work package");
  }
  // Boost's diagnostic text: the dynamic type, then what().
  EXPECT_EQ(records[0].message.rfind("Exception caught: Dynamic exception type: std::runtime_error\n", 0), 0u)
      << records[0].message;
  EXPECT_NE(records[0].message.find("std::exception::what: boom"), std::string::npos) << records[0].message;
  EXPECT_EQ(records[2].message.rfind("Exception caught: Dynamic exception type: std::bad_function_call\n", 0), 0u)
      << records[2].message;
}

TEST(WorkQueueTest, FailingJobLogsOnlyTheErrorWhenLevel16IsOff) {
  er::test::LogCapture capture("agent::spf::endpointregistry=512");
  WorkThreadGuard guard([] { throw std::runtime_error("boom"); });
  RunPlace after;
  WorkThreadGuard again = runAndRecord(after);
  EXPECT_EQ(capture.messages(), std::vector<std::string>{"WorkThreadGuard: Failed to execute work package"});
}

TEST(WorkQueueTest, JobsRunOneAtATimeInPushOrder) {
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::vector<int> order;
  std::vector<WorkThreadGuard> guards;
  guards.emplace_back([released] { released.wait(); });
  for (int i = 0; i < 20; ++i) guards.emplace_back([&order, i] { order.push_back(i); });
  release.set_value();
  RunPlace last;
  WorkThreadGuard done = runAndRecord(last);
  std::vector<int> expected;
  for (int i = 0; i < 20; ++i) expected.push_back(i);
  EXPECT_EQ(order, expected);
}

TEST(WorkQueueTest, DestroyedQueueDestroysPendingJobsUnrun) {
  int wake[2];
  ASSERT_EQ(pipe(wake), 0);
  std::promise<pthread_t> started;
  auto blocking = std::make_unique<WorkThreadGuard>([&started, fd = wake[0]] {
    started.set_value(pthread_self());
    char c;
    while (read(fd, &c, 1) < 0 && errno == EINTR) {
    }
  });
  auto startedFuture = started.get_future();
  ASSERT_EQ(startedFuture.wait_for(30s), std::future_status::ready);
  const pthread_t workThread = startedFuture.get();

  std::atomic<bool> pendingRan{false};
  auto token = std::make_shared<int>(0);
  std::weak_ptr<int> pendingJobAlive = token;
  {
    WorkThreadGuard pending([&pendingRan, token] { pendingRan = true; });
  }
  token.reset();
  EXPECT_FALSE(pendingJobAlive.expired());

  // Drop the last guard on another thread; it stops the queue, then waits in
  // the join for the blocked job.
  std::promise<pid_t> stopperTid;
  std::thread stopper([&] {
    stopperTid.set_value(kernelThreadId());
    blocking.reset();
  });
  const pid_t stopperId = stopperTid.get_future().get();
  EXPECT_TRUE(er::test::eventually([&] { return isJoining(stopperId, workThread); }, 30s));
  ASSERT_EQ(write(wake[1], "x", 1), 1);
  stopper.join();
  close(wake[0]);
  close(wake[1]);

  EXPECT_FALSE(pendingRan.load());
  EXPECT_TRUE(pendingJobAlive.expired());
}

TEST(WorkQueueTest, ForkedChildStartsAWorkThreadOfItsOwn) {
#if defined(__SANITIZE_THREAD__)
  // The sanitizer still counts the parent's work thread as running in the
  // child and refuses the child's new thread that reuses its descriptor.
  GTEST_SKIP() << "threads started in the child of a multi-threaded fork are not supported by ThreadSanitizer";
#endif
  RunPlace parentPlace;
  WorkThreadGuard held = runAndRecord(parentPlace);
  ASSERT_TRUE(waitUntilIdle(parentPlace.tid));
  er::test::ChildProcess child([&](er::test::ChildProcess&) -> int {
    {
      RunPlace childPlace;
      int result = 0;
      WorkThreadGuard own = WorkThreadGuard::executeAndSet(
          [&] {
            childPlace.id = std::this_thread::get_id();
            childPlace.tid = kernelThreadId();
            return 11;
          },
          result);
      if (result != 11) return 2;
      if (own.queue() == held.queue()) return 3;
      if (childPlace.tid == kernelThreadId() || childPlace.tid == parentPlace.tid) return 4;
      if (childPlace.id != own.queue()->threadId()) return 5;
      // The inherited guard refers to the parent's queue, whose thread does
      // not exist here; dropping it must neither join nor hang.
      { WorkThreadGuard inherited = std::move(held); }
    }
    // The child's own queue was stopped and joined; a new one starts.
    RunPlace again;
    WorkThreadGuard next = runAndRecord(again);
    return again.tid != 0 && again.tid != kernelThreadId() ? 0 : 6;
  });
  EXPECT_EQ(child.wait(30s), std::optional<int>(0));

  // The parent's thread is untouched.
  RunPlace after;
  WorkThreadGuard again = runAndRecord(after);
  EXPECT_EQ(after.tid, parentPlace.tid);
}

// Forks while another thread keeps making and dropping queues, so that some
// forks happen while that thread holds the lock around the process's queue.
TEST(WorkQueueTest, ForkWhileAnotherThreadMakesQueues) {
#if defined(__SANITIZE_ADDRESS__)
  // The child of a fork would deadlock on the sanitizer allocator's own locks
  // when another thread held them at the fork.
  GTEST_SKIP() << "fork from a multi-threaded process is not safe under AddressSanitizer";
#elif defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "threads started in the child of a multi-threaded fork are not supported by ThreadSanitizer";
#endif
  std::atomic<bool> done{false};
  std::thread churn([&] {
    while (!done.load()) {
      RunPlace place;
      WorkThreadGuard guard = runAndRecord(place);
    }
  });
  for (int i = 0; i < 50; ++i) {
    auto code = er::test::runInChild(
        [](er::test::ChildProcess&) -> int {
          RunPlace place;
          WorkThreadGuard guard = runAndRecord(place);
          return place.tid != 0 && place.tid != kernelThreadId() ? 0 : 1;
        },
        10s);
    EXPECT_EQ(code, std::optional<int>(0)) << "fork " << i;
    if (code != std::optional<int>(0)) break;
  }
  done = true;
  churn.join();
}
