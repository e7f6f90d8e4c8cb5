// Waiting for the death of publishers through their records' liveness
// mutexes.
//
// A robust mutex's lock word (concurrency/lock_word.hpp) is a futex. When
// its holder dies, the kernel marks the word owner-dead and, if FUTEX_WAITERS
// is set, wakes one thread waiting on it; the holder's own unlock wakes one
// as well. So a DeathWatch sets FUTEX_WAITERS on the word of each live
// record it is given (as a blocked pthread_mutex_lock would) and waits on up
// to 127 words per thread with futex_waitv, beside a control word of its
// own. A woken thread passes the wake-up on to every other waiter of that
// word (other watchers), writes to the notification descriptor and parks:
// the owner reads the records concerned and calls watch() again, which hands the
// parked threads new words (threads are started only when more are needed,
// and kept until the DeathWatch goes). This works from any pid namespace
// and costs nothing while nothing happens.
//
// The words live in record segments that other processes may cut short or
// remove: a word that can no longer be read makes futex_waitv fail (EFAULT),
// which is reported like a wake-up; setting FUTEX_WAITERS runs under
// MappedAccess.
//
// Without futex_waitv (Linux before 5.16) nothing is watched: available()
// tells, and the owner falls back to a bounded re-check.
//
// Thread safety: one thread calls watch() and the destructor. Fork: a copy
// inherited by a forked child has no threads; destroying it there joins
// nothing.
#pragma once

#include <pthread.h>
#include <sys/types.h>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

namespace agent::spf::endpointregistry::watch {

class DeathWatch {
 public:
  // Wake-ups are told by writing 1 to the eventfd `notifyFd` (not owned).
  explicit DeathWatch(int notifyFd) noexcept;
  ~DeathWatch();
  DeathWatch(const DeathWatch&) = delete;
  DeathWatch& operator=(const DeathWatch&) = delete;

  // Whether the kernel offers futex_waitv.
  static bool available() noexcept;

  // Watches exactly `words` from now on: the lock words of live records, in
  // mappings that the caller keeps while they are watched (a word dropped
  // here may be unmapped at once: the threads touch words only through
  // system calls, which fail harmlessly on an unmapped address).
  // Threads whose words all stay keep waiting; the others are handed what
  // remains. A word that shows no live holder (free, owner-dead,
  // or unreadable) is not waited on, and is told at once unless it was
  // already told at the previous call. Throws std::system_error when no
  // thread can be started.
  void watch(const std::vector<std::uint32_t*>& words);

  // One waiting thread and its words (defined with the threads' code).
  struct Waiter;

 private:
  void stop(Waiter& waiter) noexcept;
  static void assign(Waiter& waiter, std::vector<std::uint32_t*> words, std::vector<std::uint32_t> expected);
  // Waits (100 ms at most) until the thread has taken the words of `generation`.
  static void awaitTaken(const Waiter& waiter, std::uint32_t generation) noexcept;
  void notify() const noexcept;

  int notifyFd;
  pid_t ownerPid;
  std::vector<std::unique_ptr<Waiter>> waiters;
  std::set<std::uint32_t*> unwaitable;  // told at the previous watch()
};

}  // namespace agent::spf::endpointregistry::watch
