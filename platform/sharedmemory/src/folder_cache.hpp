// Scope folders kept open for reuse. Opening and checking a scope folder
// costs an open, a stat and a close on every segment operation; a folder
// this process has opened and checked before is reused after one stat of its
// path shows that the path still names that very folder and that the folder
// still passes the checks of a fresh open. The process keeps at most a few
// such descriptors (close-on-exec), one per scope it uses.
//
// Before each reuse the descriptor itself is checked too (it must still be
// open on the same folder), so a forked child keeps using the folders it
// inherited, and one that closed them opens them again.
//
// Thread safety: may be called from any thread.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "scope.hpp"

namespace agent::spf::sharedmemory::detail {

// An open scope folder, shared with the cache. Its descriptor is closed with
// the last reference, unless it was found no longer to be the folder's: a
// program may close descriptors it did not open (a daemon closing all of them
// after fork), and the number may by then be one of its own.
class KeptFolder {
 public:
  explicit KeptFolder(UniqueFd&& folder) noexcept : fd_(folder.release()) {}
  ~KeptFolder();
  KeptFolder(const KeptFolder&) = delete;
  KeptFolder& operator=(const KeptFolder&) = delete;

  int get() const noexcept { return fd_; }
  // The descriptor is no longer this folder's: it is never closed here.
  void abandon() const noexcept { abandoned_.store(true, std::memory_order_relaxed); }

 private:
  int fd_;
  mutable std::atomic<bool> abandoned_{false};
};

using SharedFolder = std::shared_ptr<const KeptFolder>;

// The scope's folder, checked as openScopeFolder checks it (and made when it
// is missing and `createIfMissing` is set): the cached one while it is still
// the folder at the scope's path and still acceptable, else one opened
// afresh, which is then cached. Outcomes as openScopeFolder's.
Outcome shareScopeFolder(const Scope& scope, bool createIfMissing, SharedFolder& folder);

// The kept folder of the scope at `path` if this thread has found it in
// place within its current FolderTrust; null otherwise.
SharedFolder trustedScopeFolder(const std::string& path);

}  // namespace agent::spf::sharedmemory::detail
