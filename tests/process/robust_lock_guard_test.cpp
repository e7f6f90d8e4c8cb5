#include "concurrency/robust_lock_guard.hpp"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <agent/spf/sharedmemory/mapped_access.hpp>

#include "concurrency/robust_list.hpp"
#include "diagnostics/test_hooks.hpp"
#include "support/child_process.hpp"
#include "support/eventually.hpp"
#include "support/log_capture.hpp"

namespace registry = agent::spf::endpointregistry;
using registry::PThreadRobustLockGuard;
using registry::WorkThreadGuard;
using namespace std::chrono_literals;

namespace {

// An initialised robust mutex in a shared anonymous mapping, so that forked
// children use the very same mutex.
class SharedMutex {
 public:
  SharedMutex() {
    void* memory = mmap(nullptr, sizeof(pthread_mutex_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("mmap failed");
    mutex_ = static_cast<pthread_mutex_t*>(memory);
    PThreadRobustLockGuard::initializeMutex(mutex_);
  }
  ~SharedMutex() { munmap(mutex_, sizeof(pthread_mutex_t)); }
  SharedMutex(const SharedMutex&) = delete;
  SharedMutex& operator=(const SharedMutex&) = delete;

  pthread_mutex_t* get() const noexcept { return mutex_; }

 private:
  pthread_mutex_t* mutex_ = nullptr;
};

int stateOnWorkThread(pthread_mutex_t* mutex) {
  int state = -1;
  WorkThreadGuard::executeAndSet([mutex] { return PThreadRobustLockGuard::getMutexState(mutex); }, state);
  return state;
}

// getMutexState as seen from a forked child (its exit code).
std::optional<int> stateInChild(pthread_mutex_t* mutex) {
  return er::test::runInChild([mutex](er::test::ChildProcess&) { return PThreadRobustLockGuard::getMutexState(mutex); },
                              30s);
}

// Leaves `mutex` owner-dead: a forked child locks it and is killed.
void leaveOwnerDead(pthread_mutex_t* mutex) {
  er::test::ChildProcess child([mutex](er::test::ChildProcess& self) {
    PThreadRobustLockGuard guard(mutex);
    self.tellParent("locked");
    self.readFromParent(60s);
    return 0;
  });
  ASSERT_EQ(child.readFromChild(30s), std::optional<std::string>("locked"));
  child.kill(SIGKILL);
  ASSERT_EQ(child.wait(30s), std::optional<int>(128 + SIGKILL));
}

pid_t kernelThreadId() { return static_cast<pid_t>(syscall(SYS_gettid)); }

std::size_t threadCount() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) ++count;
  return count;
}

// Waits (bounded) until thread `tid` sleeps in futex().
bool waitUntilAsleepInFutex(pid_t tid) {
  const std::string path = "/proc/self/task/" + std::to_string(tid) + "/syscall";
  for (auto deadline = std::chrono::steady_clock::now() + 30s; std::chrono::steady_clock::now() < deadline;) {
    std::ifstream in(path);
    long number = -1;
    if (in >> number && number == SYS_futex) return true;
    std::this_thread::sleep_for(1ms);
  }
  return false;
}

}  // namespace

TEST(RobustLockGuardTest, GuardHoldsTheMutexOnTheWorkThread) {
  SharedMutex mutex;
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), 0);
  {
    PThreadRobustLockGuard guard(mutex.get());
    EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), EBUSY);
    EXPECT_EQ(stateOnWorkThread(mutex.get()), EDEADLK);
  }
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), 0);
}

TEST(RobustLockGuardTest, InitializedMutexIsErrorCheckingSharedAndRobust) {
  SharedMutex mutex;
  PThreadRobustLockGuard guard(mutex.get());
  // Error-checking: the owner's own relock attempt gets EDEADLK (a robust
  // mutex of the normal type would say EBUSY).
  EXPECT_EQ(stateOnWorkThread(mutex.get()), EDEADLK);
  // Process-shared: another process sees it held.
  EXPECT_EQ(stateInChild(mutex.get()), std::optional<int>(EBUSY));
}

TEST(RobustLockGuardTest, InitializedMutexIsRobustAgainstItsOwnersDeath) {
  SharedMutex mutex;
  std::thread([&] { ASSERT_EQ(pthread_mutex_lock(mutex.get()), 0); }).join();
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), EOWNERDEAD);
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), 0);
}

TEST(RobustLockGuardTest, LockOutlivesTheThreadThatTookIt) {
  SharedMutex mutex;
  std::optional<PThreadRobustLockGuard> guard;
  std::thread([&] { guard.emplace(mutex.get()); }).join();
  EXPECT_EQ(stateInChild(mutex.get()), std::optional<int>(EBUSY));
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), EBUSY);
  guard.reset();
  EXPECT_EQ(stateInChild(mutex.get()), std::optional<int>(0));
}

TEST(RobustLockGuardTest, KilledOwnerLeavesTheMutexOwnerDeadThenUsable) {
  SharedMutex mutex;
  leaveOwnerDead(mutex.get());
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), EOWNERDEAD);
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), 0);
  PThreadRobustLockGuard guard(mutex.get());
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), EBUSY);
}

TEST(RobustLockGuardTest, GuardOnAnOwnerDeadMutexSucceedsSilently) {
  SharedMutex mutex;
  leaveOwnerDead(mutex.get());
  er::test::LogCapture capture("agent::spf::endpointregistry=all");
  {
    PThreadRobustLockGuard guard(mutex.get());
    EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), EBUSY);
  }
  // Repaired: free and consistent again.
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), 0);
  EXPECT_TRUE(capture.records().empty());
}

TEST(RobustLockGuardTest, SecondGuardInTheSameProcessWaitsForTheFirst) {
  SharedMutex mutex;
  auto first = std::make_unique<PThreadRobustLockGuard>(mutex.get());

  // Hold the work thread, so that the second guard's first lock job queues
  // behind this one.
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::promise<void> blocking;
  WorkThreadGuard blocker([released, &blocking] {
    blocking.set_value();
    released.wait();
  });
  blocking.get_future().wait();

  std::promise<pid_t> secondThread;
  std::promise<void> secondLocked;
  std::optional<PThreadRobustLockGuard> second;
  std::thread taker([&] {
    secondThread.set_value(kernelThreadId());
    second.emplace(mutex.get());
    secondLocked.set_value();
  });
  auto locked = secondLocked.get_future();
  // Asleep in futex(): waiting for its first lock job.
  EXPECT_TRUE(waitUntilAsleepInFutex(secondThread.get_future().get()));
  release.set_value();
  // This job runs after the second guard's first lock attempt, which saw the
  // mutex held by the first guard.
  EXPECT_EQ(stateOnWorkThread(mutex.get()), EDEADLK);
  EXPECT_EQ(locked.wait_for(0s), std::future_status::timeout);

  first.reset();
  ASSERT_EQ(locked.wait_for(30s), std::future_status::ready);
  taker.join();
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), EBUSY);
  second.reset();
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), 0);
}

TEST(RobustLockGuardTest, NullMutexIsLoggedAndThrownWithoutAnyJob) {
  er::test::LogCapture capture("agent::spf::endpointregistry=all");
  // With the work thread blocked, a guard that queued any job could not return.
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  WorkThreadGuard blocker([released] { released.wait(); });
  const std::size_t threadsBefore = threadCount();

  auto attempt = std::async(std::launch::async, [] { PThreadRobustLockGuard guard(nullptr); });
  const bool returned = attempt.wait_for(30s) == std::future_status::ready;
  release.set_value();
  ASSERT_TRUE(returned);
  try {
    attempt.get();
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(),
                 "System error: Endpoint::getLockedMutexThread::getLockedMutexThread: Mutex cannot be null");
  }
  EXPECT_EQ(threadCount(), threadsBefore);
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].channel, "agent::spf::endpointregistry");
  EXPECT_EQ(records[0].level, 512u);
  EXPECT_EQ(records[0].message, "PThreadRobustLockGuard::getLockedMutexThread: mutexPtr cannot be null.");
}

TEST(RobustLockGuardTest, DestroyOnReleaseDestroysTheMutex) {
  SharedMutex mutex;
  {
    PThreadRobustLockGuard guard(mutex.get());
    guard.setDestroyOnRelease();
  }
  // The C library marks a destroyed mutex invalid.
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), EINVAL);
  PThreadRobustLockGuard::initializeMutex(mutex.get());
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), 0);
  PThreadRobustLockGuard again(mutex.get());
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), EBUSY);
}

TEST(RobustLockGuardTest, WithoutDestroyOnReleaseTheMutexStaysUsable) {
  SharedMutex mutex;
  { PThreadRobustLockGuard guard(mutex.get()); }
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), 0);
}

TEST(RobustLockGuardTest, MoveAssignmentReleasesThePreviousLockAtOnce) {
  SharedMutex a;
  SharedMutex b;
  SharedMutex c;
  PThreadRobustLockGuard guard(a.get());
  guard.setDestroyOnRelease();
  PThreadRobustLockGuard other(b.get());
  guard = std::move(other);
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(a.get()), EINVAL);  // unlocked and destroyed
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(b.get()), EBUSY);

  guard = PThreadRobustLockGuard(c.get());
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(b.get()), 0);  // unlocked, not destroyed
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(c.get()), EBUSY);
}

TEST(RobustLockGuardTest, MovedFromGuardReleasesNothing) {
  SharedMutex mutex;
  std::optional<PThreadRobustLockGuard> original;
  original.emplace(mutex.get());
  PThreadRobustLockGuard moved(std::move(*original));
  original.reset();
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), EBUSY);
}

TEST(RobustLockGuardTest, FailingUnlockIsLoggedNotThrown) {
  SharedMutex mutex;
  er::test::LogCapture capture("agent::spf::endpointregistry=all");
  {
    PThreadRobustLockGuard guard(mutex.get());
    // Re-initialised underneath the guard: the work thread no longer owns it.
    PThreadRobustLockGuard::initializeMutex(mutex.get());
  }
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, 512u);
  EXPECT_EQ(records[0].message,
            "~PThreadRobustLockGuard: Failed to unlock the mutex. (Error " + std::to_string(EPERM) + ")");
}

TEST(RobustLockGuardTest, LockFailureIsLoggedAndThrown) {
  SharedMutex mutex;
  // An owner-dead mutex unlocked without being made consistent can never be
  // locked again.
  std::thread([&] { ASSERT_EQ(pthread_mutex_lock(mutex.get()), 0); }).join();
  ASSERT_EQ(pthread_mutex_lock(mutex.get()), EOWNERDEAD);
  ASSERT_EQ(pthread_mutex_unlock(mutex.get()), 0);

  er::test::LogCapture capture("agent::spf::endpointregistry=all");
  try {
    PThreadRobustLockGuard guard(mutex.get());
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(
        std::string(error.what()),
        "System error: Endpoint::PThreadRobustLockGuard::getLockedMutexThread: Failed to lock the mutex. (Error " +
            std::to_string(ENOTRECOVERABLE) + ")");
  }
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, 512u);
  EXPECT_EQ(records[0].message, "PThreadRobustLockGuard::getLockedMutexThread Failed to lock the mutex. (Error " +
                                    std::to_string(ENOTRECOVERABLE) + ")");
}

TEST(RobustLockGuardTest, ProbeOfAFreeMutexLeavesItFree) {
  SharedMutex mutex;
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), 0);
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), 0);
  EXPECT_EQ(stateInChild(mutex.get()), std::optional<int>(0));
}

namespace {

// A copy of a mutex's bytes, as a reader that does not map the mutex sees it.
pthread_mutex_t copyOf(const pthread_mutex_t* mutex) {
  pthread_mutex_t copy;
  std::memcpy(&copy, mutex, sizeof copy);
  return copy;
}

}  // namespace

TEST(RobustLockGuardTest, CopyShowsAHeldMutexAsHeldToEveryThread) {
  SharedMutex mutex;
  EXPECT_FALSE(PThreadRobustLockGuard::heldInCopy(copyOf(mutex.get())));  // free
  PThreadRobustLockGuard guard(mutex.get());
  const pthread_mutex_t held = copyOf(mutex.get());
  EXPECT_TRUE(PThreadRobustLockGuard::heldInCopy(held));
  // As the probe itself answers EDEADLK to the holder, which counts as held.
  int seenByHolder = -1;
  WorkThreadGuard onWorkThread = WorkThreadGuard::executeAndSet(
      [&held] { return PThreadRobustLockGuard::heldInCopy(held) ? 1 : 0; }, seenByHolder);
  EXPECT_EQ(seenByHolder, 1);
}

// The lock word alone decides: a thread id that names no thread of this pid
// namespace still shows the mutex held, as a probe would answer EBUSY to it.
TEST(RobustLockGuardTest, CopyJudgesByTheLockWordNotByTheThreadId) {
  SharedMutex mutex;
  PThreadRobustLockGuard guard(mutex.get());
  const pthread_mutex_t copy = copyOf(mutex.get());
  pthread_mutex_t foreignOwner = copy;
  const unsigned foreign = 0x3ffffffeu;  // no such thread here
  std::memcpy(&foreignOwner, &foreign, sizeof foreign);
  EXPECT_TRUE(PThreadRobustLockGuard::heldInCopy(foreignOwner));
  pthread_mutex_t ownerDied = copy;
  const unsigned marked = FUTEX_OWNER_DIED;  // the kernel clears the id as it marks
  std::memcpy(&ownerDied, &marked, sizeof marked);
  EXPECT_FALSE(PThreadRobustLockGuard::heldInCopy(ownerDied));
  pthread_mutex_t oddKind = copy;
  oddKind.__data.__kind = 0x7ff;
  EXPECT_FALSE(PThreadRobustLockGuard::heldInCopy(oddKind));
}

TEST(RobustLockGuardTest, MutexOfAKilledHolderShowsAsNotHeld) {
  SharedMutex mutex;
  pthread_mutex_t copy;
  {
    er::test::ChildProcess child([&mutex](er::test::ChildProcess& self) {
      PThreadRobustLockGuard guard(mutex.get());
      self.tellParent("locked");
      self.readFromParent(60s);
      return 0;
    });
    ASSERT_EQ(child.readFromChild(30s), std::optional<std::string>("locked"));
    copy = copyOf(mutex.get());
    EXPECT_TRUE(PThreadRobustLockGuard::heldInCopy(copy));
    child.kill(SIGKILL);
    ASSERT_EQ(child.wait(30s), std::optional<int>(128 + SIGKILL));
  }
  // The kernel marked it owner-dead as the holder died.
  EXPECT_FALSE(PThreadRobustLockGuard::heldInCopy(copyOf(mutex.get())));
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), EOWNERDEAD);
}

// A zero-filled mutex set up by one atomic write is the mutex that
// initializeMutex() makes, and setting it up again, even while it is held,
// changes nothing.
TEST(RobustLockGuardTest, ZeroedMutexIsSetUpOnceAndLeftAloneAfterwards) {
  SharedMutex made;
  PThreadRobustLockGuard::initializeMutex(made.get());
  SharedMutex zeroed;
  std::memset(zeroed.get(), 0, sizeof(pthread_mutex_t));
  EXPECT_TRUE(PThreadRobustLockGuard::initializeZeroedMutex(zeroed.get()));
  EXPECT_EQ(std::memcmp(zeroed.get(), made.get(), sizeof(pthread_mutex_t)), 0);
  {
    PThreadRobustLockGuard guard(zeroed.get());
    const pthread_mutex_t held = copyOf(zeroed.get());
    EXPECT_TRUE(PThreadRobustLockGuard::initializeZeroedMutex(zeroed.get()));
    EXPECT_EQ(std::memcmp(zeroed.get(), &held, sizeof held), 0);
    EXPECT_EQ(stateInChild(zeroed.get()), std::optional<int>(EBUSY));
  }
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(zeroed.get()), 0);
  pthread_mutex_t other;
  std::memset(&other, 0, sizeof other);
  other.__data.__kind = 0x7ff;
  EXPECT_FALSE(PThreadRobustLockGuard::initializeZeroedMutex(&other));
  EXPECT_EQ(other.__data.__kind, 0x7ff);
}

#if !defined(__SANITIZE_THREAD__)

// A holder in another pid namespace may have the very thread id of the work
// thread that wants the mutex; glibc then answers EDEADLK, as for a mutex
// that the thread holds itself. The work thread waits for it all the same
// (it marks the lock word and sleeps), and takes it once that holder lets
// go. (ThreadSanitizer builds poll instead of sleeping.)
TEST(RobustLockGuardTest, AHolderElsewhereWithTheWorkThreadsIdIsWaitedFor) {
  const WorkThreadGuard lane = WorkThreadGuard::holdThread();
  int laneThread = 0;
  WorkThreadGuard::executeAndSet([] { return static_cast<int>(gettid()); }, laneThread);
  SharedMutex mutex;
  auto& word = *reinterpret_cast<unsigned*>(&mutex.get()->__data.__lock);
  std::atomic_ref<unsigned>(word).store(static_cast<unsigned>(laneThread), std::memory_order_release);
  std::promise<bool> locked;
  std::thread locker([&] {
    try {
      const PThreadRobustLockGuard guard(mutex.get());
      locked.set_value((std::atomic_ref<unsigned>(word).load(std::memory_order_acquire) & FUTEX_TID_MASK) ==
                       static_cast<unsigned>(laneThread));
    } catch (const std::runtime_error&) {
      locked.set_value(false);
    }
  });
  EXPECT_TRUE(er::test::eventually(
      [&] { return (std::atomic_ref<unsigned>(word).load(std::memory_order_acquire) & FUTEX_WAITERS) != 0; }, 10s));
  // The other holder lets go, as glibc's unlock would.
  const unsigned before = std::atomic_ref<unsigned>(word).exchange(0, std::memory_order_release);
  EXPECT_EQ(before & FUTEX_TID_MASK, static_cast<unsigned>(laneThread));
  syscall(SYS_futex, &word, FUTEX_WAKE, 1, nullptr, nullptr, 0);
  EXPECT_TRUE(locked.get_future().get());
  locker.join();
  EXPECT_EQ(std::atomic_ref<unsigned>(word).load(std::memory_order_acquire), 0u);
}

#endif

#if defined(ENDPOINTREGISTRY_TEST_HOOKS)

namespace {

// The kernel thread that holds `mutex`, read from its lock word.
pid_t holderOf(const pthread_mutex_t* mutex) {
  unsigned word = 0;
  std::memcpy(&word, mutex, sizeof word);
  return static_cast<pid_t>(word & FUTEX_TID_MASK);
}

// Restores the lanes' room when a test that narrowed it ends.
struct LaneCapacity {
  LaneCapacity(unsigned lasting, unsigned total) { registry::setLaneCapacityForTesting(lasting, total); }
  ~LaneCapacity() { registry::setLaneCapacityForTesting(0, 0); }
};

}  // namespace

// No work thread holds more locks than its lane has room for: further
// lasting locks go to further lanes, each a thread of its own, started when
// needed. The first lane is joined when its last lock goes; the further ones
// stay, asleep, until the process holds no lasting lock at all.
TEST(RobustLockGuardTest, LastingLocksBeyondALanesRoomGoToFurtherThreads) {
  const LaneCapacity capacity(2, 3);
  std::thread([] {}).join();  // a sanitizer starts a thread of its own with the first
  const std::size_t threadsBefore = threadCount();
  std::vector<std::unique_ptr<SharedMutex>> mutexes;
  std::vector<std::unique_ptr<PThreadRobustLockGuard>> guards;
  const auto lockLasting = [&] {
    mutexes.push_back(std::make_unique<SharedMutex>());
    guards.push_back(std::make_unique<PThreadRobustLockGuard>(mutexes.back()->get(), registry::LockTerm::Lasting));
    return holderOf(mutexes.back()->get());
  };
  std::vector<pid_t> holders;
  for (int i = 0; i < 5; ++i) holders.push_back(lockLasting());
  EXPECT_EQ(holders[0], holders[1]);
  EXPECT_EQ(holders[2], holders[3]);
  EXPECT_NE(holders[0], holders[2]);
  EXPECT_NE(holders[4], holders[0]);
  EXPECT_NE(holders[4], holders[2]);
  EXPECT_EQ(threadCount(), threadsBefore + 3);

  // A brief lock still finds room on the first lane (2 of 3 taken).
  SharedMutex directory;
  {
    const PThreadRobustLockGuard brief(directory.get());
    EXPECT_EQ(holderOf(directory.get()), holders[0]);
  }
  // Room given back is taken again before any new lane is started.
  guards[1].reset();
  EXPECT_EQ(lockLasting(), holders[0]);
  // The third lane, emptied, stays and is used again.
  guards[4].reset();
  EXPECT_EQ(threadCount(), threadsBefore + 3);
  EXPECT_EQ(lockLasting(), holders[4]);
  EXPECT_EQ(threadCount(), threadsBefore + 3);

  guards.clear();
  EXPECT_EQ(threadCount(), threadsBefore);
  for (const auto& mutex : mutexes) EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex->get()), 0);
}

namespace {

// What another process does to a held mutex's bytes.
enum class Damage { Destroyed, Cut, LockWordCleared };

pthread_mutex_t* damagedOnUnlock = nullptr;
Damage damageOnUnlock = Damage::Cut;

pthread_mutex_t* damagedOnLock = nullptr;
Damage damageOnLock = Damage::Cut;

void inflict(pthread_mutex_t* mutex, Damage how) {
  switch (how) {
    case Damage::Destroyed:
      // What pthread_mutex_destroy leaves, written as another process (a
      // reclaiming reader) would write it: ThreadSanitizer would report a
      // destroy of a mutex that this process holds.
      std::atomic_ref<int>(mutex->__data.__kind).store(-1, std::memory_order_relaxed);
      break;
    case Damage::Cut:
      std::memset(static_cast<void*>(mutex), 0, sizeof *mutex);  // a page of the segment cut off and zeroed
      break;
    case Damage::LockWordCleared:
      std::memset(static_cast<void*>(&mutex->__data.__lock), 0, sizeof mutex->__data.__lock);
      break;
  }
}

// Damages the mutex right after its kind was checked for a lock.
void damageAsItIsLocked(const char* point) {
  if (std::strcmp(point, "robust.locking") != 0 || damagedOnLock == nullptr) return;
  inflict(std::exchange(damagedOnLock, nullptr), damageOnLock);
}

// Damages the mutex right after the unlock found it intact.
void damageAsItIsUnlocked(const char* point) {
  if (std::strcmp(point, "robust.unlocking") != 0 || damagedOnUnlock == nullptr) return;
  inflict(std::exchange(damagedOnUnlock, nullptr), damageOnUnlock);
}

// In a forked child: a guard's mutex damaged as its work thread unlocks it,
// then unmapped; the same work thread then locks another mutex. Exit codes:
// 0 when that works and the thread's list no longer holds the damaged one.
int unlockDamagedThenLockAgain(Damage damage) {
  const WorkThreadGuard lane = WorkThreadGuard::holdThread();
  const long page = sysconf(_SC_PAGESIZE);
  void* memory =
      mmap(nullptr, static_cast<std::size_t>(page), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return 2;
  auto* mutex = static_cast<pthread_mutex_t*>(memory);
  PThreadRobustLockGuard::initializeMutex(mutex);
  std::optional<PThreadRobustLockGuard> guard(std::in_place, mutex);
  if (guard->lane() != lane.queue().get()) return 3;
  damagedOnUnlock = mutex;
  damageOnUnlock = damage;
  registry::testhooks::install(damageAsItIsUnlocked);
  guard.reset();
  registry::testhooks::install(nullptr);
  if (damagedOnUnlock != nullptr) return 4;  // the point was never reached
  int listEmpty = 0;
  WorkThreadGuard::executeAndSet(
      [] { return registry::robustlist::firstLink() == registry::robustlist::headLink() ? 1 : 0; }, listEmpty);
  if (listEmpty != 1) return 5;
  munmap(memory, static_cast<std::size_t>(page));
  SharedMutex other;
  { const PThreadRobustLockGuard again(other.get()); }
  return PThreadRobustLockGuard::getMutexState(other.get()) == 0 ? 0 : 6;
}

}  // namespace

// Another process destroys, cuts or clears a held mutex after its holder's
// unlock found it intact but before glibc read it: glibc then leaves it in
// the work thread's list of robust mutexes (it unlocks it as a plain mutex,
// or refuses it). It is taken out all the same, so the thread's next lock
// does not write into the memory it lay in.
TEST(RobustLockGuardTest, AMutexDamagedAsItIsUnlockedLeavesTheThreadsList) {
#if defined(__SANITIZE_THREAD__)
  // ThreadSanitizer reports glibc's refusal of a destroyed mutex (EINVAL)
  // as the use of an invalid mutex; the other two damages it follows.
  const auto damages = {Damage::Cut, Damage::LockWordCleared};
#else
  const auto damages = {Damage::Destroyed, Damage::Cut, Damage::LockWordCleared};
#endif
  for (Damage damage : damages) {
    EXPECT_EQ(
        er::test::runInChild([damage](er::test::ChildProcess&) { return unlockDamagedThenLockAgain(damage); }, 30s),
        std::optional<int>(0))
        << "damage " << static_cast<int>(damage);
  }
}

// Cut to zeros by another process after its kind was checked, before glibc
// read it: glibc locks it as a plain mutex, in no list. The guard lets go
// of it at once and refuses it for its kind; the work thread's list stays
// as it was. A mutex destroyed there instead glibc refuses by itself: the
// guard must refuse it the same way.
TEST(RobustLockGuardTest, AMutexDamagedAsItIsLockedIsLetGoAndRefused) {
  for (Damage damage : {Damage::Cut, Damage::Destroyed}) {
    const auto code = er::test::runInChild(
        [damage](er::test::ChildProcess&) {
          const WorkThreadGuard lane = WorkThreadGuard::holdThread();
          SharedMutex held;
          const PThreadRobustLockGuard first(held.get());
          SharedMutex cut;
          damagedOnLock = cut.get();
          damageOnLock = damage;
          registry::testhooks::install(damageAsItIsLocked);
          int refusal = 0;
          try {
            const PThreadRobustLockGuard refused(cut.get());
          } catch (const std::runtime_error& error) {
            refusal = std::string(error.what()).find("(Error 22)") != std::string::npos ? 1 : 2;
          }
          registry::testhooks::install(nullptr);
          if (damagedOnLock != nullptr) return 3;  // the point was never reached
          if (refusal != 1) return 4;
          if (cut.get()->__data.__lock != 0) return 5;  // let go of
          int firstListed = 0;
          WorkThreadGuard::executeAndSet(
              [&held] { return registry::robustlist::firstLink() == registry::robustlist::linkOf(held.get()) ? 1 : 0; },
              firstListed);
          return firstListed == 1 ? 0 : 6;
        },
        30s);
    EXPECT_EQ(code, std::optional<int>(0)) << "damage " << static_cast<int>(damage);
  }
}

#if !defined(__SANITIZE_THREAD__)

namespace {

// Run once as the work thread is about to sleep on a lock word.
std::function<void()> onWait;

void runOnWait(const char* point) {
  if (std::strcmp(point, "robust.waiting") != 0 || !onWait) return;
  std::exchange(onWait, nullptr)();
}

}  // namespace

// Taken after a wait, a lock keeps FUTEX_WAITERS on its word, as glibc's own
// lock does: another waiter may still sleep on the word, and only this
// holder's unlock can wake it. Here the holder lets go just as the work
// thread, having marked the word, is about to sleep. (ThreadSanitizer
// builds poll instead of sleeping, and never mark the word.)
TEST(RobustLockGuardTest, ALockTakenAfterAWaitKeepsTheWaitersMark) {
  SharedMutex mutex;
  const auto word = [&mutex] {
    return std::atomic_ref<unsigned>(*reinterpret_cast<unsigned*>(&mutex.get()->__data.__lock))
        .load(std::memory_order_acquire);
  };
  std::promise<void> locked;
  std::promise<void> release;
  std::thread holder([&] {
    EXPECT_EQ(pthread_mutex_lock(mutex.get()), 0);
    locked.set_value();
    release.get_future().wait();
    EXPECT_EQ(pthread_mutex_unlock(mutex.get()), 0);
  });
  locked.get_future().wait();
  onWait = [&] {
    release.set_value();
    holder.join();
  };
  registry::testhooks::install(runOnWait);
  unsigned held = 0;
  {
    const PThreadRobustLockGuard guard(mutex.get());
    held = word();
  }
  registry::testhooks::install(nullptr);
  const bool reached = !onWait;
  if (!reached) {
    release.set_value();
    holder.join();
  }
  EXPECT_TRUE(reached);
  EXPECT_NE(held & FUTEX_WAITERS, 0u);
  EXPECT_NE(held & FUTEX_TID_MASK, 0u);
  EXPECT_EQ(held & FUTEX_OWNER_DIED, 0u);
  EXPECT_EQ(word(), 0u);
}

#endif

namespace {

// The memory file cut to nothing as the work thread is about to wait.
int cutOnWait = -1;

void cutAsItIsWaitedFor(const char* point) {
  if (std::strcmp(point, "robust.waiting") != 0 || cutOnWait < 0) return;
  (void)ftruncate(std::exchange(cutOnWait, -1), 0);
}

}  // namespace

// Cut off beneath the work thread as it is about to wait for a mutex that
// another process holds: the kernel can no longer read the lock word
// (EFAULT), an answer on which glibc's own waiting locks end the process.
// The lock is refused for its kind instead, and the work thread goes on.
TEST(RobustLockGuardTest, AMutexCutOffAsItIsWaitedForIsRefused) {
  const auto code = er::test::runInChild(
      [](er::test::ChildProcess&) {
        const WorkThreadGuard lane = WorkThreadGuard::holdThread();
        SharedMutex held;
        const PThreadRobustLockGuard first(held.get());
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const int file = memfd_create("cut-while-waited-for", MFD_CLOEXEC);
        if (file < 0 || ftruncate(file, static_cast<off_t>(page)) != 0) return 2;
        void* memory = mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        if (memory == MAP_FAILED) return 2;
        auto* mutex = static_cast<pthread_mutex_t*>(memory);
        PThreadRobustLockGuard::initializeMutex(mutex);
        er::test::ChildProcess holder([mutex](er::test::ChildProcess& self) {
          if (pthread_mutex_lock(mutex) != 0) return 1;
          self.tellParent("locked");
          self.readFromParent(60s);
          return 0;
        });
        if (holder.readFromChild(30s) != std::optional<std::string>("locked")) return 3;
        cutOnWait = file;
        const std::uint64_t repairedBefore = agent::spf::sharedmemory::repairedFaults();
        registry::testhooks::install(cutAsItIsWaitedFor);
        int refusal = 0;
        try {
          const PThreadRobustLockGuard refused(mutex);
        } catch (const std::runtime_error& error) {
          refusal = std::string(error.what()).find("(Error 22)") != std::string::npos ? 1 : 2;
        }
        registry::testhooks::install(nullptr);
        holder.kill(SIGKILL);
        if (holder.wait(30s) != std::optional<int>(128 + SIGKILL)) return 4;
        if (cutOnWait >= 0) return 5;  // the point was never reached
        if (refusal != 1) return 6;
#if !defined(__SANITIZE_THREAD__)
        // Refused on the kernel's EFAULT, never having touched the cut page
        // (ThreadSanitizer builds poll, and touch it).
        if (agent::spf::sharedmemory::repairedFaults() != repairedBefore) return 9;
#else
        (void)repairedBefore;
#endif
        int firstListed = 0;
        WorkThreadGuard::executeAndSet(
            [&held] { return registry::robustlist::firstLink() == registry::robustlist::linkOf(held.get()) ? 1 : 0; },
            firstListed);
        if (firstListed != 1) return 7;
        SharedMutex other;
        { const PThreadRobustLockGuard again(other.get()); }
        munmap(memory, page);
        close(file);
        return PThreadRobustLockGuard::getMutexState(other.get()) == 0 ? 0 : 8;
      },
      30s);
  EXPECT_EQ(code, std::optional<int>(0));
}

#endif
