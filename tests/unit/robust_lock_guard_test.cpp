#include "concurrency/robust_lock_guard.hpp"

#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/child_process.hpp"
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

// What a reader concludes from a copy: held by a live thread of `process`.
bool showsHeldByLiveThreadOf(const pthread_mutex_t& copy, pid_t process) {
  const pid_t holder = PThreadRobustLockGuard::holderInCopy(copy);
  return holder != 0 && PThreadRobustLockGuard::threadExists(process, holder);
}

}  // namespace

TEST(RobustLockGuardTest, CopyShowsAMutexHeldByALiveThreadOfTheProcess) {
  SharedMutex mutex;
  EXPECT_FALSE(showsHeldByLiveThreadOf(copyOf(mutex.get()), getpid()));  // free
  PThreadRobustLockGuard guard(mutex.get());
  const pthread_mutex_t held = copyOf(mutex.get());
  EXPECT_TRUE(showsHeldByLiveThreadOf(held, getpid()));
  // The work thread is no thread of another process.
  EXPECT_FALSE(showsHeldByLiveThreadOf(held, getppid()));
  // Nor does the copy count as held for the very thread that holds it.
  int seenByHolder = -1;
  auto onWorkThread =
      WorkThreadGuard::executeAndSet([&held] { return showsHeldByLiveThreadOf(held, getpid()) ? 1 : 0; }, seenByHolder);
  EXPECT_EQ(seenByHolder, 0);
}

TEST(RobustLockGuardTest, CopyOfAnOwnerDeadOrOddMutexCannotTell) {
  SharedMutex mutex;
  PThreadRobustLockGuard guard(mutex.get());
  pthread_mutex_t copy = copyOf(mutex.get());
  unsigned word = 0;
  std::memcpy(&word, &copy, sizeof word);
  pthread_mutex_t ownerDied = copy;
  const unsigned marked = word | 0x40000000u;
  std::memcpy(&ownerDied, &marked, sizeof marked);
  EXPECT_FALSE(showsHeldByLiveThreadOf(ownerDied, getpid()));
  pthread_mutex_t oddKind = copy;
  oddKind.__data.__kind = 0x7ff;
  EXPECT_FALSE(showsHeldByLiveThreadOf(oddKind, getpid()));
  // A thread id that belongs to no thread of this process.
  pthread_mutex_t goneOwner = copy;
  const unsigned gone = 0x3ffffffeu;
  std::memcpy(&goneOwner, &gone, sizeof gone);
  EXPECT_FALSE(showsHeldByLiveThreadOf(goneOwner, getpid()));
}

TEST(RobustLockGuardTest, CopyOfAMutexWhoseHolderWasKilledCannotTell) {
  SharedMutex mutex;
  pthread_mutex_t copy;
  pid_t holder = 0;
  {
    er::test::ChildProcess child([&mutex](er::test::ChildProcess& self) {
      PThreadRobustLockGuard guard(mutex.get());
      self.tellParent("locked");
      self.readFromParent(60s);
      return 0;
    });
    ASSERT_EQ(child.readFromChild(30s), std::optional<std::string>("locked"));
    holder = child.pid();
    copy = copyOf(mutex.get());
    EXPECT_TRUE(showsHeldByLiveThreadOf(copy, holder));
    child.kill(SIGKILL);
    ASSERT_EQ(child.wait(30s), std::optional<int>(128 + SIGKILL));
  }
  // The copy taken while it lived names a thread that is gone.
  EXPECT_FALSE(showsHeldByLiveThreadOf(copy, holder));
  EXPECT_FALSE(showsHeldByLiveThreadOf(copyOf(mutex.get()), holder));
  EXPECT_EQ(PThreadRobustLockGuard::getMutexState(mutex.get()), EOWNERDEAD);
}
