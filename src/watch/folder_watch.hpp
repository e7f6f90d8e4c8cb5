// inotify on the scope folders of a set of trustees: what tells a Watcher
// that records were created, touched (a publisher touches its record once
// it is named) or removed.
//
// A trustee's folder that does not exist yet (nothing published so far), or
// that is removed, is waited for through a watch on /dev/shm, kept only
// while some folder is missing. A trustee that is no group, or whose folder
// the user may not read, is not watched.
//
// Thread safety: one thread at a time. Fork: a child's copy shares the
// parent's inotify instance; it may only be destroyed there.
#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>

namespace agent::spf::endpointregistry::watch {

class FolderWatch {
 public:
  // Starts watching the trustees' folders. Throws std::runtime_error
  // ("System error: Watcher: inotify_init1: <reason>") when the kernel
  // refuses an inotify instance.
  explicit FolderWatch(const std::set<std::string>& trustees);
  ~FolderWatch();
  FolderWatch(const FolderWatch&) = delete;
  FolderWatch& operator=(const FolderWatch&) = delete;

  // Readable when events wait.
  int fd() const noexcept { return inotifyFd; }

  // What drain() found.
  struct Drained {
    bool overflowed = false;  // events were lost: any segment may have been replaced
    // A folder itself appeared, went or changed: no name says what to read.
    bool folderChanged = false;
    // Names created or removed in a folder, by trustee: segments that may now
    // be other files than before.
    std::set<std::pair<std::string, std::string>> replaced;
    // Names that anything happened to, by trustee.
    std::set<std::pair<std::string, std::string>> named;
    // Names that anything but a creation happened to (removed, touched,
    // written, moved): a record is created before it is named, and its
    // publisher touches it once it is.
    std::set<std::pair<std::string, std::string>> touched;
  };

  // Reads every waiting event without blocking, and watches folders that
  // appeared.
  Drained drain();

  // Whether a folder exists that inotify would not watch (no watches left,
  // no memory): its changes are not told.
  bool missesFolders() const noexcept { return !unwatchable.empty(); }

 private:
  void watchFolders();
  void watchRoot(bool wanted);

  int inotifyFd = -1;
  int rootWatch = -1;
  std::map<std::string, std::string> folderOf;  // trustee -> scope folder path
  std::map<int, std::string> trusteeOfWatch;    // watch descriptor -> trustee
  std::set<std::string> missing;                // trustees whose folder is not watched
  std::set<std::string> unwatchable;            // trustees whose folder inotify refused
};

}  // namespace agent::spf::endpointregistry::watch
