#include "concurrency/robust_lock_guard.hpp"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <agent/spf/sharedmemory/mapped_access.hpp>

#include "concurrency/lock_word.hpp"
#include "concurrency/robust_list.hpp"
#include "diagnostics/diagnostics.hpp"
#include "diagnostics/test_hooks.hpp"

namespace agent::spf::endpointregistry {

// The state of one held lock. The lock is taken on the work thread when the
// Impl is made and released there when it is destroyed; `workThread` keeps
// that thread alive in between, since a robust mutex counts as abandoned as
// soon as its owning thread ends.
class PThreadRobustLockGuard::Impl {
 public:
  Impl(pthread_mutex_t* mutex, LockTerm term) : mutexPtr(mutex), workThread(getLockedMutexThread(term)) {}
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  pthread_mutex_t* mutexPtr;
  // Written once by the owner before any other use of the guard.
  bool destroyOnRelease = false;
  // Let go of without unlocking (see abandon()).
  bool abandoned = false;
  // The lane whose thread holds the lock, with the room the lock takes there.
  WorkThreadGuard workThread;
  // The process whose work thread holds the lock; a forked child inherits
  // the guard but not the lock.
  pid_t ownerPid = getpid();

 private:
  WorkThreadGuard getLockedMutexThread(LockTerm term);
};

namespace {

// Notes a mutex that this work thread has just locked: it unlocks each one
// knowing its neighbours in the thread's list (robust_list.hpp).
void noteLocked(pthread_mutex_t* mutex) {
  if (WorkQueue* lane = WorkQueue::current()) lane->heldMutexes().push_back(mutex);
}

// Unlocks a mutex that this work thread holds; `dropped` as robust_list.hpp
// tells.
int unlockHeldMutex(pthread_mutex_t* mutex, bool& dropped) noexcept {
  dropped = false;
  WorkQueue* lane = WorkQueue::current();
  if (lane == nullptr) return pthread_mutex_unlock(mutex);
  std::vector<pthread_mutex_t*>& held = lane->heldMutexes();
  const auto found = std::find(held.begin(), held.end(), mutex);
  if (found == held.end()) return pthread_mutex_unlock(mutex);
  const auto index = static_cast<std::size_t>(found - held.begin());
  void* const newer = index + 1 < held.size() ? robustlist::linkOf(held[index + 1]) : robustlist::headLink();
  void* const older = index > 0 ? robustlist::linkOf(held[index - 1]) : robustlist::headLink();
  held.erase(found);
  // Locked only when it was of this library's kind (see the lock job).
  return robustlist::unlockHeld(mutex, PThreadRobustLockGuard::ownKind(), newer, older, &dropped);
}

// What pthread_mutex_trylock answered, as a lock wait takes it: EDEADLK
// ("held by this thread") only when this lane holds the mutex through
// another guard of the process. Any other EDEADLK names a holder in another
// pid namespace whose thread id is this lane's: EBUSY, to be waited for.
int triedLock(pthread_mutex_t* mutex) {
  const int result = pthread_mutex_trylock(mutex);
  if (result != EDEADLK) return result;
  WorkQueue* lane = WorkQueue::current();
  if (lane == nullptr) return result;
  const std::vector<pthread_mutex_t*>& held = lane->heldMutexes();
  return std::find(held.begin(), held.end(), mutex) != held.end() ? EDEADLK : EBUSY;
}

// The longest the work thread waits at once for a mutex that another process
// holds; then it runs the process's other jobs before it tries again.
constexpr std::chrono::nanoseconds lockWaitSlice = std::chrono::milliseconds(10);

#if defined(__SANITIZE_THREAD__)

// ThreadSanitizer (as shipped with GCC 12) does not intercept
// pthread_mutex_clocklock, and its pthread_mutex_timedlock misses a lock
// taken with EOWNERDEAD: either would leave the lock unseen and report its
// unlock as one of an unlocked mutex. Its builds poll with
// pthread_mutex_trylock, which it follows fully, for the same slice.
int lockWithin(pthread_mutex_t* mutex, std::chrono::nanoseconds slice) {
  const auto deadline = std::chrono::steady_clock::now() + slice;
  for (;;) {
    const int result = triedLock(mutex);
    if (result != EBUSY) return result;
    if (std::chrono::steady_clock::now() >= deadline) return ETIMEDOUT;
    ER_TEST_HOOK("robust.waiting");
    std::this_thread::sleep_for(std::chrono::microseconds(50));
  }
}

#else

// The kernel's answer to a wait on a mutex's lock word, as lockWithin()
// answers it: 0 to try the lock again, or what to return.
int afterWait(long answer) noexcept {
  if (answer == 0) return 0;
  switch (errno) {
    case EAGAIN:  // the word changed before the wait began
    case EINTR:
      return 0;
    case EFAULT:
      // The kernel could not read the word: the segment was cut beneath the
      // mutex after its word was read. Refused as a mutex that is no longer
      // of this library's kind.
      return EINVAL;
    default:
      return errno;  // ETIMEDOUT once the slice is over
  }
}

// Marks the lock word of a mutex that this thread has just taken robustly
// after a wait with FUTEX_WAITERS, as glibc's own lock does: others may still
// sleep on the word, and only this thread's unlock can wake them. A word
// that does not name this thread (the mutex was cut and taken as a plain
// one) is left alone.
void keepWaitersMark(unsigned* word) noexcept {
  const auto ownThread = static_cast<unsigned>(gettid());
  unsigned seen = __atomic_load_n(word, __ATOMIC_RELAXED);
  while (lockword::holder(seen) == ownThread && !lockword::hasWaiters(seen) && !lockword::ownerDied(seen)) {
    if (__atomic_compare_exchange_n(word, &seen, seen | FUTEX_WAITERS, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
      return;
    }
  }
}

bool reached(const timespec& deadline) noexcept {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec > deadline.tv_sec || (now.tv_sec == deadline.tv_sec && now.tv_nsec >= deadline.tv_nsec);
}

// pthread_mutex_lock, except that it gives up with ETIMEDOUT after `slice`.
// The lock is taken by pthread_mutex_trylock, which keeps the thread's list
// of robust mutexes; the wait between tries is this library's own. glibc's
// waiting locks end the process ("The futex facility returned an unexpected
// error code.") when the kernel cannot read the lock word, which is what
// another process brings about by cutting the segment between glibc's read
// of the word and its wait. The wait follows glibc's robust protocol: set
// FUTEX_WAITERS, so that the holder's unlock (or the kernel, at its death)
// wakes a waiter, then sleep while the word stays as seen.
int lockWithin(pthread_mutex_t* mutex, std::chrono::nanoseconds slice) {
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  const long long nanoseconds = deadline.tv_nsec + slice.count();
  deadline.tv_sec += static_cast<time_t>(nanoseconds / 1'000'000'000);
  deadline.tv_nsec = static_cast<long>(nanoseconds % 1'000'000'000);
  auto* const word = reinterpret_cast<unsigned*>(&mutex->__data.__lock);
  bool waited = false;
  for (;;) {
    const int result = triedLock(mutex);
    if (result != EBUSY) {
      if (waited && (result == 0 || result == EOWNERDEAD)) keepWaitersMark(word);
      return result;
    }
    unsigned seen = __atomic_load_n(word, __ATOMIC_RELAXED);
    if (seen == 0 || lockword::ownerDied(seen)) {
      // Let go of since the try: tried again within the slice. A waiter
      // that gives up here after a wake-up passes the wake-up on, which it
      // may have taken from another waiter. A mutex overwritten with another
      // kind meanwhile may stay busy with such a word: refused at once.
      if (!PThreadRobustLockGuard::hasOwnKind(mutex)) return EINVAL;
      if (!reached(deadline)) continue;
      if (waited) syscall(SYS_futex, word, FUTEX_WAKE, 1, nullptr, nullptr, 0);
      return ETIMEDOUT;
    }
    if (!lockword::hasWaiters(seen)) {
      if (!__atomic_compare_exchange_n(word, &seen, seen | FUTEX_WAITERS, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
        continue;
      }
      seen |= FUTEX_WAITERS;
    }
    waited = true;
    ER_TEST_HOOK("robust.waiting");
    // Absolute on CLOCK_MONOTONIC; process-shared, as the mutex is.
    const int next =
        afterWait(syscall(SYS_futex, word, FUTEX_WAIT_BITSET, seen, &deadline, nullptr, FUTEX_BITSET_MATCH_ANY));
    if (next != 0) return next;
  }
}

#endif

}  // namespace

// Runs on the caller's thread; the lock itself is taken on the work thread.
WorkThreadGuard PThreadRobustLockGuard::Impl::getLockedMutexThread(LockTerm term) {
  if (mutexPtr == nullptr) {
    logMessage(mainLogger(), Error, "PThreadRobustLockGuard::getLockedMutexThread: ", "mutexPtr cannot be null.");
    throw std::runtime_error(
        "System error: Endpoint::getLockedMutexThread::getLockedMutexThread: Mutex cannot be null");
  }

  // A mutex left behind by a dead owner is repaired and kept; its previous
  // owner's death is not reported further.
  // Only a mutex of the kind initializeMutex() makes is locked: one of another
  // kind (garbage, or one that another process zeroed by cutting its
  // segment short) may not be robust, and a holder that died would keep it
  // locked for ever.
  auto lockJob = [this] {
    if (!hasOwnKind(mutexPtr)) return EINVAL;
    ER_TEST_HOOK("robust.locking");
    int result = lockWithin(mutexPtr, lockWaitSlice);
    if ((result == 0 || result == EOWNERDEAD) && !robustlist::lockedFirst(mutexPtr)) {
      // Cut or overwritten after its kind was checked: glibc locked it as a
      // mutex of another kind, in no list, which a dead holder would leave
      // locked for ever. Let go of at once and refused for its kind.
      robustlist::releaseUnlisted(mutexPtr);
      return EINVAL;
    }
    if (result == EOWNERDEAD) {
      result = pthread_mutex_consistent(mutexPtr);
      if (result != 0) {
        // Locked, but no longer a mutex to keep (another process changed it
        // meanwhile): let go of it at once, so that the failure reported
        // leaves no lock behind on this thread's list.
        noteLocked(mutexPtr);
        bool dropped = false;
        (void)unlockHeldMutex(mutexPtr, dropped);
        return result;
      }
    }
    if (result == 0) noteLocked(mutexPtr);
    return result;
  };

  int result = 0;
  WorkThreadGuard guard = WorkThreadGuard::forLock(term);
  guard.run(lockJob, result);
  // EDEADLK: another guard of this process holds the mutex on the work
  // thread. Blocking there would stall the queue on which that guard's
  // unlock must run, so the lock is re-queued behind the waiting jobs until
  // the other guard is gone. A deliberate busy retry.
  // ETIMEDOUT: another process has held the mutex for a whole slice. The
  // lock is re-queued as well, so that the unlocks that this process's other
  // threads queued meanwhile run first: two processes whose work threads
  // each waited for a mutex that the other process holds (two directories,
  // each locked for one thread and wanted for another) would otherwise wait
  // for each other for ever.
  while (result == EDEADLK || result == ETIMEDOUT) guard.run(lockJob, result);
  if (result == 0) return guard;

  logMessage(mainLogger(), Error, "PThreadRobustLockGuard::getLockedMutexThread ", "Failed to lock the mutex. (Error ",
             result, ")");
  throw std::runtime_error(
      "System error: Endpoint::PThreadRobustLockGuard::getLockedMutexThread: Failed to lock the mutex. (Error " +
      std::to_string(result) + ")");
}

// Never throws: a failure to run the unlock on the work thread ends the
// process (the destructor is noexcept), since the lock could never be
// released otherwise.
PThreadRobustLockGuard::Impl::~Impl() {
  // In a forked child the lock belongs to the parent's work thread: leave it
  // alone. Only the inherited reference to the parent's queue goes.
  if (getpid() != ownerPid || abandoned) return;
  int result = 0;
  bool dropped = false;
  workThread.run([this, &dropped] { return unlockHeldMutex(mutexPtr, dropped); }, result);
  if (result != 0) {
    logMessage(mainLogger(), Error, "~PThreadRobustLockGuard: ", "Failed to unlock the mutex. (Error ", result, ")");
  }
  // Destroyed on the caller's thread, after the work thread let go of it;
  // one found damaged (cut or overwritten by another process) is not.
  const agent::spf::sharedmemory::MappedAccess mapped;
  if (destroyOnRelease && !dropped && pthread_mutex_destroy(mutexPtr) != 0) {
    logMessage(mainLogger(), Error, "~PThreadRobustLockGuard: ", "Failed to destroy the mutex . (Error ", errno, ")");
  }
}

PThreadRobustLockGuard::PThreadRobustLockGuard(pthread_mutex_t* mutexPtr, LockTerm term)
    : impl(std::make_unique<Impl>(mutexPtr, term)) {}

PThreadRobustLockGuard::PThreadRobustLockGuard(PThreadRobustLockGuard&&) noexcept = default;

// unique_ptr's move assignment takes the other's Impl first, then destroys
// the previous one, which releases its lock at once.
PThreadRobustLockGuard& PThreadRobustLockGuard::operator=(PThreadRobustLockGuard&&) noexcept = default;

PThreadRobustLockGuard::~PThreadRobustLockGuard() = default;

void PThreadRobustLockGuard::setDestroyOnRelease() { impl->destroyOnRelease = true; }

void PThreadRobustLockGuard::abandon() noexcept {
  if (!impl) return;
  impl->abandoned = true;
  impl.reset();
}

const WorkQueue* PThreadRobustLockGuard::lane() const noexcept {
  return impl ? impl->workThread.queue().get() : nullptr;
}

}  // namespace agent::spf::endpointregistry
