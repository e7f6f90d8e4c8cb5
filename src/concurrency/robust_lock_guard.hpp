// Ownership of the lock of one robust, process-shared, error-checking pthread
// mutex that lives in shared memory.
//
// While a guard exists, its mutex is locked by the process's work thread
// (work_queue.hpp), so the lock outlives the caller's thread; when the
// process dies the kernel marks the mutex owner-dead and the next locker or
// prober sees EOWNERDEAD. Lock and unlock both run on the work thread. Within
// one process, a second guard on a held mutex re-queues its lock until the
// first guard is gone (EDEADLK retry), rather than blocking the work thread.
// A mutex held by another process is waited for in slices of 10 ms, between
// which the work thread runs the process's other jobs, so that processes
// whose threads hold and want several such mutexes cannot deadlock through
// their work threads.
#pragma once

#include <pthread.h>
#include <sys/types.h>
#include <memory>

#include "concurrency/work_queue.hpp"

namespace agent::spf::endpointregistry {

class PThreadRobustLockGuard {
 public:
  // Initialises the mutex in place: error-checking, process-shared, robust.
  // Throws std::runtime_error on failure.
  static void initializeMutex(pthread_mutex_t* mutex);

  // Probes a mutex on the calling thread without keeping it: 0 (free),
  // EOWNERDEAD (owner died; now made consistent and unlocked), or the error of
  // pthread_mutex_trylock (EBUSY: held by another thread; EDEADLK: held by the
  // calling thread). Never logs. A mutex of another kind than
  // pthread_mutex_init makes for the plain protocol (garbage, destroyed,
  // priority inheritance or protection) is not touched: EINVAL.
  static int getMutexState(pthread_mutex_t* mutex);

  // For a mutex that probes as held (EBUSY): true unless the thread that
  // holds it is known to have ended, or not to belong to `process`. The
  // kernel repairs at most 2,048 robust mutexes per dying thread; the others
  // stay locked by a thread that no longer exists.
  static bool isHeldByLiveThreadOf(const pthread_mutex_t* mutex, pid_t process);

  // Judges a copy of a mutex's bytes, read without mapping the mutex: the
  // thread that the copy shows holding the mutex (plain kind, no owner-died
  // mark, not the calling thread), or 0. When that thread exists in the
  // publisher's process (threadExists), probing the mutex itself would have
  // answered EBUSY, and isHeldByLiveThreadOf true.
  static pid_t holderInCopy(const pthread_mutex_t& copy);
  // False only when the system says that `thread` does not exist in
  // `process`.
  static bool threadExists(pid_t process, pid_t thread);

  // Returns with the mutex locked by the work thread; repairs an owner-dead
  // mutex silently. Throws std::runtime_error on a null mutex or a lock error
  // (error 22, EINVAL, for a mutex of a kind getMutexState() does not touch).
  explicit PThreadRobustLockGuard(pthread_mutex_t* mutexPtr);
  PThreadRobustLockGuard(PThreadRobustLockGuard&&) noexcept;
  // Takes the other's lock, then releases the one held before.
  PThreadRobustLockGuard& operator=(PThreadRobustLockGuard&&) noexcept;
  PThreadRobustLockGuard(const PThreadRobustLockGuard&) = delete;
  PThreadRobustLockGuard& operator=(const PThreadRobustLockGuard&) = delete;
  // Unlocks on the work thread, then destroys the mutex if setDestroyOnRelease()
  // was called. Never throws. A guard inherited by a forked child does
  // nothing: the lock belongs to the parent.
  ~PThreadRobustLockGuard();

  // The mutex is destroyed after it is unlocked on release.
  void setDestroyOnRelease();

  class Impl;

 private:
  std::unique_ptr<Impl> impl;
};

}  // namespace agent::spf::endpointregistry
