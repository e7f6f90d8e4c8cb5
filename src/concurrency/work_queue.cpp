#include "concurrency/work_queue.hpp"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>
#include <new>
#include <system_error>
#include <utility>
#include <vector>

#include <agent/spf/sharedmemory/mapped_access.hpp>

#include "concurrency/hand_off.hpp"
#include "diagnostics/diagnostics.hpp"

namespace agent::spf::endpointregistry {

namespace {

// Guards the process's lanes and the creation of a queue. Never held while
// pushing or waiting for a job. Constant-initialised and trivially
// destructible, so it is usable at any time, and may be re-constructed in
// place in a forked child (see forgetQueuesInForkedChild).
std::mutex queueMutex;

// The process's lanes. Read and written under queueMutex.
struct Lanes {
  // By number; slot 0 is the primary queue. An expired slot is taken again
  // by the next queue made for it. These references never keep a queue
  // alive; the guards do.
  std::vector<std::weak_ptr<WorkQueue>> byNumber;
  // The further lanes (1 and up), kept while the process holds any lasting
  // lock, so that a process that holds just a lane's worth of records does
  // not start and stop a thread with each publication and withdrawal.
  std::vector<std::shared_ptr<WorkQueue>> further;
  std::size_t lastingLocks = 0;
};

Lanes& processLanes() {
  static Lanes lanes;
  return lanes;
}

// The process's idle watch (see setIdleWatch).
std::atomic<int> idleWatchFd{-1};
std::atomic<void (*)()> idleWatchHandler{nullptr};

IdleWatch currentIdleWatch() noexcept {
  return IdleWatch{idleWatchFd.load(std::memory_order_acquire), idleWatchHandler.load(std::memory_order_acquire)};
}

// The room of one lane, for each term of lock (changed by tests only).
std::atomic<unsigned> lastingCapacity{lastingLocksPerLane};
std::atomic<unsigned> totalCapacity{robustListLimit};

// Runs in a forked child, on its only thread, before fork() returns there.
// The parent's work threads do not exist in the child, so the child must
// not push to the parent's queues: it forgets them, and its first request
// starts a work thread of its own.
//
// The thread that held queueMutex at the fork, if any, does not exist in the
// child and may have been half-way through changing the lanes, so neither
// object can be trusted or unlocked: both are re-constructed in place over
// their old bytes, without running their destructors. The mutex has no state
// beyond its bytes; the old lanes are parked, never used nor destroyed (the
// parent's queues must not be stopped here), so that their storage stays
// reachable.
void forgetQueuesInForkedChild() noexcept {
  idleWatchFd.store(-1, std::memory_order_relaxed);
  idleWatchHandler.store(nullptr, std::memory_order_relaxed);
  Lanes& lanes = processLanes();
  alignas(Lanes) static unsigned char parked[sizeof(Lanes)];
  std::memcpy(parked, static_cast<void*>(&lanes), sizeof parked);
  ::new (static_cast<void*>(&queueMutex)) std::mutex;
  ::new (static_cast<void*>(&lanes)) Lanes;
}

// Runs in the parent just before fork(). A caller has the outcome of its job
// a moment before the work thread has destroyed the job; a child forked in
// that moment would inherit the job's memory with nothing left to free it.
// So the fork waits for every lane to drop it (briefly: a job that blocks on
// another process's lock is not waited out).
void dropJobsBeforeFork() noexcept {
  std::vector<std::shared_ptr<WorkQueue>> queues;
  try {
    std::lock_guard<std::mutex> lock(queueMutex);
    for (const auto& lane : processLanes().byNumber) {
      if (auto queue = lane.lock()) queues.push_back(std::move(queue));
    }
  } catch (...) {
    return;  // no memory for the list: the fork goes on without waiting
  }
  for (const auto& queue : queues) (void)queue->awaitNoJobInHand(std::chrono::milliseconds(2));
}

std::once_flag forkHandlerOnce;

// Registers the fork handlers once per process. The registration comes before
// the first queue is made, so no child can inherit a queue unnoticed.
void registerForkHandler() {
  std::call_once(forkHandlerOnce, [] { pthread_atfork(&dropJobsBeforeFork, nullptr, &forgetQueuesInForkedChild); });
}

}  // namespace

WorkQueue::WorkQueue(bool primaryLane) : primary(primaryLane), creatorPid(getpid()) {
  wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wakeFd < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  try {
    thread = std::thread(&WorkQueue::run, this);
  } catch (...) {
    close(wakeFd);
    throw;
  }
}

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
  wake();
  if (thread.joinable()) {
    thread.join();
  } else {
    logMessage(mainLogger(), Error, "WorkThreadGuard: ", "Failed to join the work thread ");
  }
  close(wakeFd);
}

// This queue was made by the parent of a forked child; its thread exists
// only in the parent. Joining would fail, and a joinable std::thread would
// end the process when destroyed. So nothing is stopped or joined: the
// thread handle is parked, never destroyed, in static storage, and the mutex
// is replaced by a fresh one without destroying the old, so that the member
// destructors that run next see clean objects. The child's copy of the
// wake-up descriptor is closed (the parent's stays). The job queue is emptied when the mutex shows nobody was
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
  close(wakeFd);
}

void WorkQueue::push(std::function<void()> job) {
  bool asleep = false;
  {
    std::lock_guard<std::mutex> lock(mutex);
    jobs.push_back(std::move(job));
    jobCount.store(jobs.size(), std::memory_order_release);
    asleep = sleeping;
  }
  // Costs no system call while the work thread is awake (spinning).
  if (asleep) wake();
}

void WorkQueue::wake() noexcept {
  const std::uint64_t one = 1;
  (void)write(wakeFd, &one, sizeof one);
}

void WorkQueue::sleepUntilWoken() {
  const IdleWatch watch = primary ? currentIdleWatch() : IdleWatch{};
  pollfd waits[2] = {{wakeFd, POLLIN, 0}, {watch.fd, POLLIN, 0}};
  if (poll(waits, watch.fd >= 0 ? 2 : 1, -1) <= 0) return;
  if ((waits[0].revents & POLLIN) != 0) {
    std::uint64_t count = 0;
    (void)read(wakeFd, &count, sizeof count);
  }
  if (watch.fd >= 0 && (waits[1].revents & POLLIN) != 0 && watch.onReadable != nullptr) {
    try {
      const agent::spf::sharedmemory::MappedAccess mapped;
      watch.onReadable();
    } catch (...) {
      // The watch looks again at its next event.
    }
  }
}

namespace {
thread_local WorkQueue* runningQueue = nullptr;
}  // namespace

WorkQueue* WorkQueue::current() noexcept { return runningQueue; }

void WorkQueue::handedToCaller(bool wokeIt, bool sameCore) noexcept {
  afterJob.yieldToCaller = afterJob.yieldToCaller || wokeIt;
  afterJob.leaveCoreToCaller = afterJob.leaveCoreToCaller || sameCore;
}

void WorkQueue::run() {
  runningQueue = this;
  awakeCpu.store(sched_getcpu(), std::memory_order_release);
  for (;;) {
    // A caller woken on this core goes on before the thread watches.
    if (std::exchange(afterJob.yieldToCaller, false)) sched_yield();
    // A job pushed soon after the last one is taken without sleeping.
    if (!std::exchange(afterJob.leaveCoreToCaller, false)) {
      const auto jobOrStop = [this] {
        return jobCount.load(std::memory_order_acquire) != 0 || stopSeen.load(std::memory_order_acquire);
      };
      if (!handoff::spinUntil(jobOrStop, handoff::workerSpin) && holds.load(std::memory_order_acquire) > 0) {
        handoff::spinUntil([&] { return jobOrStop() || holds.load(std::memory_order_acquire) == 0; },
                           handoff::heldWorkerSpin);
      }
    }
    std::function<void()> job;
    {
      std::unique_lock<std::mutex> lock(mutex);
      // Marked asleep under the mutex: a caller that pushes after this sees
      // it, does not spin and wakes the thread; one that pushed before is not
      // slept through.
      while (!stop && jobs.empty()) {
        awakeCpu.store(WorkQueue::asleep, std::memory_order_release);
        sleeping = true;
        lock.unlock();
        sleepUntilWoken();
        lock.lock();
        sleeping = false;
      }
      awakeCpu.store(sched_getcpu(), std::memory_order_release);
      if (stop) return;  // jobs still queued are destroyed with the queue, unrun
      job = std::move(jobs.front());
      jobs.pop_front();
      jobCount.store(jobs.size(), std::memory_order_relaxed);
      jobInHand.store(true, std::memory_order_relaxed);
    }
    try {
      // Jobs lock and unlock mutexes in segments that others may truncate.
      const agent::spf::sharedmemory::MappedAccess mapped;
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
    job = nullptr;
    jobInHand.store(false, std::memory_order_release);
  }
}

bool WorkQueue::awaitNoJobInHand(std::chrono::microseconds limit) const noexcept {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (jobInHand.load(std::memory_order_acquire)) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

void setIdleWatch(IdleWatch watch) noexcept {
  idleWatchHandler.store(watch.onReadable, std::memory_order_release);
  idleWatchFd.store(watch.fd, std::memory_order_release);
  std::shared_ptr<WorkQueue> primary;
  try {
    std::lock_guard<std::mutex> lock(queueMutex);
    const Lanes& lanes = processLanes();
    if (!lanes.byNumber.empty()) primary = lanes.byNumber.front().lock();
  } catch (...) {
    return;  // the thread takes the new watch when it next sleeps
  }
  if (primary) primary->wake();
}

std::shared_ptr<WorkQueue> WorkThreadGuard::processQueue() {
  registerForkHandler();
  std::lock_guard<std::mutex> lock(queueMutex);
  std::vector<std::weak_ptr<WorkQueue>>& lanes = processLanes().byNumber;
  if (lanes.empty()) lanes.emplace_back();
  std::shared_ptr<WorkQueue> queue = lanes.front().lock();
  if (!queue) {
    queue = std::make_shared<WorkQueue>(true);
    lanes.front() = queue;
  }
  return queue;
}

WorkThreadGuard WorkThreadGuard::forLock(LockTerm term) {
  registerForkHandler();
  const unsigned capacity = (term == LockTerm::Lasting ? lastingCapacity : totalCapacity).load();
  WorkThreadGuard guard;
  std::lock_guard<std::mutex> lock(queueMutex);
  Lanes& lanes = processLanes();
  for (std::size_t lane = 0;; ++lane) {
    if (lane == lanes.byNumber.size()) lanes.byNumber.emplace_back();
    std::shared_ptr<WorkQueue> queue = lanes.byNumber[lane].lock();
    if (!queue) {
      queue = std::make_shared<WorkQueue>(lane == 0);
      lanes.byNumber[lane] = queue;
      if (lane != 0) lanes.further.push_back(queue);
    }
    // Taken under queueMutex, so that two callers never both take a lane's
    // last room; given back without it.
    if (queue->locks.load(std::memory_order_acquire) < capacity) {
      queue->locks.fetch_add(1, std::memory_order_acq_rel);
      if (term == LockTerm::Lasting) ++lanes.lastingLocks;
      guard.workQueue = std::move(queue);
      guard.lockRoom = term;
      return guard;
    }
  }
}

void WorkThreadGuard::retireLane(const WorkQueue* lane) noexcept {
  std::shared_ptr<WorkQueue> kept;  // dropped after queueMutex is released
  try {
    std::lock_guard<std::mutex> lock(queueMutex);
    Lanes& lanes = processLanes();
    for (auto& slot : lanes.byNumber) {
      if (slot.lock().get() == lane) slot.reset();
    }
    for (auto it = lanes.further.begin(); it != lanes.further.end(); ++it) {
      if (it->get() == lane) {
        kept = std::move(*it);
        lanes.further.erase(it);
        break;
      }
    }
  } catch (...) {
    // Only locking can fail here; the lane then stays in service.
  }
}

WorkThreadGuard::WorkThreadGuard(std::function<void()>&& job) {
  std::shared_ptr<WorkQueue> queue = processQueue();
  queue->push(std::move(job));
  workQueue = std::move(queue);
}

WorkThreadGuard::WorkThreadGuard(WorkThreadGuard&& other) noexcept
    : workQueue(std::move(other.workQueue)), lockRoom(std::exchange(other.lockRoom, std::nullopt)) {}

WorkThreadGuard& WorkThreadGuard::operator=(WorkThreadGuard&& other) noexcept {
  if (this == &other) return *this;
  releaseLockRoom();
  workQueue = std::move(other.workQueue);
  lockRoom = std::exchange(other.lockRoom, std::nullopt);
  return *this;
}

WorkThreadGuard::~WorkThreadGuard() { releaseLockRoom(); }

void WorkThreadGuard::releaseLockRoom() noexcept {
  const std::optional<LockTerm> term = std::exchange(lockRoom, std::nullopt);
  if (!term || !workQueue) return;
  workQueue->locks.fetch_sub(1, std::memory_order_acq_rel);
  if (*term != LockTerm::Lasting) return;
  // The further lanes go once the process holds no lasting lock: stopped
  // here, after queueMutex is released (each joins its thread).
  std::vector<std::shared_ptr<WorkQueue>> stopping;
  {
    std::lock_guard<std::mutex> lock(queueMutex);
    Lanes& lanes = processLanes();
    if (lanes.lastingLocks > 0 && --lanes.lastingLocks == 0) stopping.swap(lanes.further);
  }
}

WorkThreadGuard WorkThreadGuard::holdThread() {
  WorkThreadGuard guard;
  guard.workQueue = processQueue();
  return guard;
}

#if defined(ENDPOINTREGISTRY_TEST_HOOKS)
void setLaneCapacityForTesting(unsigned lasting, unsigned total) noexcept {
  lastingCapacity.store(lasting != 0 ? lasting : lastingLocksPerLane);
  totalCapacity.store(total != 0 ? total : robustListLimit);
}
#endif

WorkThreadHold::WorkThreadHold() : guard(WorkThreadGuard::holdThread()) { guard.queue()->beginHold(); }

WorkThreadHold::~WorkThreadHold() { guard.queue()->endHold(); }

WorkThreadGuard WorkThreadGuard::executeAndSet(std::function<int()>&& function, int& result) {
  WorkThreadGuard guard = holdThread();
  guard.run(std::move(function), result);
  return guard;
}

void WorkThreadGuard::run(std::function<int()>&& function, int& result) {
  auto completion = std::make_shared<handoff::Completion>();
  auto sender = std::make_shared<handoff::CompletionSender>(completion);

  // The job hands the function's value or exception to the waiting caller;
  // it does not throw itself. An exception is handed over only after its
  // handler here has ended: from then on the caller alone holds it, so the
  // work thread never frees an exception that the caller is still reading.
  workQueue->push([sender, function = std::move(function)]() {
    int value = 0;
    std::exception_ptr thrown;
    try {
      if (!function) throw std::bad_function_call();
      value = function();
    } catch (...) {
      thrown = std::current_exception();
    }
    if (thrown) {
      sender->setException(std::move(thrown));
      return;
    }
    sender->setValue(value);
  });
  sender.reset();

  try {
    result = completion->get(*workQueue);
  } catch (const std::exception& error) {
    logMessage(mainLogger(), Error, "WorkThreadGuard: ", "Failed to execute the provided function in the work thread. ",
               "Error: ", error.what());
    throw;
  }
}

}  // namespace agent::spf::endpointregistry
