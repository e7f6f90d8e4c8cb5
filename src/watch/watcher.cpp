// The Watcher: folder and death notifications gathered on one epoll
// descriptor; after each, the records they name are read again (all of the
// registry when none is named: at first, after an overflow, when a folder
// or a directory's segment came or went).
#include <endpointregistry/watcher.hpp>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <stdexcept>
#include <system_error>

#include <agent/spf/sharedmemory/mapped_access.hpp>
#include <agent/spf/sharedmemory/shared_memory.hpp>

#include "concurrency/lock_word.hpp"
#include "concurrency/work_queue.hpp"
#include "directory/segment_names.hpp"
#include "discovery/current_user_groups.hpp"
#include "discovery/record_listing.hpp"
#include "endpoint/registry_operation.hpp"
#include "record/record_layout.hpp"
#include "record/record_name.hpp"
#include "record/record_reader.hpp"
#include "watch/death_watch.hpp"
#include "watch/folder_watch.hpp"

namespace agent::spf::endpointregistry {

using agent::spf::sharedmemory::SharedMemory;
using DataPair = std::pair<std::string, std::string>;

namespace {

// Where futex_waitv is missing, deaths are looked for this often.
constexpr std::chrono::seconds recheckInterval{1};

using RecordKey = std::pair<std::string, std::string>;  // trustee, record name

struct SeenRecord {
  DataPair data;
  std::chrono::system_clock::time_point appearedAt;
};

int checked(int fd, const char* what) {
  if (fd < 0) throw std::runtime_error(std::string("System error: Watcher: ") + what + ": " + std::strerror(errno));
  return fd;
}

// Empties an eventfd or timerfd; true when it had something.
bool readAll(int fd) noexcept {
  std::uint64_t count = 0;
  bool had = false;
  while (read(fd, &count, sizeof count) > 0) had = true;
  return had;
}

RecordChange recordChange(EndpointChange::Kind kind, const RecordKey& key, const SeenRecord& seen) {
  RecordChange change;
  change.kind = kind;
  change.data = seen.data;
  change.trustee = key.first;
  change.recordName = key.second;
  change.publisherPid = RecordName(key.second).pid();
  change.groupTagHash = groupTagHash(key.second, seen.data);
  change.appearedAt = seen.appearedAt;
  return change;
}

}  // namespace

class Watcher::Impl {
 public:
  Impl(std::string tag, std::set<std::string> watched);
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  int fd() const noexcept { return epollFd; }
  std::vector<EndpointChange> changes();
  std::vector<RecordChange> recordChanges();
  // Waits for the descriptor until `deadline`; false once it has passed.
  bool waitUntil(std::chrono::steady_clock::time_point deadline) const;

 private:
  void closeDescriptors() noexcept;
  // Takes what the descriptors tell and reads what it names: the records
  // named by folder events or whose lock words show no holder, or all of
  // the registry when no name says what changed.
  void refresh();
  void readEverything();
  void readPending();
  // After a read: the deaths of the records now listed are watched.
  void settled();
  void watchDeaths();
  std::set<RecordKey> recordsWithoutHolder();

  std::string groupTag;
  std::set<std::string> trustees;
  pid_t ownerPid = getpid();
  int epollFd = -1;
  int wakeFd = -1;   // written by the death watch
  int timerFd = -1;  // the bounded re-check, without futex_waitv
  // A one-shot timer armed while something goes unwatched (a record that
  // could not be mapped, a folder that inotify would not watch): when it
  // fires, everything is read again.
  int blindTimerFd = -1;
  bool blindTimerArmed = false;
  std::unique_ptr<watch::FolderWatch> folders;
  std::unique_ptr<watch::DeathWatch> deaths;
  WorkThreadGuard workThread;   // keeps the work thread between reads
  bool dirty = true;            // the registry is to be read again, all of it
  std::set<RecordKey> pending;  // records to be read again
  std::map<RecordKey, SeenRecord> current;
  std::map<RecordKey, SharedMemory> mapped;  // the records whose deaths are watched
  // Names whose files were created or removed since the mappings were last
  // renewed (all of them after an overflow): their mappings are made anew.
  std::set<RecordKey> replaced;
  bool remapAll = false;
  std::set<DataPair> pairBaseline;
  std::map<RecordKey, SeenRecord> recordBaseline;
};

Watcher::Impl::Impl(std::string tag, std::set<std::string> watched)
    : groupTag(std::move(tag)), trustees(std::move(watched)) {
  try {
    epollFd = checked(epoll_create1(EPOLL_CLOEXEC), "epoll_create1");
    wakeFd = checked(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), "eventfd");
    folders = std::make_unique<watch::FolderWatch>(trustees);
    deaths = std::make_unique<watch::DeathWatch>(wakeFd);
    blindTimerFd = checked(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC), "timerfd_create");
    std::vector<int> sources{wakeFd, folders->fd(), blindTimerFd};
    if (!watch::DeathWatch::available()) {
      timerFd = checked(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC), "timerfd_create");
      itimerspec every{};
      every.it_interval.tv_sec = recheckInterval.count();
      every.it_value.tv_sec = recheckInterval.count();
      timerfd_settime(timerFd, 0, &every, nullptr);
      sources.push_back(timerFd);
    }
    for (int source : sources) {
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.fd = source;
      if (epoll_ctl(epollFd, EPOLL_CTL_ADD, source, &event) != 0) checked(-1, "epoll_ctl");
    }
    workThread = WorkThreadGuard::holdThread();
  } catch (...) {
    closeDescriptors();
    throw;
  }
}

void Watcher::Impl::closeDescriptors() noexcept {
  for (int* fd : {&blindTimerFd, &timerFd, &wakeFd, &epollFd}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
}

Watcher::Impl::~Impl() {
  // The threads stop before the mappings they wait in go.
  deaths.reset();
  mapped.clear();
  folders.reset();
  closeDescriptors();
}

void Watcher::Impl::refresh() {
  if (getpid() != ownerPid) throw std::logic_error("Watcher: inherited from the parent process; make a new one");
  // Everything is taken from the descriptors before the registry is read:
  // whatever changes after this wakes them again.
  bool deathsTold = readAll(wakeFd);
  if (timerFd >= 0 && readAll(timerFd)) deathsTold = true;
  if (readAll(blindTimerFd)) {
    blindTimerArmed = false;
    dirty = true;
  }
  watch::FolderWatch::Drained drained = folders->drain();
  // Kept until the mappings are renewed, should this read fail.
  replaced.merge(drained.replaced);
  remapAll = remapAll || drained.overflowed;
  if (drained.overflowed || drained.folderChanged) dirty = true;
  const std::string prefix = groupPrefix(groupTag);
  for (const RecordKey& key : drained.named) {
    // Not a record: a directory's segments came or went, and with them,
    // perhaps, names.
    if (key.second.rfind(recordPrefix, 0) != 0) dirty = true;
  }
  for (const RecordKey& key : drained.touched) {
    // Records of other tags are no concern of this watcher.
    if (key.second.rfind(prefix, 0) == 0) pending.insert(key);
  }
  if (dirty) {
    readEverything();
  } else {
    if (deathsTold) pending.merge(recordsWithoutHolder());
    if (!pending.empty()) readPending();
  }
}

void Watcher::Impl::readEverything() {
  std::vector<ListedRecord> records = listRecords(groupTag, trustees);
  const auto now = std::chrono::system_clock::now();
  std::map<RecordKey, SeenRecord> fresh;
  for (ListedRecord& record : records) {
    RecordKey key(std::move(record.trustee), std::move(record.name));
    const auto before = current.find(key);
    const auto appearedAt =
        before != current.end() && before->second.data == record.data ? before->second.appearedAt : now;
    fresh.emplace(std::move(key), SeenRecord{std::move(record.data), appearedAt});
  }
  current = std::move(fresh);
  settled();
}

void Watcher::Impl::readPending() {
  RegistryOperation operation(RegistryOperation::WorkThread::NotHeld);
  const auto now = std::chrono::system_clock::now();
  for (const RecordKey& key : pending) {
    // Read as a listing reads it, clearing it away if its publisher died.
    RecordRead read = operation.records(key.first).read(RecordName(key.second));
    if (read.data.first.empty() && read.data.second.empty()) {
      current.erase(key);
      continue;
    }
    SeenRecord& seen = current[key];
    if (seen.data != read.data) seen = SeenRecord{std::move(read.data), now};
  }
  settled();
}

void Watcher::Impl::settled() {
  watchDeaths();
  dirty = false;
  pending.clear();
  replaced.clear();
  remapAll = false;
}

std::set<RecordKey> Watcher::Impl::recordsWithoutHolder() {
  std::set<RecordKey> found;
  // The words live in segments that their writers may cut short.
  const agent::spf::sharedmemory::MappedAccess access;
  for (auto& [key, segment] : mapped) {
    std::atomic_ref<std::uint32_t> word(
        *reinterpret_cast<std::uint32_t*>(&recordHeaderOf(segment).livenessMutex.__data.__lock));
    const std::uint32_t seen = word.load(std::memory_order_acquire);
    if (lockword::holder(seen) == 0 || lockword::ownerDied(seen)) found.insert(key);
  }
  return found;
}

void Watcher::Impl::watchDeaths() {
  std::map<RecordKey, SharedMemory> keep;
  std::vector<std::uint32_t*> words;
  for (const auto& [key, seen] : current) {
    auto found = mapped.find(key);
    if (found != mapped.end() && !remapAll && replaced.count(key) == 0) {
      keep.emplace(key, std::move(found->second));
      mapped.erase(found);
    } else {
      const RecordName name(key.second);
      if (!name.segmentSize()) continue;
      SharedMemory segment = SharedMemory::find(key.second, *name.segmentSize(), key.first, {});
      if (!segment.isAttached()) continue;  // gone already: its removal wakes the descriptor
      keep.emplace(key, std::move(segment));
    }
  }
  for (auto& [key, segment] : keep) {
    words.push_back(reinterpret_cast<std::uint32_t*>(&recordHeaderOf(segment).livenessMutex.__data.__lock));
  }
  // The threads leave the words of records no longer listed before their
  // mappings go.
  deaths->watch(words);
  mapped = std::move(keep);
  // A record listed but not mapped (gone meanwhile, which its removal tells,
  // or refused: no descriptors or mappings left), or a folder not watched:
  // looked at again in a second.
  if ((mapped.size() < current.size() || folders->missesFolders()) && !blindTimerArmed) {
    itimerspec once{};
    once.it_value.tv_sec = recheckInterval.count();
    timerfd_settime(blindTimerFd, 0, &once, nullptr);
    blindTimerArmed = true;
  }
}

std::vector<EndpointChange> Watcher::Impl::changes() {
  refresh();
  std::set<DataPair> now;
  for (const auto& [key, seen] : current) now.insert(seen.data);
  // Both sets are sorted: one merge gives each changed pair once, in order.
  std::vector<EndpointChange> events;
  auto before = pairBaseline.begin();
  auto after = now.begin();
  while (before != pairBaseline.end() || after != now.end()) {
    if (after == now.end() || (before != pairBaseline.end() && *before < *after)) {
      events.push_back({EndpointChange::Disappeared, *before++});
    } else if (before == pairBaseline.end() || *after < *before) {
      events.push_back({EndpointChange::Appeared, *after++});
    } else {
      ++before;
      ++after;
    }
  }
  pairBaseline = std::move(now);
  return events;
}

std::vector<RecordChange> Watcher::Impl::recordChanges() {
  refresh();
  std::vector<RecordChange> events;
  auto before = recordBaseline.begin();
  auto after = current.begin();
  while (before != recordBaseline.end() || after != current.end()) {
    if (after == current.end() || (before != recordBaseline.end() && before->first < after->first)) {
      events.push_back(recordChange(EndpointChange::Disappeared, before->first, before->second));
      ++before;
    } else if (before == recordBaseline.end() || after->first < before->first) {
      events.push_back(recordChange(EndpointChange::Appeared, after->first, after->second));
      ++after;
    } else {
      // The same name may hold other data once its publisher is gone and
      // another process (of another pid namespace) published under it.
      if (before->second.data != after->second.data || before->second.appearedAt != after->second.appearedAt) {
        events.push_back(recordChange(EndpointChange::Disappeared, before->first, before->second));
        events.push_back(recordChange(EndpointChange::Appeared, after->first, after->second));
      }
      ++before;
      ++after;
    }
  }
  recordBaseline = current;
  return events;
}

bool Watcher::Impl::waitUntil(std::chrono::steady_clock::time_point deadline) const {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd readable{epollFd, POLLIN, 0};
    const int ready = poll(&readable, 1, static_cast<int>(std::min<long long>(left.count(), 1'000'000)));
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) throw std::system_error(errno, std::generic_category(), "poll");
  }
}

Watcher::Watcher(const std::string& groupTag, std::set<std::string> trustees)
    : impl(std::make_unique<Impl>(groupTag, std::move(trustees))) {}

Watcher Watcher::forAllTrustees(const std::string& groupTag) {
  std::set<std::string> trustees = getCurrentUserGroups();
  trustees.insert("");
  return Watcher(groupTag, std::move(trustees));
}

Watcher::Watcher(Watcher&& other) noexcept = default;
Watcher& Watcher::operator=(Watcher&& other) noexcept = default;
Watcher::~Watcher() = default;

int Watcher::fileDescriptor() const noexcept { return impl ? impl->fd() : -1; }

namespace {

template <typename Impl>
Impl& usable(const std::unique_ptr<Impl>& impl) {
  if (!impl) throw std::logic_error("Watcher: moved from");
  return *impl;
}

// Calls `read` until it returns changes or the timeout passes.
template <typename Impl, typename Read>
auto waitFor(Impl& impl, std::chrono::milliseconds timeout, const Read& read) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    auto events = read();
    if (!events.empty() || !impl.waitUntil(deadline)) return events;
  }
}

}  // namespace

std::vector<EndpointChange> Watcher::changes() { return usable(impl).changes(); }

std::vector<EndpointChange> Watcher::waitForChanges(std::chrono::milliseconds timeout) {
  Impl& watcher = usable(impl);
  return waitFor(watcher, timeout, [&watcher] { return watcher.changes(); });
}

std::vector<RecordChange> Watcher::recordChanges() { return usable(impl).recordChanges(); }

std::vector<RecordChange> Watcher::waitForRecordChanges(std::chrono::milliseconds timeout) {
  Impl& watcher = usable(impl);
  return waitFor(watcher, timeout, [&watcher] { return watcher.recordChanges(); });
}

}  // namespace agent::spf::endpointregistry
