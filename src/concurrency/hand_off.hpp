// The hand-off of one job's outcome from the work thread to the caller that
// waits for it, and the bounded spins on both sides of a hand-off. Used by
// work_queue.cpp only.
//
// A hand-off between two threads that are both running costs well under a
// microsecond; one that must wake a sleeping thread costs a system call on
// each side and, on a virtual machine whose other core is idle, tens of
// microseconds. So each side spins briefly before it sleeps, but only while
// that can help: while the other side runs on another core, or is being woken
// and a core is free for it. A spin never yields its core (on a busy machine
// it might not get it back for a whole time slice) and never lasts long.
#pragma once

#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <atomic>
#include <chrono>
#include <exception>
#include <future>
#include <memory>
#include <utility>

#include "concurrency/work_queue.hpp"

namespace agent::spf::endpointregistry::handoff {

// How long each side of a hand-off watches before it sleeps. The work
// thread's spin covers the gaps between the hand-offs of one operation (the
// caller's own system calls in between); the caller's covers a job run by a
// thread that is awake. Both stay well below the cost of a sleep and wake-up.
constexpr std::chrono::microseconds workerSpin{100};
constexpr std::chrono::microseconds callerSpin{50};
// How much longer the work thread watches while an operation that will hand
// it more jobs is under way (WorkThreadHold).
constexpr std::chrono::microseconds heldWorkerSpin{1000};
// How long a caller that had to wake the work thread spins for it to come
// up on another core. Spinning keeps the caller's core busy, so that the
// woken thread is placed on an idle core and the two do not end up taking
// turns on one; a thread that does not come up in time (no core is idle) is
// waited for asleep.
constexpr std::chrono::microseconds wakeUpSpin{15};

// Spinning only helps when the other side can run at the same time: when
// the thread that decides (the first one to ask, for the whole process) may
// run on more than one CPU.
inline bool spinningHelps() {
  static const bool helps = [] {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    return sched_getaffinity(0, sizeof cpus, &cpus) == 0 && CPU_COUNT(&cpus) > 1;
  }();
  return helps;
}

inline void relaxCpu() noexcept {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

// Watches `ready` for at most `limit`; true once it holds. Never blocks and
// never yields: a spinner that yielded its core on a busy machine could wait
// a whole time slice to get it back.
template <class Ready>
inline bool spinUntil(const Ready& ready, std::chrono::microseconds limit) {
  if (ready()) return true;
  if (!spinningHelps()) return false;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    for (int i = 0; i < 32; ++i) {
      if (ready()) return true;
      relaxCpu();
    }
    if (std::chrono::steady_clock::now() >= deadline) return ready();
  }
}

// A caller thread's record of its spins for a work thread it woke: while no
// core is free they only cost, so after two that failed in a row the caller
// tries only every sixteenth time, until one succeeds again.
inline thread_local unsigned wakeUpSpinsFailed = 0;
inline thread_local unsigned wakeUpSpinsSkipped = 0;

inline bool wakeUpSpinPays() noexcept { return wakeUpSpinsFailed < 2 || ++wakeUpSpinsSkipped % 16 == 0; }

inline void recordWakeUpSpin(bool succeeded) noexcept { wakeUpSpinsFailed = succeeded ? 0 : wakeUpSpinsFailed + 1; }

// The outcome of one job of executeAndSet, handed from the work thread to
// the waiting caller: the job's value or exception, or the news that the
// job was destroyed without running (as a broken promise would report).
class Completion {
 public:
  // Work thread: publishes the outcome and wakes the caller if it sleeps.
  void setValue(int result) noexcept {
    value = result;
    finish(Done);
  }
  void setException(std::exception_ptr thrown) noexcept {
    error = std::move(thrown);
    finish(Done);
  }
  void breakPromise() noexcept { finish(Broken); }

  // Caller: waits for the outcome of a job pushed to `queue`, spinning
  // briefly while the work thread is awake on another core (or is waking
  // up), else blocking; returns the value or rethrows the job's exception.
  int get(const WorkQueue& queue) {
    const bool wakeUp = queue.awakeOn() == WorkQueue::asleep && wakeUpSpinPays();
    const auto wakeUpDeadline = std::chrono::steady_clock::now() + wakeUpSpin;
    bool cameUpElsewhere = false;
    spinUntil(
        [&] {
          if (state.load(std::memory_order_acquire) != Pending) return true;
          const int workerCpu = queue.awakeOn();
          if (workerCpu >= 0) {
            cameUpElsewhere = workerCpu != callerCpu;
            return !cameUpElsewhere;
          }
          // A thread that has not started yet is not spun for: starting
          // takes longer than a spin is worth.
          return !wakeUp || workerCpu == WorkQueue::notStarted || std::chrono::steady_clock::now() >= wakeUpDeadline;
        },
        callerSpin);
    if (wakeUp) recordWakeUpSpin(cameUpElsewhere || state.load(std::memory_order_acquire) != Pending);
    callerAsleep.store(true, std::memory_order_seq_cst);
    int seen = state.load(std::memory_order_seq_cst);
    while (seen == Pending) {
      // Returns at once if the outcome came meanwhile (the word changed),
      // on the wake-up, or on a signal; the loop looks again in each case.
      syscall(SYS_futex, stateWord(), FUTEX_WAIT_PRIVATE, Pending, nullptr, nullptr, 0);
      seen = state.load(std::memory_order_seq_cst);
    }
    if (seen == Broken) throw std::future_error(std::future_errc::broken_promise);
    // The exception leaves this object before it is thrown: the work thread
    // may drop its reference to this object at any time, and must never be
    // the one that frees an exception that the caller is still reading.
    if (error) std::rethrow_exception(std::exchange(error, nullptr));
    return value;
  }

 private:
  enum : int { Pending, Done, Broken };

  // The caller writes `callerAsleep` before its last look at `state`, and
  // this writes `state` before it looks at `callerAsleep`, both sequentially
  // consistent: so either the caller sees the outcome and does not sleep, or
  // this sees `callerAsleep` and wakes it. The wake-up system call is made only
  // then. The job's sender keeps this object alive throughout.
  void finish(int outcome) noexcept {
    state.store(outcome, std::memory_order_seq_cst);
    bool woken = false;
    if (callerAsleep.load(std::memory_order_seq_cst)) {
      syscall(SYS_futex, stateWord(), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
      woken = true;
    }
    if (WorkQueue* queue = WorkQueue::current()) queue->handedToCaller(woken, callerCpu == sched_getcpu());
  }

  // The futex word: the atomic's own int.
  int* stateWord() noexcept { return reinterpret_cast<int*>(&state); }

  std::atomic<int> state{Pending};
  static_assert(sizeof(std::atomic<int>) == sizeof(int) && std::atomic<int>::is_always_lock_free);
  std::atomic<bool> callerAsleep{false};  // the caller stopped spinning
  const int callerCpu = sched_getcpu();   // where the caller ran when it made the job
  int value = 0;
  std::exception_ptr error;
};

// The job's side of a Completion. The job holds it through a shared pointer,
// so it goes with the job's last copy; if that happens before an outcome was
// set (the queue stopped with the job unrun), the caller learns of it.
class CompletionSender {
 public:
  explicit CompletionSender(std::shared_ptr<Completion> target) : completion(std::move(target)) {}
  ~CompletionSender() {
    if (!sent) completion->breakPromise();
  }
  CompletionSender(const CompletionSender&) = delete;
  CompletionSender& operator=(const CompletionSender&) = delete;

  void setValue(int result) noexcept {
    sent = true;
    completion->setValue(result);
  }
  void setException(std::exception_ptr thrown) noexcept {
    sent = true;
    completion->setException(std::move(thrown));
  }

 private:
  std::shared_ptr<Completion> completion;
  bool sent = false;
};

}  // namespace agent::spf::endpointregistry::handoff
