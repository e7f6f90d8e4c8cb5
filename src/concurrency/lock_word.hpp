// The lock word of a robust pthread mutex, as the kernel reads and writes it.
//
// glibc keeps a mutex's futex word first in the mutex. For a robust mutex the
// word holds the holder's thread id under FUTEX_TID_MASK (zero: free),
// FUTEX_WAITERS while threads wait for it, and FUTEX_OWNER_DIED once the
// kernel has marked the holder dead (clearing the id). Thread ids are those
// of the holder's pid namespace: they tell "held" from "free", never who
// holds it to a process of another namespace.
#pragma once

#include <linux/futex.h>
#include <pthread.h>
#include <cstring>

namespace agent::spf::endpointregistry::lockword {

static_assert(sizeof(pthread_mutex_t::__data.__lock) == sizeof(unsigned));

// The word of a mutex's bytes (a copy, or a mutex nobody changes meanwhile).
inline unsigned of(const pthread_mutex_t& mutex) noexcept {
  unsigned word = 0;
  std::memcpy(&word, &mutex, sizeof word);
  return word;
}

// The holder's thread id; 0 when the mutex is free or its holder died.
constexpr unsigned holder(unsigned word) noexcept { return word & FUTEX_TID_MASK; }

// Whether the kernel marked the holder dead.
constexpr bool ownerDied(unsigned word) noexcept { return (word & FUTEX_OWNER_DIED) != 0; }

// Whether threads wait for the mutex (and expect a wake-up on its unlock).
constexpr bool hasWaiters(unsigned word) noexcept { return (word & FUTEX_WAITERS) != 0; }

}  // namespace agent::spf::endpointregistry::lockword
