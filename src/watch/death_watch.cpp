#include "watch/death_watch.hpp"

#include <linux/futex.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <ctime>
#include <system_error>

#include <agent/spf/sharedmemory/mapped_access.hpp>

#include "concurrency/lock_word.hpp"

namespace agent::spf::endpointregistry::watch {

struct DeathWatch::Waiter {
  std::vector<std::uint32_t*> words;
  std::vector<futex_waitv> waits;  // one per word, then the control word
  std::atomic<std::uint32_t> control{0};
  std::atomic<bool> ended{false};
  int notifyFd = -1;
  pthread_t thread{};
};

namespace {

// futex_waitv takes at most FUTEX_WAITV_MAX words; one is the control word.
constexpr std::size_t wordsPerThread = FUTEX_WAITV_MAX - 1;
// The waiting threads only wait; they need little stack.
constexpr std::size_t waiterStackBytes = 256 * 1024;

long waitOnAny(futex_waitv* waits, std::size_t count) noexcept {
  return syscall(SYS_futex_waitv, waits, static_cast<unsigned>(count), 0u, nullptr, CLOCK_MONOTONIC);
}

void tell(int fd) noexcept {
  const std::uint64_t one = 1;
  (void)!write(fd, &one, sizeof one);
}

// The value to wait for on a record's lock word, with FUTEX_WAITERS set so
// that the holder's death or unlock wakes a waiter; nothing when the word
// shows no live holder.
bool prepareWait(std::uint32_t* word, std::uint32_t& expected) noexcept {
  const agent::spf::sharedmemory::MappedAccess mapped;
  std::atomic_ref<std::uint32_t> lock(*word);
  std::uint32_t seen = lock.load(std::memory_order_acquire);
  for (;;) {
    if (lockword::holder(seen) == 0 || lockword::ownerDied(seen)) return false;
    if (lockword::hasWaiters(seen)) break;
    if (lock.compare_exchange_weak(seen, seen | FUTEX_WAITERS, std::memory_order_acq_rel)) {
      seen |= FUTEX_WAITERS;
      break;
    }
  }
  expected = seen;
  return true;
}

void* runWaiter(void* argument) {
  auto* waiter = static_cast<DeathWatch::Waiter*>(argument);
  const std::size_t controlIndex = waiter->words.size();
  for (;;) {
    const long woken = waitOnAny(waiter->waits.data(), waiter->waits.size());
    const int error = errno;
    if (waiter->control.load(std::memory_order_acquire) != 0) return nullptr;
    if (woken < 0 && error == EINTR) continue;
    if (woken >= 0 && static_cast<std::size_t>(woken) == controlIndex) continue;
    if (woken >= 0) {
      // The kernel wakes one waiter of a dead holder's word: the others
      // (other watchers) are woken here.
      syscall(SYS_futex, waiter->words[static_cast<std::size_t>(woken)], FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
    }
    // Woken, or a word changed before the wait began (EAGAIN), or can no
    // longer be read (EFAULT): the registry is to be read again.
    waiter->ended.store(true, std::memory_order_release);
    tell(waiter->notifyFd);
    return nullptr;
  }
}

}  // namespace

DeathWatch::DeathWatch(int notify) noexcept : notifyFd(notify), ownerPid(getpid()) {}

DeathWatch::~DeathWatch() {
  if (getpid() != ownerPid) {
    // A forked child: the threads are the parent's. Their records are left
    // behind, never joined.
    for (auto& waiter : waiters) (void)waiter.release();
    return;
  }
  for (auto& waiter : waiters) stop(*waiter);
}

bool DeathWatch::available() noexcept {
  static const bool offered = [] {
    // An empty vector is refused with EINVAL where the call exists.
    return syscall(SYS_futex_waitv, nullptr, 0u, 0u, nullptr, CLOCK_MONOTONIC) != 0 && errno != ENOSYS;
  }();
  return offered;
}

void DeathWatch::stop(Waiter& waiter) noexcept {
  waiter.control.store(1, std::memory_order_release);
  syscall(SYS_futex, &waiter.control, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
  pthread_join(waiter.thread, nullptr);
}

void DeathWatch::notify() const noexcept { tell(notifyFd); }

void DeathWatch::watch(const std::vector<std::uint32_t*>& words) {
  const std::set<std::uint32_t*> wanted(words.begin(), words.end());
  // Waiters that still watch only wanted words, and have not ended, keep
  // waiting; the words of the others are watched anew.
  std::set<std::uint32_t*> covered;
  std::vector<std::unique_ptr<Waiter>> kept;
  for (auto& waiter : waiters) {
    bool keep = !waiter->ended.load(std::memory_order_acquire);
    for (std::uint32_t* word : waiter->words) keep = keep && wanted.count(word) != 0;
    if (keep) {
      covered.insert(waiter->words.begin(), waiter->words.end());
      kept.push_back(std::move(waiter));
    } else {
      stop(*waiter);
    }
  }
  waiters = std::move(kept);
  if (!available()) return;

  std::set<std::uint32_t*> unwaitableNow;
  std::vector<std::uint32_t*> pending;
  std::vector<std::uint32_t> expected;
  for (std::uint32_t* word : wanted) {
    if (covered.count(word) != 0) continue;
    std::uint32_t value = 0;
    if (!prepareWait(word, value)) {
      unwaitableNow.insert(word);
      continue;
    }
    pending.push_back(word);
    expected.push_back(value);
  }
  bool toldAlready = false;
  for (std::uint32_t* word : unwaitableNow) {
    if (unwaitable.count(word) == 0 && !toldAlready) {
      notify();
      toldAlready = true;
    }
  }
  unwaitable = std::move(unwaitableNow);

  // New threads get no signals: the process's handlers run on its own threads.
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, waiterStackBytes);
  int failure = 0;
  for (std::size_t first = 0; first < pending.size() && failure == 0; first += wordsPerThread) {
    auto waiter = std::make_unique<Waiter>();
    waiter->notifyFd = notifyFd;
    const std::size_t last = std::min(pending.size(), first + wordsPerThread);
    for (std::size_t i = first; i < last; ++i) {
      waiter->words.push_back(pending[i]);
      futex_waitv wait{};
      wait.val = expected[i];
      wait.uaddr = reinterpret_cast<std::uintptr_t>(pending[i]);
      wait.flags = FUTEX_32;
      waiter->waits.push_back(wait);
    }
    futex_waitv control{};
    control.val = 0;
    control.uaddr = reinterpret_cast<std::uintptr_t>(&waiter->control);
    control.flags = FUTEX_32 | FUTEX_PRIVATE_FLAG;
    waiter->waits.push_back(control);
    failure = pthread_create(&waiter->thread, &attributes, &runWaiter, waiter.get());
    if (failure == 0) waiters.push_back(std::move(waiter));
  }
  pthread_attr_destroy(&attributes);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  if (failure != 0) throw std::system_error(failure, std::generic_category(), "pthread_create");
}

}  // namespace agent::spf::endpointregistry::watch
