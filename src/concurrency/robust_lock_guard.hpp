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
#include <memory>

#include "concurrency/work_queue.hpp"

namespace agent::spf::endpointregistry {

class PThreadRobustLockGuard {
 public:
  // Initialises the mutex in place: error-checking, process-shared, robust.
  // Throws std::runtime_error on failure.
  static void initializeMutex(pthread_mutex_t* mutex);

  // Sets up a mutex in zero-filled memory (a new segment) exactly as
  // initializeMutex() would, with one atomic write, so that several
  // processes may do it at once, and one may do it late: a mutex already set
  // up, or in use, is left untouched. False when the memory holds a mutex of
  // another kind (left untouched too). Never throws.
  static bool initializeZeroedMutex(pthread_mutex_t* mutex) noexcept;

  // True when the mutex is all zero in its kind word (not set up yet) or of
  // the kind initializeMutex() makes; false for any other kind, such as
  // garbage or a destroyed mutex.
  static bool hasUnsetOrOwnKind(const pthread_mutex_t* mutex) noexcept;
  // True when the mutex is of the kind initializeMutex() makes.
  static bool hasOwnKind(const pthread_mutex_t* mutex) noexcept;
  // The kind word that initializeMutex() gives a mutex.
  static int ownKind() noexcept;

  // Probes a mutex on the calling thread without keeping it: 0 (free),
  // EOWNERDEAD (owner died; now made consistent and unlocked), or the error of
  // pthread_mutex_trylock (EBUSY: held by another thread; EDEADLK: held by the
  // calling thread). Never logs. A mutex of another kind than
  // pthread_mutex_init makes for the plain protocol (garbage, destroyed,
  // priority inheritance or protection) is not touched: EINVAL.
  static int getMutexState(pthread_mutex_t* mutex);

  // Judges a copy of a mutex's bytes, read without mapping the mutex: true
  // when probing the mutex itself would have answered EBUSY or EDEADLK (a
  // thread holds it and its owner has not been marked dead), so the mutex's
  // owner is alive. Decided by the lock word alone, never by the thread id
  // it holds: thread ids mean nothing in another pid namespace. False for a
  // free or owner-dead mutex and for a mutex of a kind getMutexState() does
  // not touch.
  static bool heldInCopy(const pthread_mutex_t& copy) noexcept;

  // Returns with the mutex locked by a work thread; repairs an owner-dead
  // mutex silently. `term` says how long the lock will be held: a lasting
  // lock (a record's) is taken on a work thread that holds fewer lasting
  // locks than the kernel repairs when a thread dies (work_queue.hpp).
  // Throws std::runtime_error on a null mutex or a lock error (error 22,
  // EINVAL, for a mutex of any other kind than initializeMutex() makes: it
  // might not be robust, and a dead holder would keep it locked for ever).
  explicit PThreadRobustLockGuard(pthread_mutex_t* mutexPtr, LockTerm term = LockTerm::Brief);
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

  // Lets go of the guard without unlocking or destroying the mutex: its work
  // thread keeps the lock until it ends. For a mutex whose bytes were cut or
  // overwritten by another process, which must not be touched again. The
  // guard becomes empty.
  void abandon() noexcept;

  // The work queue (lane) whose thread holds the lock; null for an empty guard.
  const WorkQueue* lane() const noexcept;

  class Impl;

 private:
  std::unique_ptr<Impl> impl;
};

}  // namespace agent::spf::endpointregistry
