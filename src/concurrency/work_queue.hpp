// The process's work threads, on which every robust mutex is locked and
// unlocked.
//
// A robust mutex belongs to the thread that locked it, and counts as
// abandoned once that thread ends. Callers' threads may be short-lived, so
// locks are taken on a long-lived work thread instead. WorkQueue is one such
// thread and its first-in first-out job queue; WorkThreadGuard is a shared
// reference to a queue. A queue lives while some guard refers to it: the
// last guard to go stops and joins its thread, and the next request starts a
// new one.
//
// Lanes. When a thread dies, the kernel marks as owner-dead only the first
// 2,048 robust mutexes on its list (the most recently locked ones); any
// further mutex it held would stay locked for ever, and a reader could not
// tell it from a live one. So no work thread ever holds more locks than that:
// the process has one primary queue (lane 0), which runs every job that is
// not a lock, and further lanes that are started only when the lanes before
// them are full of lasting locks (a record's liveness lock, held for the
// record's life). Brief locks (a directory's, held for one operation) go to
// the first lane with room, almost always lane 0. Lane 0 is stopped and
// joined when its last guard goes, like any queue; the further lanes are
// kept, asleep, until the process holds no lasting lock at all, so that a
// process holding just a lane's worth of records does not start and stop a
// thread with each publication.
//
// Rules: a job must never call executeAndSet() (it would wait for a job
// queued behind itself), and the last guard of a queue must not be dropped
// on the work thread.
//
// Hand-offs: waking a sleeping thread on another core costs tens of
// microseconds, and one publication makes about ten hand-offs. So both sides
// spin briefly before they sleep, as long as the other side runs on another
// core: the work thread watches for the next job for a short while after
// each one (unless that job's caller shares its core), longer while an
// operation holds it (WorkThreadHold), and a caller watches for its job's
// outcome while the thread is awake on another core, or for a short while
// for a thread it had to wake to come up on one. The spins are bounded and
// are skipped when the process may use only one CPU; sleeping and waking work
// as before. The threads' CPU affinity is left alone: they run where their
// creator may run, and wherever the application places them.
//
// Fork: a forked child forgets its parent's queue, so its first request
// starts a work thread of its own. Guards inherited from the parent still
// refer to the parent's queue object; when the child drops the last of them,
// the queue is abandoned (never joined, its state leaked) rather than
// stopped, since its thread does not exist in the child. A fork waits
// briefly for the thread to drop a job whose caller already has its outcome,
// so that the child does not inherit the job's memory half-way.
#pragma once

#include <pthread.h>
#include <sched.h>
#include <sys/types.h>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace agent::spf::endpointregistry {

// How long a robust-mutex lock is held: for a record's whole life (its
// liveness lock), or for one operation (a directory's lock).
enum class LockTerm { Brief, Lasting };

// The most robust mutexes that the kernel marks owner-dead for one dying
// thread (its ROBUST_LIST_LIMIT). A work thread never holds more.
inline constexpr unsigned robustListLimit = 2048;
// The most lasting locks that one work thread holds: the rest of its list is
// kept for brief locks taken meanwhile (one per caller thread at a time).
inline constexpr unsigned lastingLocksPerLane = 2000;

// A descriptor that the primary work thread also waits on while it sleeps,
// and the function it calls on that thread when the descriptor is readable
// (it must read what is there, or the thread would wake again at once).
// Used by the watch that heals this process's publications. -1: none.
struct IdleWatch {
  int fd = -1;
  void (*onReadable)() = nullptr;
};

// Sets the idle watch of the process (an fd of -1 removes it) and wakes the
// primary work thread, so that it waits on the new one. A forked child
// starts without one.
void setIdleWatch(IdleWatch watch) noexcept;

class WorkQueue {
 public:
  // Starts the thread; std::system_error if it cannot be started. The
  // primary queue (lane 0) also waits on the process's idle watch.
  explicit WorkQueue(bool primary = false);
  // Stops the loop (pending jobs are destroyed unrun) and joins the thread.
  // In a forked child of the creating process it only abandons the queue.
  ~WorkQueue();
  WorkQueue(const WorkQueue&) = delete;
  WorkQueue& operator=(const WorkQueue&) = delete;

  // Appends a job and wakes the thread.
  void push(std::function<void()> job);

  // Wakes the thread if it sleeps, so that it looks at its queue and its
  // idle watch again.
  void wake() noexcept;

  // Identifier of the work thread.
  std::thread::id threadId() const noexcept { return thread.get_id(); }

  // The core on which the work thread last ran while it runs or watches for
  // its next job; `asleep` while it sleeps, `notStarted` before it starts.
  static constexpr int asleep = -1;
  static constexpr int notStarted = -2;
  int awakeOn() const noexcept { return awakeCpu.load(std::memory_order_acquire); }

  // Waits at most `limit` for the thread to drop the job it holds (run or
  // running); true once it holds none.
  bool awaitNoJobInHand(std::chrono::microseconds limit) const noexcept;

  // Operations under way that will hand the thread more jobs (see
  // WorkThreadHold): while there is one, the thread watches for its next job
  // longer before it sleeps.
  void beginHold() noexcept { holds.fetch_add(1, std::memory_order_acq_rel); }
  void endHold() noexcept { holds.fetch_sub(1, std::memory_order_acq_rel); }

  // Robust-mutex locks this thread holds or is about to take (see
  // WorkThreadGuard::forLock).
  unsigned lockCount() const noexcept { return locks.load(std::memory_order_acquire); }

  // The queue whose work thread is calling; null on any other thread.
  static WorkQueue* current() noexcept;
  // Called by a job, on this queue's thread, that has just handed its
  // outcome to a waiting caller: `wokeIt` when it had to wake that caller,
  // `sameCore` when the caller made the job on the core the thread runs on.
  // Either way the caller needs a core to go on: after this job the thread
  // yields (woken) or does not spin for its next job (same core).
  void handedToCaller(bool wokeIt, bool sameCore) noexcept;
  // The robust mutexes that this queue's thread holds, oldest first: kept by
  // the lock guard's jobs, read and written on that thread only.
  std::vector<pthread_mutex_t*>& heldMutexes() noexcept { return held; }

 private:
  friend class WorkThreadGuard;

  void run();
  // Sleeps until woken (or, on the primary queue, until the idle watch is
  // readable, which it then serves); returns without a reason on a signal.
  void sleepUntilWoken();
  void abandonInForkedChild() noexcept;

  std::mutex mutex;
  bool stop = false;
  std::deque<std::function<void()>> jobs;
  bool sleeping = false;  // under `mutex`: the thread waits, or is about to, on `wakeFd`
  int wakeFd = -1;        // an eventfd that a pusher writes to wake the sleeping thread
  const bool primary;
  // Copies of `stop` and of the number of `jobs`, written under `mutex` and
  // read without it by the work thread while it spins before sleeping.
  std::atomic<bool> stopSeen{false};
  std::atomic<std::size_t> jobCount{0};
  std::atomic<int> awakeCpu{notStarted};
  std::atomic<int> holds{0};
  std::atomic<bool> jobInHand{false};  // from taking a job until it is destroyed
  std::atomic<unsigned> locks{0};      // counted by the guards of forLock()
  std::vector<pthread_mutex_t*> held;  // see heldMutexes()
  std::thread thread;
  pid_t creatorPid;  // the process whose thread `thread` is
  // What the last job asked of the thread before its next watch (see
  // handedToCaller); read, written and cleared on the thread only.
  struct AfterJob {
    bool yieldToCaller = false;
    bool leaveCoreToCaller = false;
  } afterJob;
};

class WorkThreadGuard {
 public:
  // An empty guard: refers to no queue.
  WorkThreadGuard() noexcept = default;
  // Obtains the process's primary queue (starting it if none is live) and
  // pushes `job`.
  explicit WorkThreadGuard(std::function<void()>&& job);
  WorkThreadGuard(WorkThreadGuard&& other) noexcept;
  // Drops the reference (and the lock room) held before, then takes the other's.
  WorkThreadGuard& operator=(WorkThreadGuard&& other) noexcept;
  WorkThreadGuard(const WorkThreadGuard&) = delete;
  WorkThreadGuard& operator=(const WorkThreadGuard&) = delete;
  ~WorkThreadGuard();

  // Runs `function` on the primary work thread, waits for it, stores its
  // result and returns the guard of the queue it ran on. Exceptions of the
  // function are rethrown here (a std::exception after a 512 log record);
  // `result` is then not written.
  static WorkThreadGuard executeAndSet(std::function<int()>&& function, int& result);

  // A guard that runs nothing: it keeps the process's primary work thread
  // (started here if none is live) for as long as it lives.
  static WorkThreadGuard holdThread();

  // A guard on the first lane with room for one more lock of `term`
  // (starting a lane if none has room): that room is the guard's until it
  // goes, so the lane never holds more locks than the kernel repairs. Lock
  // and unlock of that one mutex both run on this guard's thread (run()).
  static WorkThreadGuard forLock(LockTerm term);

  // Takes `lane` out of service: no lock goes to it any more, and the
  // process no longer keeps it; it ends once the guards that still refer to
  // it are gone. For a lane whose list of held robust mutexes was damaged
  // through one of them (see robust_lock_guard.hpp, abandon()).
  static void retireLane(const WorkQueue* lane) noexcept;

  // Runs `function` on this guard's work thread, as executeAndSet() does on
  // the primary one (same blocking, exceptions and log record).
  void run(std::function<int()>&& function, int& result);

  // The queue this guard refers to (null after being moved from).
  const std::shared_ptr<WorkQueue>& queue() const noexcept { return workQueue; }

 private:
  // The process's live primary queue, or a new one.
  static std::shared_ptr<WorkQueue> processQueue();
  // Gives back the lock room this guard holds, if any.
  void releaseLockRoom() noexcept;

  std::shared_ptr<WorkQueue> workQueue;
  std::optional<LockTerm> lockRoom;  // the room this guard holds on its lane
};

#if defined(ENDPOINTREGISTRY_TEST_HOOKS)
// Lets tests fill lanes with a few locks: the most lasting locks per lane,
// and the most locks of any term (0 restores the defaults).
void setLaneCapacityForTesting(unsigned lasting, unsigned total) noexcept;
#endif

// Holds the process's work thread for one operation that hands it several
// jobs whose own guards come and go (a publication, a listing). The thread
// is started here if none is live and is not stopped and started again
// between the jobs. While a hold lasts, the thread, once awake on a core of
// its own, watches for the next job for longer instead of going to sleep:
// the caller's work between two jobs can outlast the usual watch (the first
// time through, in a new process), and waking a sleeping thread on another
// core costs far more than the watching. Dropping the last hold ends the
// longer watch at once.
class WorkThreadHold {
 public:
  WorkThreadHold();
  ~WorkThreadHold();
  WorkThreadHold(const WorkThreadHold&) = delete;
  WorkThreadHold& operator=(const WorkThreadHold&) = delete;

  // The queue this hold keeps.
  const std::shared_ptr<WorkQueue>& queue() const noexcept { return guard.queue(); }

 private:
  WorkThreadGuard guard;
};

}  // namespace agent::spf::endpointregistry
