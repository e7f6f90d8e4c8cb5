#include "folder_cache.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "agent/spf/sharedmemory/shared_memory.hpp"
#include "process_state.hpp"

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

using FolderCache = std::unordered_map<std::string, CachedFolder>;  // by scope path
using ProcessFolders = ProcessState<FolderCache>;

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

// The folder trust of this thread (see FolderTrust): how many trusts are
// open, and the folders found in place since the outermost one opened, by
// scope path. The list holds the folders, so that none is closed meanwhile.
thread_local int trustDepth = 0;
thread_local std::vector<std::pair<std::string, SharedFolder>> trustedFolders;

void trust(const std::string& path, const SharedFolder& folder) {
  if (trustDepth > 0) trustedFolders.emplace_back(path, folder);
}

}  // namespace

KeptFolder::~KeptFolder() {
  if (!abandoned_.load(std::memory_order_relaxed)) close(fd_);
}

Outcome shareScopeFolder(const Scope& scope, bool createIfMissing, SharedFolder& folder) {
  if (SharedFolder trusted = trustedScopeFolder(scope.path)) {
    folder = std::move(trusted);
    return {};
  }
  ProcessFolders::Guarded& guarded = ProcessFolders::get();
  FolderCache& folders = guarded.state;
  CachedFolder cached;
  {
    std::lock_guard lock(guarded.mutex);
    auto found = folders.find(scope.path);
    if (found != folders.end()) cached = found->second;
  }
  if (cached.folder != nullptr) {
    if (stillThere(scope, cached)) {
      trust(scope.path, cached.folder);
      folder = std::move(cached.folder);
      return {};
    }
    std::lock_guard lock(guarded.mutex);
    auto found = folders.find(scope.path);
    if (found != folders.end() && found->second.folder == cached.folder) folders.erase(found);
  }

  UniqueFd fresh;
  Outcome opened = openScopeFolder(scope, createIfMissing, fresh);
  if (!opened.ok()) return opened;
  struct stat st {};
  if (fstat(fresh.get(), &st) != 0) return systemFailure("fstat of the scope folder", errno);
  auto shared = std::make_shared<const KeptFolder>(std::move(fresh));
  {
    std::lock_guard lock(guarded.mutex);
    if (folders.size() >= cacheCapacity) folders.clear();
    folders[scope.path] = CachedFolder{shared, st.st_dev, st.st_ino};
  }
  trust(scope.path, shared);
  folder = std::move(shared);
  return {};
}

SharedFolder trustedScopeFolder(const std::string& path) {
  for (const auto& [trustedPath, folder] : trustedFolders) {
    if (trustedPath == path) return folder;
  }
  return nullptr;
}

}  // namespace agent::spf::sharedmemory::detail

namespace agent::spf::sharedmemory {

FolderTrust::FolderTrust() noexcept { ++detail::trustDepth; }

FolderTrust::~FolderTrust() {
  if (--detail::trustDepth == 0) detail::trustedFolders.clear();
}

}  // namespace agent::spf::sharedmemory
