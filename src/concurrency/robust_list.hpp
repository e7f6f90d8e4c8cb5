// The list of robust mutexes that a thread holds, as glibc keeps it, and an
// unlock that survives another process cutting or overwriting a held mutex.
//
// glibc links every robust mutex a thread holds into a list threaded through
// the mutexes' own bytes (their __list fields), headed in the thread's
// descriptor (robust_head, with robust_prev just before it), so that the
// kernel can mark them owner-dead when the thread dies. Each link points at
// a mutex's __list.__next; the newest mutex is first. Unlocking a mutex reads
// its own links and writes through them into its neighbours. When another
// process has truncated or overwritten the segment that holds the mutex, its
// links are zeros or garbage, and that unlock would write through them.
//
// unlockHeld() therefore first checks that the mutex still holds exactly the
// links its neighbours (which the caller knows) give it, still is of the
// kind this library makes and still is held by this thread; only then does
// it unlock it, and a fault even then is caught. Otherwise, or after a
// fault, the mutex is taken out of the list by rewriting its neighbours'
// links, never reading its own, and its lock word is let go of (if it still
// names this thread; waiters are woken), so that nobody waits for ever on
// what is left of it. Its other bytes stay as they are (garbage now): its
// segment was lost, and what held it is healed by publishing anew.
//
// This depends on glibc's layout of the list, which is checked once per
// process (on a private mutex); where it does not hold, unlockHeld() is a
// plain pthread_mutex_unlock.
//
// Thread rules: everything here works on the calling thread's own list.
#pragma once

#include <pthread.h>

namespace agent::spf::endpointregistry::robustlist {

// The calling thread's list head, as links point at it: the value of an
// empty list's head and of the oldest mutex's next link.
void* headLink() noexcept;
// The calling thread's first link (its newest held mutex's, or headLink()).
void* firstLink() noexcept;
// The link that points at `mutex`.
inline void* linkOf(pthread_mutex_t* mutex) noexcept { return &mutex->__data.__list.__next; }

// True when `mutex`, just locked by the calling thread, went first in its
// list, as glibc puts every robust mutex it locks (also true where the
// layout is not understood, when this cannot be told). False for a mutex
// that glibc locked as one of another kind: another process cut or
// overwrote it after its kind was checked.
bool lockedFirst(pthread_mutex_t* mutex) noexcept;

// Lets go of a mutex that the calling thread locked but that is in none of
// its lists (lockedFirst() was false): its lock word is cleared if it names
// this thread, and its waiters are woken. Its other bytes are left alone.
void releaseUnlisted(pthread_mutex_t* mutex) noexcept;

// Unlocks `mutex`, which the calling thread holds as a robust mutex of kind
// word `kind` (as it was when it was locked), and which sits in its list
// between the links `newer` (the next newer mutex's link, or headLink() when
// it is the newest) and `older` (the next older one's, or headLink() when it
// is the oldest). Returns pthread_mutex_unlock's result. A mutex found
// damaged (its links, its kind or its holder changed) is only taken out of
// the list and let go of: 0, or EPERM, as glibc answers, when it no longer
// shows this thread as its holder.
// `dropped`, when given, tells whether the mutex was found damaged (and so
// must not be destroyed either: its bytes are another process's garbage).
int unlockHeld(pthread_mutex_t* mutex, int kind, void* newer, void* older, bool* dropped = nullptr) noexcept;

}  // namespace agent::spf::endpointregistry::robustlist
