// Process-wide state of the library behind one mutex: made on first use,
// never destroyed (segments may be released while the process exits), and
// safe across fork.
//
// A forked child inherits the state as the forking thread saw it. That copy
// is kept when its mutex shows that no other thread was changing it at the
// fork; otherwise the child gets a fresh state, and the old one is kept
// reachable (never freed, never locked).
//
// Thread safety: get() and ifMade() may be called from any thread; the
// state itself only under `mutex`.
#pragma once

#include <pthread.h>
#include <atomic>
#include <mutex>
#include <new>

namespace agent::spf::sharedmemory::detail {

template <class State>
class ProcessState {
 public:
  struct Guarded {
    std::mutex mutex;
    State state;
    Guarded* abandoned = nullptr;  // a forked child's unusable predecessor
  };

  // The state, made on the first call.
  static Guarded& get() {
    std::call_once(once, [] {
      current.store(new Guarded, std::memory_order_release);
      pthread_atfork(nullptr, nullptr, &renewInForkedChild);
    });
    return *current.load(std::memory_order_acquire);
  }

  // The state if it was made, else null: for work that a state never made
  // has nothing to do for.
  static Guarded* ifMade() noexcept { return current.load(std::memory_order_acquire); }

 private:
  // Runs in a forked child before fork() returns there.
  static void renewInForkedChild() noexcept {
    Guarded* inherited = current.load(std::memory_order_relaxed);
    if (inherited->mutex.try_lock()) {
      inherited->mutex.unlock();
      return;
    }
    Guarded* fresh = new (std::nothrow) Guarded;
    if (fresh == nullptr) return;
    fresh->abandoned = inherited;
    current.store(fresh, std::memory_order_relaxed);
  }

  static inline std::atomic<Guarded*> current{nullptr};
  static inline std::once_flag once;
};

}  // namespace agent::spf::sharedmemory::detail
