#include "folder_cache.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>
#include <utility>

namespace agent::spf::sharedmemory::detail {
namespace {

// More scopes than this in use at once is unusual; the cache then starts
// over rather than keep a descriptor for every one.
constexpr std::size_t cacheCapacity = 16;

struct CachedFolder {
  SharedFolder folder;
  dev_t device = 0;
  ino_t inode = 0;
};

struct FolderCache {
  std::mutex mutex;
  std::unordered_map<std::string, CachedFolder> folders;  // by scope path
  FolderCache* abandoned = nullptr;                       // a forked child's unusable predecessor, kept reachable
};

// Never destroyed: segments may be opened during the process's exit.
FolderCache* theCache = nullptr;
std::once_flag cacheOnce;

// Runs in a forked child before fork() returns there: a cache that another
// thread was changing at the fork is set aside for a fresh one.
void renewInForkedChild() noexcept {
  if (theCache->mutex.try_lock()) {
    theCache->mutex.unlock();
    return;
  }
  FolderCache* fresh = new (std::nothrow) FolderCache;
  if (fresh == nullptr) return;
  fresh->abandoned = theCache;
  theCache = fresh;
}

FolderCache& cache() {
  std::call_once(cacheOnce, [] {
    theCache = new FolderCache;
    pthread_atfork(nullptr, nullptr, &renewInForkedChild);
  });
  return *theCache;
}

// True when the cached descriptor is still open on the cached folder, the
// scope's path still names that folder, and the folder still passes the
// checks of a fresh open. A descriptor that is no longer the folder's is
// abandoned, never closed.
bool stillThere(const Scope& scope, const CachedFolder& cached) {
  struct stat st {};
  if (fstat(cached.folder->get(), &st) != 0 || st.st_dev != cached.device || st.st_ino != cached.inode) {
    cached.folder->abandon();
    return false;
  }
  return fstatat(AT_FDCWD, scope.path.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && st.st_dev == cached.device &&
         st.st_ino == cached.inode && scope.checkFolder(st).ok();
}

}  // namespace

KeptFolder::~KeptFolder() {
  if (!abandoned_.load(std::memory_order_relaxed)) close(fd_);
}

Outcome shareScopeFolder(const Scope& scope, bool createIfMissing, SharedFolder& folder) {
  FolderCache& c = cache();
  CachedFolder cached;
  {
    std::lock_guard lock(c.mutex);
    auto found = c.folders.find(scope.path);
    if (found != c.folders.end()) cached = found->second;
  }
  if (cached.folder != nullptr) {
    if (stillThere(scope, cached)) {
      folder = std::move(cached.folder);
      return {};
    }
    std::lock_guard lock(c.mutex);
    auto found = c.folders.find(scope.path);
    if (found != c.folders.end() && found->second.folder == cached.folder) c.folders.erase(found);
  }

  UniqueFd fresh;
  Outcome opened = openScopeFolder(scope, createIfMissing, fresh);
  if (!opened.ok()) return opened;
  struct stat st {};
  if (fstat(fresh.get(), &st) != 0) return systemFailure("fstat of the scope folder", errno);
  auto shared = std::make_shared<const KeptFolder>(std::move(fresh));
  {
    std::lock_guard lock(c.mutex);
    if (c.folders.size() >= cacheCapacity) c.folders.clear();
    c.folders[scope.path] = CachedFolder{shared, st.st_dev, st.st_ino};
  }
  folder = std::move(shared);
  return {};
}

}  // namespace agent::spf::sharedmemory::detail
