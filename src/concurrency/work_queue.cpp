#include "concurrency/work_queue.hpp"

#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <chrono>
#include <exception>
#include <future>
#include <new>
#include <utility>

#include "diagnostics/diagnostics.hpp"

namespace agent::spf::endpointregistry {

namespace {

// Guards the process's weak reference to its queue and the creation of a
// queue. Never held while pushing or waiting for a job. Constant-initialised
// and trivially destructible, so it is usable at any time, and may be
// re-constructed in place in a forked child (see forgetQueueInForkedChild).
std::mutex queueMutex;

// The process's queue, if one is live. The weak reference never keeps the
// queue alive; the guards do. Read and written under queueMutex.
std::weak_ptr<WorkQueue>& currentQueue() {
  static std::weak_ptr<WorkQueue> queue;
  return queue;
}

// Runs in a forked child, on its only thread, before fork() returns there.
// The parent's work thread does not exist in the child, so the child must
// not push to the parent's queue: it forgets it, and its first request
// starts a work thread of its own.
//
// Another thread of the parent may have held queueMutex at the moment of the
// fork, possibly half-way through writing the weak reference. That thread
// does not exist in the child, so neither object can be trusted or unlocked:
// both are re-constructed in place over their old bytes, without running
// their destructors. The mutex has no state beyond its bytes; the old weak
// reference is leaked (at most one control block per fork, in the child).
void forgetQueueInForkedChild() noexcept {
  ::new (static_cast<void*>(&queueMutex)) std::mutex;
  ::new (static_cast<void*>(&currentQueue())) std::weak_ptr<WorkQueue>;
}

std::once_flag forkHandlerOnce;

// Registers the fork handler once per process. The registration comes before
// the first queue is made, so no child can inherit a queue unnoticed.
void registerForkHandler() {
  std::call_once(forkHandlerOnce, [] { pthread_atfork(nullptr, nullptr, &forgetQueueInForkedChild); });
}

// How long each side of a hand-off watches before it sleeps. The work
// thread's spin covers the gaps between the hand-offs of one operation (the
// caller's own system calls in between); the caller's covers a job run by a
// thread that is awake. Both stay well below the cost of a sleep and wake-up.
constexpr std::chrono::microseconds workerSpin{100};
constexpr std::chrono::microseconds callerSpin{50};
// How long a caller that had to wake the work thread spins for it to come
// up on another core. Spinning keeps the caller's core busy, so that the
// woken thread is placed on an idle core and the two do not end up taking
// turns on one; a thread that does not come up in time (no core is idle) is
// waited for asleep.
constexpr std::chrono::microseconds wakeUpSpin{15};

// Spinning only helps when the other side can run at the same time.
bool spinningHelps() {
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
bool spinUntil(const Ready& ready, std::chrono::microseconds limit) {
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
thread_local unsigned wakeUpSpinsFailed = 0;
thread_local unsigned wakeUpSpinsSkipped = 0;

bool wakeUpSpinPays() noexcept { return wakeUpSpinsFailed < 2 || ++wakeUpSpinsSkipped % 16 == 0; }

void recordWakeUpSpin(bool succeeded) noexcept { wakeUpSpinsFailed = succeeded ? 0 : wakeUpSpinsFailed + 1; }

// Set on the work thread when the job it just ran came from a caller on the
// same core: that caller needs this very core to go on, so the thread does
// not spin for its next job this time.
thread_local bool leaveCoreToCaller = false;

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
    if (error) std::rethrow_exception(error);
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
    if (callerAsleep.load(std::memory_order_seq_cst)) {
      syscall(SYS_futex, stateWord(), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }
    if (callerCpu == sched_getcpu()) leaveCoreToCaller = true;
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

}  // namespace

WorkQueue::WorkQueue() : creatorPid(getpid()) { thread = std::thread(&WorkQueue::run, this); }

WorkQueue::~WorkQueue() {
  if (getpid() != creatorPid) {
    abandonInForkedChild();
    return;
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    stop = true;
    stopSeen.store(true, std::memory_order_release);
  }
  condition.notify_all();
  if (thread.joinable()) {
    thread.join();
  } else {
    logMessage(mainLogger(), Error, "WorkThreadGuard: ", "Failed to join the work thread ");
  }
}

// This queue was made by the parent of a forked child; its thread exists
// only in the parent. Joining would fail, and a joinable std::thread would
// end the process when destroyed; the condition variable may still count the
// parent thread's wait, so destroying it could block for ever. So nothing is
// stopped or joined: the thread handle is parked, never destroyed, in static
// storage, and the mutex and condition variable are replaced by fresh ones
// without destroying the old, so that the member destructors that run next
// see clean objects. The job queue is emptied when the mutex shows nobody was
// changing it at the fork; otherwise it is replaced too and its old storage
// is left behind.
void WorkQueue::abandonInForkedChild() noexcept {
  alignas(std::thread) static unsigned char parkedThread[sizeof(std::thread)];
  ::new (static_cast<void*>(parkedThread)) std::thread(std::move(thread));
  if (mutex.try_lock()) {
    std::deque<std::function<void()>> pending;
    pending.swap(jobs);
    mutex.unlock();
  } else {
    ::new (static_cast<void*>(&jobs)) std::deque<std::function<void()>>;
  }
  ::new (static_cast<void*>(&mutex)) std::mutex;
  ::new (static_cast<void*>(&condition)) std::condition_variable;
}

void WorkQueue::push(std::function<void()> job) {
  {
    std::lock_guard<std::mutex> lock(mutex);
    jobs.push_back(std::move(job));
    jobCount.store(jobs.size(), std::memory_order_release);
  }
  // Costs no system call while the work thread is awake (spinning).
  condition.notify_one();
}

void WorkQueue::run() {
  awakeCpu.store(sched_getcpu(), std::memory_order_release);
  for (;;) {
    // A job pushed soon after the last one is taken without sleeping.
    if (!std::exchange(leaveCoreToCaller, false)) {
      spinUntil(
          [this] { return jobCount.load(std::memory_order_acquire) != 0 || stopSeen.load(std::memory_order_acquire); },
          workerSpin);
    }
    std::function<void()> job;
    {
      std::unique_lock<std::mutex> lock(mutex);
      // Marked asleep under the mutex: a caller that pushes after this sees
      // it and does not spin; one that pushed before is not slept through.
      if (!stop && jobs.empty()) {
        awakeCpu.store(WorkQueue::asleep, std::memory_order_release);
        condition.wait(lock, [this] { return stop || !jobs.empty(); });
      }
      awakeCpu.store(sched_getcpu(), std::memory_order_release);
      if (stop) return;  // jobs still queued are destroyed with the queue, unrun
      job = std::move(jobs.front());
      jobs.pop_front();
      jobCount.store(jobs.size(), std::memory_order_relaxed);
    }
    try {
      job();
    } catch (...) {
      // The thread survives a failing job. A failure to log is dropped too,
      // since an exception leaving this function would end the process.
      try {
        if (mainLogger().isEnabled(CaughtException)) {
          logMessage(mainLogger(), CaughtException, caughtExceptionText());
        }
        logMessage(mainLogger(), Error, "WorkThreadGuard: ", "Failed to execute work package");
      } catch (...) {
      }
    }
  }
}

WorkThreadGuard::WorkThreadGuard(std::function<void()>&& job) {
  registerForkHandler();
  std::shared_ptr<WorkQueue> queue;
  {
    std::lock_guard<std::mutex> lock(queueMutex);
    queue = currentQueue().lock();
    if (!queue) {
      queue = std::make_shared<WorkQueue>();
      currentQueue() = queue;
    }
  }
  queue->push(std::move(job));
  workQueue = std::move(queue);
}

WorkThreadGuard WorkThreadGuard::executeAndSet(std::function<int()>&& function, int& result) {
  auto completion = std::make_shared<Completion>();
  auto sender = std::make_shared<CompletionSender>(completion);

  // The job hands the function's value or exception to the waiting caller;
  // it does not throw itself.
  WorkThreadGuard guard([sender, function = std::move(function)]() {
    int value = 0;
    try {
      if (!function) throw std::bad_function_call();
      value = function();
    } catch (...) {
      sender->setException(std::current_exception());
      return;
    }
    sender->setValue(value);
  });
  sender.reset();

  try {
    result = completion->get(*guard.queue());
  } catch (const std::exception& error) {
    logMessage(mainLogger(), Error, "WorkThreadGuard: ", "Failed to execute the provided function in the work thread. ",
               "Error: ", error.what());
    throw;
  }
  return guard;
}

}  // namespace agent::spf::endpointregistry
