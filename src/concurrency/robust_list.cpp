#include "concurrency/robust_list.hpp"

#include <linux/futex.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>

#include <agent/spf/sharedmemory/mapped_access.hpp>

#include "concurrency/lock_word.hpp"
#include "diagnostics/test_hooks.hpp"

namespace agent::spf::endpointregistry::robustlist {
namespace {

// The kernel's view of a thread's list head (struct robust_list_head).
struct KernelHead {
  void* list;
  long futexOffset;
  void* listOpPending;
};

KernelHead* threadHead() noexcept {
  static thread_local KernelHead* head = [] {
    KernelHead* found = nullptr;
    std::size_t length = 0;
    if (syscall(SYS_get_robust_list, 0, &found, &length) != 0) return static_cast<KernelHead*>(nullptr);
    return found;
  }();
  return head;
}

// glibc keeps robust_prev, the head's backward link, right before the head.
void** headPrev(KernelHead* head) noexcept { return reinterpret_cast<void**>(head) - 1; }

// The __prev field of the entry that `link` points at (a mutex's, or the
// head's robust_prev).
void** prevFieldOf(void* link) noexcept { return static_cast<void**>(link) - 1; }

// True when glibc keeps the list as described in the header: checked on a
// private robust mutex, locked and unlocked on this thread (which may hold
// others already).
bool layoutUnderstood() noexcept {
  static const bool understood = [] {
    KernelHead* head = threadHead();
    if (head == nullptr) return false;
    void* const before = head->list;
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_t mutex;
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    bool matches = false;
    if (pthread_mutex_lock(&mutex) == 0) {
      matches = head->list == linkOf(&mutex) && static_cast<void*>(mutex.__data.__list.__next) == before &&
                static_cast<void*>(mutex.__data.__list.__prev) == head;
      if (before == head) {
        matches = matches && *headPrev(head) == linkOf(&mutex);
      } else {
        matches = matches && *prevFieldOf(before) == linkOf(&mutex);
      }
      pthread_mutex_unlock(&mutex);
      matches = matches && head->list == before;
    }
    pthread_mutex_destroy(&mutex);
    return matches;
  }();
  return understood;
}

// A fault inside a checked unlock goes back to unlockHeld() (see onFault).
thread_local sigjmp_buf* faultEscape __attribute__((tls_model("initial-exec"))) = nullptr;
struct sigaction previousSegv;
std::once_flag installOnce;

void onFault(int signal, siginfo_t* info, void* context) {
  if (faultEscape != nullptr) siglongjmp(*faultEscape, 1);
  // Not ours: the handler that was there before, or the default action.
  if ((previousSegv.sa_flags & SA_SIGINFO) != 0 && previousSegv.sa_sigaction != nullptr) {
    previousSegv.sa_sigaction(signal, info, context);
  } else if (previousSegv.sa_handler != SIG_DFL && previousSegv.sa_handler != SIG_IGN) {
    previousSegv.sa_handler(signal);
  } else {
    struct sigaction fallback {};
    fallback.sa_handler = SIG_DFL;
    sigemptyset(&fallback.sa_mask);
    sigaction(SIGSEGV, &fallback, nullptr);
  }
}

void installFaultHandler() {
  struct sigaction action {};
  action.sa_sigaction = &onFault;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
  sigemptyset(&action.sa_mask);
  sigaction(SIGSEGV, &action, &previousSegv);
}

// True when `mutex` still has its kind word, holds the links its neighbours
// give it and is held by this thread. Anything else means that another
// process cut or overwrote it: glibc would unlock it by what it now holds.
bool intact(pthread_mutex_t* mutex, int kind, void* newer, void* older) noexcept {
  const unsigned ownThread = static_cast<unsigned>(gettid());
  return std::atomic_ref<int>(mutex->__data.__kind).load(std::memory_order_relaxed) == kind &&
         static_cast<void*>(mutex->__data.__list.__next) == older &&
         static_cast<void*>(mutex->__data.__list.__prev) == newer &&
         lockword::holder(lockword::of(*mutex)) == ownThread;
}

// Takes the mutex between `newer` and `older` out of the list by linking
// them to each other, without touching the mutex.
void unlink(void* newer, void* older) noexcept {
  KernelHead* head = threadHead();
  if (newer == head) {
    head->list = older;
  } else {
    *static_cast<void**>(newer) = older;  // the newer mutex's next link
  }
  if (older == head) {
    *headPrev(head) = newer;
  } else {
    *prevFieldOf(older) = newer;
  }
  head->listOpPending = nullptr;
}

// True while the mutex between `newer` and `older` is still linked between
// them: either neighbour still points at it.
bool stillLinked(pthread_mutex_t* mutex, void* newer, void* older) noexcept {
  KernelHead* head = threadHead();
  void* const afterNewer = newer == head ? head->list : *static_cast<void**>(newer);
  void* const beforeOlder = older == head ? *headPrev(head) : *prevFieldOf(older);
  return afterNewer == linkOf(mutex) || beforeOlder == linkOf(mutex);
}

// Lets go of a damaged mutex's lock word, if it still shows this thread as
// its holder, and wakes whoever waits for it: its segment was cut or
// overwritten, but others may still wait on what is left of it, and would
// otherwise wait for ever for a holder that lives on.
void releaseLockWord(pthread_mutex_t* mutex) noexcept {
  const unsigned ownThread = static_cast<unsigned>(gettid());
  auto* word = reinterpret_cast<unsigned*>(&mutex->__data.__lock);
  unsigned seen = __atomic_load_n(word, __ATOMIC_ACQUIRE);
  if (lockword::holder(seen) != ownThread) return;
  if (!__atomic_compare_exchange_n(word, &seen, 0u, false, __ATOMIC_RELEASE, __ATOMIC_RELAXED)) return;
  if (lockword::hasWaiters(seen)) syscall(SYS_futex, word, FUTEX_WAKE, 1, nullptr, nullptr, 0);
}

// Takes a damaged mutex out of the list and lets go of it. Returns what
// glibc would have answered: EPERM for a mutex that no longer shows this
// thread as its holder (re-initialised, or cut to zeros), else 0.
int dropDamaged(pthread_mutex_t* mutex, void* newer, void* older) noexcept {
  unlink(newer, older);
  const unsigned word = __atomic_load_n(reinterpret_cast<unsigned*>(&mutex->__data.__lock), __ATOMIC_ACQUIRE);
  if (lockword::holder(word) != static_cast<unsigned>(gettid())) return EPERM;
  releaseLockWord(mutex);
  return 0;
}

}  // namespace

void* headLink() noexcept { return threadHead(); }

void* firstLink() noexcept {
  KernelHead* head = threadHead();
  return head == nullptr ? nullptr : head->list;
}

bool lockedFirst(pthread_mutex_t* mutex) noexcept {
  if (!layoutUnderstood()) return true;
  return firstLink() == linkOf(mutex);
}

void releaseUnlisted(pthread_mutex_t* mutex) noexcept {
  const agent::spf::sharedmemory::MappedAccess mapped;
  auto* word = reinterpret_cast<unsigned*>(&mutex->__data.__lock);
  unsigned seen = __atomic_load_n(word, __ATOMIC_ACQUIRE);
  // Locked as a robust mutex (this thread's id in the word) or as a plain
  // one (1, or 2 with waiters, and this thread as its owner). The two can
  // look alike (a thread id of 1 or 2 in a pid namespace), so the word is
  // cleared and a waiter woken either way, as a process-shared or a private
  // mutex would be waited for: a wake that finds nobody costs nothing.
  const unsigned ownThread = static_cast<unsigned>(gettid());
  const bool robustlyHeld = lockword::holder(seen) == ownThread;
  const bool plainlyHeld =
      (seen == 1 || seen == 2) &&
      std::atomic_ref<int>(mutex->__data.__owner).load(std::memory_order_relaxed) == static_cast<int>(ownThread);
  if (!robustlyHeld && !plainlyHeld) return;
  if (!__atomic_compare_exchange_n(word, &seen, 0u, false, __ATOMIC_RELEASE, __ATOMIC_RELAXED)) return;
  syscall(SYS_futex, word, FUTEX_WAKE, 1, nullptr, nullptr, 0);
  syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

int unlockHeld(pthread_mutex_t* mutex, int kind, void* newer, void* older, bool* dropped) noexcept {
  if (dropped != nullptr) *dropped = false;
  if (!layoutUnderstood()) return pthread_mutex_unlock(mutex);
  // Neighbours and the mutex may sit in segments cut short: such pages read
  // and write as zeros here.
  const agent::spf::sharedmemory::MappedAccess mapped;
  try {
    std::call_once(installOnce, &installFaultHandler);
  } catch (...) {
    return pthread_mutex_unlock(mutex);
  }
  if (!intact(mutex, kind, newer, older)) {
    if (dropped != nullptr) *dropped = true;
    return dropDamaged(mutex, newer, older);
  }
  sigjmp_buf escape;
  if (sigsetjmp(escape, 1) != 0) {
    // The mutex was cut or overwritten while it was being unlocked.
    faultEscape = nullptr;
    if (dropped != nullptr) *dropped = true;
    return dropDamaged(mutex, newer, older);
  }
  ER_TEST_HOOK("robust.unlocking");
  faultEscape = &escape;
  const int result = pthread_mutex_unlock(mutex);
  faultEscape = nullptr;
  // Cut or overwritten after the check, before glibc read it: glibc then
  // took it for a mutex of another kind (unlocked as one that sits in no
  // list), refused it (EINVAL for a destroyed one, EPERM for a lock word that
  // no longer names this thread), and left it in this thread's list. Left
  // there, the next lock on this thread would write into its bytes, perhaps
  // after its segment was unmapped.
  if (stillLinked(mutex, newer, older)) {
    if (dropped != nullptr) *dropped = true;
    return dropDamaged(mutex, newer, older);
  }
  return result;
}

}  // namespace agent::spf::endpointregistry::robustlist
