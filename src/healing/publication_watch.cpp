#include "healing/publication_watch.hpp"

#include <pthread.h>
#include <sys/inotify.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include <agent/spf/sharedmemory/shared_memory.hpp>

#include "concurrency/work_queue.hpp"
#include "diagnostics/diagnostics.hpp"
#include "healing/publication_healer.hpp"

namespace agent::spf::endpointregistry::healing {
namespace {

// What each watch looks at: a record's segment, or a directory's base.
struct Target {
  std::string trustee;
  bool directory = false;
};

// Attempts of one healing that keeps failing, and the first interval
// between them (doubled each time): about 1.3 s in all.
constexpr int healingAttempts = 8;
constexpr std::chrono::milliseconds firstRetryInterval{10};

constexpr std::uint32_t watchedChanges = IN_ATTRIB | IN_MODIFY | IN_MOVE_SELF | IN_DELETE_SELF;

// How long after its first publication a process starts its watch. The
// kernel makes the last close of a watching descriptor wait for a grace
// period (milliseconds), which every process that ever watched pays when it
// ends: a process that publishes and ends within this time never watches,
// and pays nothing. Damage done meanwhile is looked for when the watch
// starts.
constexpr std::chrono::milliseconds watchDelay{50};

// A record's watch as watchRecord() hands it out: the kernel's watch once
// the watch has started, -1 before.
struct RecordWatch {
  std::string trustee;
  std::string name;
  int kernelWatch = -1;
};

struct Watch {
  std::mutex mutex;
  int fd = -1;     // the inotify descriptor, once the watch has started
  int timer = -1;  // until then: the timer that starts it
  unsigned nextHandle = 0;
  std::unordered_map<int, RecordWatch> records;      // by handle
  std::unordered_map<int, Target> targets;           // by kernel watch
  std::unordered_map<std::string, int> directories;  // trustee -> watch of its base (-1: to be made)
  // The healer's work: requested while it runs, done in its next round.
  bool healerRunning = false;
  bool healAll = false;
  std::set<std::string> toHeal;
};

Watch& theWatch();

void onReadable() noexcept;

// Never destroyed: the healer may still be at work while the process exits.
Watch& theWatch() {
  static Watch* const made = [] {
    pthread_atfork(nullptr, nullptr, [] {
      // The child must not read the parent's events: it closes its copy of
      // the descriptor and starts with no watch (its records are none).
      Watch& inherited = theWatch();
      if (inherited.fd >= 0) close(inherited.fd);
      if (inherited.timer >= 0) close(inherited.timer);
      alignas(Watch) static unsigned char parked[sizeof(Watch)];
      std::memcpy(parked, static_cast<void*>(&inherited), sizeof parked);
      ::new (static_cast<void*>(&inherited)) Watch{};
    });
    return new Watch{};
  }();
  return *made;
}

void onTimer() noexcept;

// True once the watch's descriptor is open, or when neither a timer nor a
// descriptor could be had (nothing is then watched). Otherwise the call arms the timer
// that starts it (handed to the primary work thread, which waits on it
// while it sleeps, and so starts the watch when the timer is due or, if the
// thread was not running then, when it next sleeps). Under the watch's
// mutex.
bool started(Watch& watch) {
  if (watch.fd >= 0) return true;
  if (watch.timer >= 0) return false;
  watch.timer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(watchDelay).count();
  itimerspec due{};
  due.it_value.tv_sec = static_cast<time_t>(nanoseconds / 1'000'000'000);
  due.it_value.tv_nsec = static_cast<long>(nanoseconds % 1'000'000'000);
  if (watch.timer >= 0 && timerfd_settime(watch.timer, 0, &due, nullptr) == 0) {
    setIdleWatch(IdleWatch{watch.timer, &onTimer});
    return false;
  }
  // No timer: the watch starts at once.
  if (watch.timer >= 0) close(watch.timer);
  watch.timer = -1;
  watch.fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (watch.fd >= 0) setIdleWatch(IdleWatch{watch.fd, &onReadable});
  return true;
}

int addWatch(Watch& watch, const std::string& trustee, const std::string& name, bool directory) {
  if (watch.fd < 0) return -1;
  const std::string folder = agent::spf::sharedmemory::scopeFolderPath(trustee);
  if (folder.empty()) return -1;
  const int added = inotify_add_watch(watch.fd, (folder + "/" + name).c_str(), watchedChanges | IN_DONT_FOLLOW);
  if (added >= 0) watch.targets[added] = Target{trustee, directory};
  return added;
}

void watchDirectoryLocked(Watch& watch, const std::string& trustee) {
  if (!started(watch)) {
    watch.directories.try_emplace(trustee, -1);
    return;
  }
  const int added = addWatch(watch, trustee, registryDirectoryName + "v0", true);
  if (added >= 0) {
    watch.directories[trustee] = added;
  } else {
    watch.directories.erase(trustee);
  }
}

// Runs on the primary work thread when the timer is due: starts the watch
// with what is to be watched by now, and has the healer look at those
// trustees' records for damage done before.
void onTimer() noexcept {
  Watch& watch = theWatch();
  std::set<std::string> trustees;
  {
    std::lock_guard<std::mutex> lock(watch.mutex);
    if (watch.timer < 0) return;
    close(watch.timer);
    watch.timer = -1;
    if (watch.records.empty()) {
      // Everything was withdrawn meanwhile: nothing to watch, and no watch
      // to pay for. The next publication arms a timer again.
      setIdleWatch(IdleWatch{});
      return;
    }
    watch.fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    setIdleWatch(IdleWatch{watch.fd, watch.fd >= 0 ? &onReadable : nullptr});
    if (watch.fd < 0) return;  // unwatched, as when a watch cannot be added
    std::vector<std::string> directories;
    for (const auto& [trustee, kernelWatch] : watch.directories) directories.push_back(trustee);
    for (const std::string& trustee : directories) {
      watchDirectoryLocked(watch, trustee);
      trustees.insert(trustee);
    }
    for (auto& [handle, record] : watch.records) {
      record.kernelWatch = addWatch(watch, record.trustee, record.name, false);
      trustees.insert(record.trustee);
    }
  }
  if (!trustees.empty()) requestHealing(trustees, false);
}

// A log line where nothing may be thrown: one that cannot be written is dropped.
template <typename... Pieces>
void logQuietly(const Pieces&... pieces) noexcept {
  try {
    logMessage(mainLogger(), Error, pieces...);
  } catch (...) {
  }
}

void runHealer() noexcept {
  Watch& watch = theWatch();
  int failures = 0;
  for (;;) {
    std::set<std::string> trustees;
    bool all = false;
    {
      std::lock_guard<std::mutex> lock(watch.mutex);
      if (!watch.healAll && watch.toHeal.empty()) {
        watch.healerRunning = false;
        return;
      }
      trustees.swap(watch.toHeal);
      all = std::exchange(watch.healAll, false);
    }
    const HealingOutcome outcome = healPublications(trustees, all, failures == 0);
    {
      std::lock_guard<std::mutex> lock(watch.mutex);
      for (const std::string& trustee : outcome.directoriesSeen) watchDirectoryLocked(watch, trustee);
    }
    if (outcome.succeeded) {
      failures = 0;
      continue;
    }
    if (++failures >= healingAttempts) {
      logQuietly("PublicationHealer: Gave up after ", failures,
                 " attempts; the next change of a watched segment starts over.");
      failures = 0;
      continue;  // whatever was requested meanwhile is still done
    }
    std::this_thread::sleep_for(firstRetryInterval * (1 << (failures - 1)));
    std::lock_guard<std::mutex> lock(watch.mutex);
    watch.toHeal.insert(trustees.begin(), trustees.end());
    watch.healAll = watch.healAll || all;
  }
}

// Runs on the primary work thread whenever the watch's descriptor is
// readable: reads every event there is, and sends what is hit to the
// healer.
void onReadable() noexcept {
  Watch& watch = theWatch();
  std::set<std::string> trustees;
  bool all = false;
  {
    std::lock_guard<std::mutex> lock(watch.mutex);
    alignas(inotify_event) char buffer[4096];
    for (;;) {
      const ssize_t got = read(watch.fd, buffer, sizeof buffer);
      if (got <= 0) break;
      for (ssize_t offset = 0; offset < got;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
        offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        if ((event->mask & IN_Q_OVERFLOW) != 0) {
          all = true;
          continue;
        }
        const auto found = watch.targets.find(event->wd);
        if (found == watch.targets.end()) continue;
        trustees.insert(found->second.trustee);
        if ((event->mask & IN_IGNORED) != 0) {
          if (found->second.directory) watch.directories.erase(found->second.trustee);
          for (auto& [handle, record] : watch.records) {
            if (record.kernelWatch == event->wd) record.kernelWatch = -1;
          }
          watch.targets.erase(found);
        }
      }
    }
  }
  if (all || !trustees.empty()) requestHealing(trustees, all);
}

}  // namespace

int watchRecord(const std::string& trustee, const std::string& name, bool* gone) noexcept {
  if (gone != nullptr) *gone = false;
  try {
    Watch& watch = theWatch();
    std::unique_lock<std::mutex> lock(watch.mutex);
    if (watch.directories.count(trustee) == 0) watchDirectoryLocked(watch, trustee);
    int kernelWatch = -1;
    if (started(watch)) {
      errno = 0;
      kernelWatch = addWatch(watch, trustee, name, false);
      if (kernelWatch < 0) {
        // Gone already (another process removed it between its publication
        // and this watch): no event will tell, so the healer looks now.
        const bool missing = errno == ENOENT;
        lock.unlock();
        if (gone != nullptr) {
          *gone = missing;
        } else if (missing) {
          requestHealing({trustee}, false);
        }
        return -1;
      }
    }
    // Handles are not negative and never two alike, also once the count wraps.
    int handle = 0;
    do {
      handle = static_cast<int>(watch.nextHandle++ & 0x7fffffffU);
    } while (watch.records.count(handle) != 0);
    watch.records.emplace(handle, RecordWatch{trustee, name, kernelWatch});
    return handle;
  } catch (...) {
    return -1;
  }
}

void unwatchRecord(int watched) noexcept {
  if (watched < 0) return;
  try {
    Watch& watch = theWatch();
    std::lock_guard<std::mutex> lock(watch.mutex);
    const auto found = watch.records.find(watched);
    if (found == watch.records.end()) return;
    const int kernelWatch = found->second.kernelWatch;
    watch.records.erase(found);
    if (kernelWatch >= 0 && watch.targets.erase(kernelWatch) != 0 && watch.fd >= 0) {
      inotify_rm_watch(watch.fd, kernelWatch);
    }
  } catch (...) {
    // Its events, if any, find no target and are dropped.
  }
}

void requestHealing(const std::set<std::string>& trustees, bool all) noexcept {
  try {
    Watch& watch = theWatch();
    std::lock_guard<std::mutex> lock(watch.mutex);
    watch.toHeal.insert(trustees.begin(), trustees.end());
    watch.healAll = watch.healAll || all;
    if (watch.healerRunning) return;
    std::thread(&runHealer).detach();
    watch.healerRunning = true;
  } catch (...) {
    logQuietly("PublicationHealer: Could not start the healer.");
  }
}

}  // namespace agent::spf::endpointregistry::healing
