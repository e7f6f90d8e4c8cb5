#include "watch/death_watch.hpp"

#include <linux/futex.h>
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <ctime>
#include <system_error>
#include <utility>

#include <agent/spf/sharedmemory/mapped_access.hpp>

#include "concurrency/lock_word.hpp"

namespace agent::spf::endpointregistry::watch {

struct DeathWatch::Waiter {
  // The assignment, under `mutex`: the words, and the values to wait for.
  std::mutex mutex;
  std::vector<std::uint32_t*> words;
  std::vector<std::uint32_t> expected;
  // Changed (and woken) for each new assignment and to stop the thread.
  std::atomic<std::uint32_t> control{0};
  std::atomic<bool> quit{false};
  // The thread was woken by one of its words and waits for new ones.
  std::atomic<bool> parked{false};
  // The last control value for which the thread took its words (and then
  // waits without allocating); `notYet` before its first.
  static constexpr std::uint32_t notYet = ~std::uint32_t{0};
  std::atomic<std::uint32_t> taken{notYet};
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

void wakeControl(std::atomic<std::uint32_t>& control) noexcept {
  syscall(SYS_futex, &control, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
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
  // Room for the most words a thread is given, taken before the thread
  // reports its first words taken: it never allocates afterwards.
  std::vector<futex_waitv> waits;
  std::vector<std::uint32_t*> words;
  waits.reserve(wordsPerThread + 1);
  words.reserve(wordsPerThread);
  for (;;) {
    std::uint32_t generation = 0;
    {
      std::lock_guard<std::mutex> lock(waiter->mutex);
      generation = waiter->control.load(std::memory_order_acquire);
      // Into the room reserved above: no allocation.
      words.assign(waiter->words.begin(), waiter->words.end());
      waits.clear();
      for (std::size_t i = 0; i < words.size(); ++i) {
        futex_waitv wait{};
        wait.val = waiter->expected[i];
        wait.uaddr = reinterpret_cast<std::uintptr_t>(words[i]);
        wait.flags = FUTEX_32;
        waits.push_back(wait);
      }
    }
    if (waiter->quit.load(std::memory_order_acquire)) return nullptr;
    waiter->taken.store(generation, std::memory_order_release);
    futex_waitv control{};
    control.val = generation;
    control.uaddr = reinterpret_cast<std::uintptr_t>(&waiter->control);
    control.flags = FUTEX_32 | FUTEX_PRIVATE_FLAG;
    waits.push_back(control);
    if (waits.size() > 1) {
      const long woken = waitOnAny(waits.data(), waits.size());
      const int error = errno;
      if (waiter->control.load(std::memory_order_acquire) != generation) continue;  // new words, or stop
      if (woken < 0 && error == EINTR) continue;
      if (woken >= 0 && static_cast<std::size_t>(woken) == words.size()) continue;
      if (woken >= 0) {
        // The kernel wakes one waiter of a dead holder's word: the others
        // (other watchers) are woken here.
        syscall(SYS_futex, words[static_cast<std::size_t>(woken)], FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
      }
      // Woken, or a word changed before the wait began (EAGAIN), or can no
      // longer be read (EFAULT): the registry is to be read again.
      waiter->parked.store(true, std::memory_order_release);
      tell(waiter->notifyFd);
    }
    // Parked (or given no words) until the next assignment.
    while (waiter->control.load(std::memory_order_acquire) == generation &&
           !waiter->quit.load(std::memory_order_acquire)) {
      syscall(SYS_futex, &waiter->control, FUTEX_WAIT_PRIVATE, generation, nullptr, nullptr, 0);
    }
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
  waiter.quit.store(true, std::memory_order_release);
  waiter.control.fetch_add(1, std::memory_order_acq_rel);
  wakeControl(waiter.control);
  pthread_join(waiter.thread, nullptr);
}

void DeathWatch::assign(Waiter& waiter, std::vector<std::uint32_t*> words, std::vector<std::uint32_t> expected) {
  {
    std::lock_guard<std::mutex> lock(waiter.mutex);
    waiter.words = std::move(words);
    waiter.expected = std::move(expected);
    waiter.parked.store(false, std::memory_order_release);
    waiter.control.fetch_add(1, std::memory_order_acq_rel);
  }
  wakeControl(waiter.control);
}

void DeathWatch::awaitTaken(const Waiter& waiter, std::uint32_t generation) noexcept {
  // Bounded: a thread that is not scheduled within it takes its words later
  // all the same.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
  for (;;) {
    const std::uint32_t taken = waiter.taken.load(std::memory_order_acquire);
    if (taken != Waiter::notYet && static_cast<std::int32_t>(taken - generation) >= 0) return;
    if (std::chrono::steady_clock::now() > deadline) return;
    sched_yield();
  }
}

void DeathWatch::notify() const noexcept { tell(notifyFd); }

void DeathWatch::watch(const std::vector<std::uint32_t*>& words) {
  if (!available()) return;
  const std::set<std::uint32_t*> wanted(words.begin(), words.end());
  // Threads that still wait on wanted words only keep them; the others are
  // free for new words.
  std::set<std::uint32_t*> covered;
  std::vector<Waiter*> free;
  for (auto& waiter : waiters) {
    std::lock_guard<std::mutex> lock(waiter->mutex);
    bool keep = !waiter->parked.load(std::memory_order_acquire) && !waiter->words.empty();
    for (std::uint32_t* word : waiter->words) keep = keep && wanted.count(word) != 0;
    if (keep) {
      covered.insert(waiter->words.begin(), waiter->words.end());
    } else {
      free.push_back(waiter.get());
    }
  }

  std::set<std::uint32_t*> unwaitableNow;
  std::vector<std::uint32_t*> pending;
  std::vector<std::uint32_t> values;
  for (std::uint32_t* word : wanted) {
    if (covered.count(word) != 0) continue;
    std::uint32_t value = 0;
    if (!prepareWait(word, value)) {
      unwaitableNow.insert(word);
      continue;
    }
    pending.push_back(word);
    values.push_back(value);
  }
  const bool newlyUnwaitable = std::any_of(unwaitableNow.begin(), unwaitableNow.end(),
                                           [this](std::uint32_t* word) { return unwaitable.count(word) == 0; });
  if (newlyUnwaitable) notify();
  unwaitable = std::move(unwaitableNow);

  // The pending words go to the free threads first, then to new ones.
  std::size_t next = 0;
  const auto take = [&](std::vector<std::uint32_t*>& chunk, std::vector<std::uint32_t>& chunkValues) {
    const std::size_t last = std::min(pending.size(), next + wordsPerThread);
    chunk.assign(pending.begin() + static_cast<long>(next), pending.begin() + static_cast<long>(last));
    chunkValues.assign(values.begin() + static_cast<long>(next), values.begin() + static_cast<long>(last));
    next = last;
  };
  for (Waiter* waiter : free) {
    std::vector<std::uint32_t*> chunk;
    std::vector<std::uint32_t> chunkValues;
    take(chunk, chunkValues);
    // A free thread without new words is given none, unless it has none.
    if (chunk.empty() && waiter->words.empty()) continue;
    assign(*waiter, std::move(chunk), std::move(chunkValues));
  }
  if (next >= pending.size()) return;

  // New threads get no signals: the process's handlers run on its own threads.
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, waiterStackBytes);
  int failure = 0;
  const std::size_t started = waiters.size();
  while (next < pending.size() && failure == 0) {
    auto waiter = std::make_unique<Waiter>();
    waiter->notifyFd = notifyFd;
    take(waiter->words, waiter->expected);
    failure = pthread_create(&waiter->thread, &attributes, &runWaiter, waiter.get());
    if (failure == 0) waiters.push_back(std::move(waiter));
  }
  pthread_attr_destroy(&attributes);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  // A new thread is awaited until it has taken its words: it sets itself up
  // and makes its copies (allocating) before watch() returns, not while the
  // caller goes on (a fork then would copy an allocator in use where the
  // allocator has no fork handling, as under ASan). An assigned thread
  // copies into the room it has, and is not awaited.
  for (std::size_t i = started; i < waiters.size(); ++i) awaitTaken(*waiters[i], 0);
  if (failure != 0) throw std::system_error(failure, std::generic_category(), "pthread_create");
}

}  // namespace agent::spf::endpointregistry::watch
