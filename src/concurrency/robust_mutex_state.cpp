// What a robust mutex in shared memory is and holds, judged from its bytes:
// its kind word (set up by this library, not yet set up, or anything else)
// and its lock word; the setting up of new mutexes; the probe.
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <stdexcept>
#include <string>

#include <agent/spf/sharedmemory/mapped_access.hpp>

#include "concurrency/lock_word.hpp"
#include "concurrency/robust_list.hpp"
#include "concurrency/robust_lock_guard.hpp"
#include "diagnostics/diagnostics.hpp"

namespace agent::spf::endpointregistry {
namespace {

// The kind words that pthread_mutex_init gives a mutex of the plain
// protocol: default attributes or any type, robust or not, shared or not.
// Other kinds (priority inheritance, priority protection, forced lock
// elision, destroyed, or garbage) are never handed to pthread functions: on
// some of them glibc aborts in an assertion or executes an instruction the
// processor lacks.
// The kinds are kept without heap memory: they are first asked for on the
// work thread, whose first allocation would set up a malloc arena of its
// own in the middle of a lock.
constexpr int mutexTypeCount = 5;
using MutexKinds = std::array<int, mutexTypeCount * 2 * 2>;

MutexKinds plainMutexKinds() {
  constexpr int defaultType = -1;  // no type set
  MutexKinds kinds{};
  std::size_t count = 0;
  const int types[mutexTypeCount] = {defaultType, PTHREAD_MUTEX_NORMAL, PTHREAD_MUTEX_RECURSIVE,
                                     PTHREAD_MUTEX_ERRORCHECK, PTHREAD_MUTEX_ADAPTIVE_NP};
  for (int type : types) {
    for (int robust : {int{PTHREAD_MUTEX_STALLED}, int{PTHREAD_MUTEX_ROBUST}}) {
      for (int shared : {int{PTHREAD_PROCESS_PRIVATE}, int{PTHREAD_PROCESS_SHARED}}) {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        if (type != defaultType) pthread_mutexattr_settype(&attributes, type);
        pthread_mutexattr_setrobust(&attributes, robust);
        pthread_mutexattr_setpshared(&attributes, shared);
        pthread_mutex_t scratch;
        pthread_mutex_init(&scratch, &attributes);
        kinds[count++] = scratch.__data.__kind;
        pthread_mutex_destroy(&scratch);
        pthread_mutexattr_destroy(&attributes);
      }
    }
  }
  return kinds;
}

// True when the mutex is of a plain kind, whatever its other bytes hold. The
// mutex lives in shared memory that other processes write.
bool hasPlainKind(const pthread_mutex_t* mutex) {
  static const MutexKinds kinds = plainMutexKinds();
  const int kind = std::atomic_ref<int>(const_cast<int&>(mutex->__data.__kind)).load(std::memory_order_relaxed);
  return std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
}

// The kind word of a mutex that initializeMutex() sets up. pthread_mutex_init
// clears the whole mutex and then stores this word and nothing else, so a
// zero-filled mutex with this word is a mutex set up by it.
int freshKind() noexcept {
  static const int kind = [] {
    pthread_mutex_t scratch;
    PThreadRobustLockGuard::initializeMutex(&scratch);
    const int word = scratch.__data.__kind;
    pthread_mutex_destroy(&scratch);
    return word;
  }();
  return kind;
}

}  // namespace

void PThreadRobustLockGuard::initializeMutex(pthread_mutex_t* mutex) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  const int result = pthread_mutex_init(mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  if (result == 0) return;

  // Both texts carry errno, not the result of pthread_mutex_init.
  const int error = errno;
  logMessage(mainLogger(), Error, "PThreadRobustLockGuard: ", "Failed to initialize the mutex. (Error ", error, ")");
  throw std::runtime_error("System error: Endpoint::PThreadRobustLockGuard: Failed to initialize the mutex (Error " +
                           std::to_string(error) + ")");
}

int PThreadRobustLockGuard::ownKind() noexcept { return freshKind(); }

bool PThreadRobustLockGuard::initializeZeroedMutex(pthread_mutex_t* mutex) noexcept {
  const agent::spf::sharedmemory::MappedAccess mapped;
  int kind = 0;
  return std::atomic_ref<int>(mutex->__data.__kind).compare_exchange_strong(kind, freshKind()) || kind == freshKind();
}

bool PThreadRobustLockGuard::hasUnsetOrOwnKind(const pthread_mutex_t* mutex) noexcept {
  const agent::spf::sharedmemory::MappedAccess mapped;
  const int kind = std::atomic_ref<int>(const_cast<int&>(mutex->__data.__kind)).load(std::memory_order_relaxed);
  return kind == 0 || kind == freshKind();
}

bool PThreadRobustLockGuard::hasOwnKind(const pthread_mutex_t* mutex) noexcept {
  const agent::spf::sharedmemory::MappedAccess mapped;
  return std::atomic_ref<int>(const_cast<int&>(mutex->__data.__kind)).load(std::memory_order_relaxed) == freshKind();
}

int PThreadRobustLockGuard::getMutexState(pthread_mutex_t* mutex) {
  const agent::spf::sharedmemory::MappedAccess mapped;
  // Not a mutex this library could have made: refused as glibc refuses a
  // kind it does not know.
  if (!hasPlainKind(mutex)) return EINVAL;
  // A robust mutex taken here goes first in this thread's list of robust
  // mutexes, before whatever was first there; one of another kind goes in no
  // list and is unlocked as it is.
  const int kind = std::atomic_ref<int>(mutex->__data.__kind).load(std::memory_order_relaxed);
  void* const before = robustlist::firstLink();
  const int result = pthread_mutex_trylock(mutex);
  if (result != 0 && result != EOWNERDEAD) return result;
  if (result == EOWNERDEAD) pthread_mutex_consistent(mutex);
  if (robustlist::lockedFirst(mutex)) {
    (void)robustlist::unlockHeld(mutex, kind, robustlist::headLink(), before);
  } else {
    pthread_mutex_unlock(mutex);
  }
  return result;
}

bool PThreadRobustLockGuard::heldInCopy(const pthread_mutex_t& copy) noexcept {
  if (!hasPlainKind(&copy)) return false;
  // Any holder without the owner-died mark is one whose death has not been
  // seen: a trylock would answer EBUSY, or EDEADLK to that very thread.
  const unsigned word = lockword::of(copy);
  return !lockword::ownerDied(word) && lockword::holder(word) != 0;
}

}  // namespace agent::spf::endpointregistry
