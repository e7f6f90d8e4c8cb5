#include "mapping_cache.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <chrono>
#include <cstdint>
#include <list>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "agent/spf/sharedmemory/mapped_access.hpp"
#include "process_state.hpp"

namespace agent::spf::sharedmemory::detail {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t idleLimit = 16;
constexpr std::size_t idleByteLimit = std::size_t{8} << 20;
constexpr std::chrono::seconds idleLifetime{2};

struct Entry {
  std::string path;
  std::size_t size = 0;
  dev_t device = 0;
  ino_t inode = 0;
  unsigned users = 0;
  bool reusable = true;
  Clock::time_point idleSince;
  std::list<void*>::iterator idlePosition;  // valid while users == 0
};

struct Cache {
  std::unordered_map<void*, Entry> entries;
  std::unordered_multimap<std::string, void*> byPath;  // reusable entries
  std::list<void*> idle;                               // oldest first
  std::size_t idleBytes = 0;
  std::uint64_t repairsSeen = 0;  // repairedFaults() when the entries were last trusted
};

// The child's copy of the cache describes the child's copies of the
// mappings; a child that gets a fresh cache unmaps what its handles hold.
using ProcessCache = ProcessState<Cache>;

void stopReuse(Cache& c, void* address, Entry& entry) {
  if (!entry.reusable) return;
  entry.reusable = false;
  auto range = c.byPath.equal_range(entry.path);
  for (auto it = range.first; it != range.second; ++it) {
    if (it->second == address) {
      c.byPath.erase(it);
      break;
    }
  }
}

// Takes an idle entry out of the cache; its mapping goes to `unmap`.
void dropIdle(Cache& c, void* address, std::vector<std::pair<void*, std::size_t>>& unmap) {
  auto found = c.entries.find(address);
  Entry& entry = found->second;
  stopReuse(c, address, entry);
  c.idle.erase(entry.idlePosition);
  c.idleBytes -= entry.size;
  unmap.emplace_back(address, entry.size);
  c.entries.erase(found);
}

// After a fault on a truncated segment was repaired, some mapping of this
// process holds a page of private zeros where the segment's bytes were: no
// mapping kept so far is handed out again.
void distrustAfterRepairs(Cache& c, std::vector<std::pair<void*, std::size_t>>& unmap) {
  const std::uint64_t repairs = repairedFaults();
  if (repairs == c.repairsSeen) return;
  c.repairsSeen = repairs;
  while (!c.idle.empty()) dropIdle(c, c.idle.front(), unmap);
  for (auto& [address, entry] : c.entries) stopReuse(c, address, entry);
}

// Unmaps idle entries beyond the bounds, oldest first.
void trim(Cache& c, Clock::time_point now, std::vector<std::pair<void*, std::size_t>>& unmap) {
  while (!c.idle.empty()) {
    const Entry& oldest = c.entries.find(c.idle.front())->second;
    if (c.idle.size() <= idleLimit && c.idleBytes <= idleByteLimit && now - oldest.idleSince < idleLifetime) break;
    dropIdle(c, c.idle.front(), unmap);
  }
}

void unmapAll(const std::vector<std::pair<void*, std::size_t>>& unmap) noexcept {
  for (const auto& [address, size] : unmap) munmap(address, size);
}

std::string pathOf(const Scope& scope, const std::string& name) { return scope.path + "/" + name; }

}  // namespace

bool reuseMapping(const Scope& scope, const std::string& name, std::size_t size, CachedMapping& found) {
  ProcessCache::Guarded& guarded = ProcessCache::get();
  Cache& c = guarded.state;
  const std::string path = pathOf(scope, name);
  std::vector<std::pair<void*, std::size_t>> unmap;
  {
    std::lock_guard lock(guarded.mutex);
    distrustAfterRepairs(c, unmap);
    trim(c, Clock::now(), unmap);
    auto range = c.byPath.equal_range(path);
    for (auto it = range.first; it != range.second && found.address == nullptr; ++it) {
      Entry& entry = c.entries.find(it->second)->second;
      if (entry.size != size) continue;
      if (entry.users++ == 0) {
        c.idle.erase(entry.idlePosition);
        c.idleBytes -= entry.size;
      }
      found = CachedMapping{it->second, entry.device, entry.inode};
    }
  }
  unmapAll(unmap);
  if (found.address == nullptr) return false;

  struct stat st {};
  const bool same = fstatat(AT_FDCWD, path.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode) &&
                    st.st_dev == found.device && st.st_ino == found.inode &&
                    static_cast<std::uintmax_t>(st.st_size) >= size && scope.checkSegment(st).ok();
  if (same) return true;
  forgetMapping(found.address);
  releaseMapping(found.address);
  found = CachedMapping{};
  return false;
}

void adoptMapping(const Scope& scope, const std::string& name, std::size_t size,
                  const CachedMapping& mapping) noexcept {
  try {
    ProcessCache::Guarded& guarded = ProcessCache::get();
    Cache& c = guarded.state;
    Entry entry;
    entry.path = pathOf(scope, name);
    entry.size = size;
    entry.device = mapping.device;
    entry.inode = mapping.inode;
    entry.users = 1;
    std::lock_guard lock(guarded.mutex);
    auto [position, added] = c.entries.emplace(mapping.address, std::move(entry));
    if (!added) return;
    try {
      c.byPath.emplace(position->second.path, mapping.address);
    } catch (...) {
      position->second.reusable = false;
    }
  } catch (...) {
    // Not kept: the handle unmaps the mapping itself on release.
  }
}

bool releaseMapping(void* address) noexcept {
  ProcessCache::Guarded* guarded = ProcessCache::ifMade();
  if (guarded == nullptr) return false;
  Cache& c = guarded->state;
  std::vector<std::pair<void*, std::size_t>> unmap;
  bool owned = false;
  try {
    std::lock_guard lock(guarded->mutex);
    auto found = c.entries.find(address);
    if (found != c.entries.end()) {
      owned = true;
      Entry& entry = found->second;
      if (entry.users > 0 && --entry.users == 0) {
        const auto now = Clock::now();
        if (entry.reusable) {
          entry.idleSince = now;
          entry.idlePosition = c.idle.insert(c.idle.end(), address);
          c.idleBytes += entry.size;
        } else {
          unmap.emplace_back(address, entry.size);
          c.entries.erase(found);
        }
        trim(c, now, unmap);
      }
    }
  } catch (...) {
    // Only the list of mappings to unmap can run out of memory; what it
    // could not hold stays mapped until the cache next trims.
  }
  unmapAll(unmap);
  return owned;
}

void forgetMapping(void* address) noexcept {
  ProcessCache::Guarded* guarded = ProcessCache::ifMade();
  if (guarded == nullptr) return;
  Cache& c = guarded->state;
  std::lock_guard lock(guarded->mutex);
  auto found = c.entries.find(address);
  if (found != c.entries.end()) stopReuse(c, address, found->second);
}

}  // namespace agent::spf::sharedmemory::detail
