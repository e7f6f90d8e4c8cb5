#include "watch/folder_watch.hpp"

#include <sys/inotify.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <agent/spf/sharedmemory/shared_memory.hpp>

namespace agent::spf::endpointregistry::watch {
namespace {

constexpr const char* shmRoot = "/dev/shm";
constexpr std::uint32_t folderEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB | IN_MODIFY |
                                       IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW;
constexpr std::uint32_t folderGone = IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT;
constexpr std::uint32_t nameChanges = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;

std::string baseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

}  // namespace

FolderWatch::FolderWatch(const std::set<std::string>& trustees) {
  inotifyFd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (inotifyFd < 0) {
    throw std::runtime_error(std::string("System error: Watcher: inotify_init1: ") + std::strerror(errno));
  }
  try {
    for (const std::string& trustee : trustees) {
      std::string path = agent::spf::sharedmemory::scopeFolderPath(trustee);
      if (path.empty()) continue;  // no such group: contributes nothing
      folderOf.emplace(trustee, std::move(path));
      missing.insert(trustee);
    }
    watchFolders();
  } catch (...) {
    close(inotifyFd);
    throw;
  }
}

FolderWatch::~FolderWatch() {
  if (inotifyFd >= 0) close(inotifyFd);
}

void FolderWatch::watchFolders() {
  // Twice when a folder is missing: once more after /dev/shm is watched,
  // so that a folder made in between is not missed.
  for (int pass = 0; pass < 2 && !missing.empty(); ++pass) {
    if (pass == 1) watchRoot(true);
    for (auto trustee = missing.begin(); trustee != missing.end();) {
      const int watch = inotify_add_watch(inotifyFd, folderOf.at(*trustee).c_str(), folderEvents);
      if (watch >= 0) {
        trusteeOfWatch[watch] = *trustee;
        unwatchable.erase(*trustee);
        trustee = missing.erase(trustee);
      } else if (errno == ENOENT || errno == ENOTDIR) {
        ++trustee;  // waited for through /dev/shm
      } else if (errno == EACCES) {
        trustee = missing.erase(trustee);  // not to be read by this user: contributes nothing
      } else {
        // No watches or memory left: read again now and then (the owner's
        // fallback), and tried again at each drain.
        unwatchable.insert(*trustee);
        ++trustee;
      }
    }
  }
  watchRoot(!missing.empty());
}

void FolderWatch::watchRoot(bool wanted) {
  if (wanted && rootWatch < 0) {
    rootWatch = inotify_add_watch(inotifyFd, shmRoot, IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
  } else if (!wanted && rootWatch >= 0) {
    (void)inotify_rm_watch(inotifyFd, rootWatch);
    rootWatch = -1;
  }
}

FolderWatch::Drained FolderWatch::drain() {
  Drained drained;
  alignas(inotify_event) char buffer[16384];
  for (;;) {
    const ssize_t length = read(inotifyFd, buffer, sizeof buffer);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) break;
    for (ssize_t at = 0; at < length;) {
      inotify_event event{};
      std::memcpy(&event, buffer + at, sizeof event);
      const char* nameStart = buffer + at + sizeof(inotify_event);
      const std::string name = event.len > 0 ? std::string(nameStart, strnlen(nameStart, event.len)) : std::string();
      at += static_cast<ssize_t>(sizeof(inotify_event) + event.len);
      if ((event.mask & IN_Q_OVERFLOW) != 0) {
        drained.overflowed = true;
        continue;
      }
      if (event.wd == rootWatch) {
        for (const std::string& trustee : missing) {
          if (baseName(folderOf.at(trustee)) == name) drained.folderChanged = true;
        }
        continue;
      }
      const auto watched = trusteeOfWatch.find(event.wd);
      if (watched == trusteeOfWatch.end()) continue;
      if ((event.mask & folderGone) != 0 || name.empty()) drained.folderChanged = true;
      if ((event.mask & folderGone) != 0) {
        missing.insert(watched->second);
        if ((event.mask & IN_IGNORED) == 0) (void)inotify_rm_watch(inotifyFd, event.wd);
        trusteeOfWatch.erase(watched);
        continue;
      }
      if (name.empty()) continue;
      // A file made with O_TMPFILE shows as "#<inode>" until it is linked
      // under its name, which is told then.
      if (name[0] == '#') continue;
      drained.named.emplace(watched->second, name);
      if ((event.mask & ~IN_CREATE & ~IN_ISDIR) != 0) drained.touched.emplace(watched->second, name);
      if ((event.mask & nameChanges) != 0) drained.replaced.emplace(watched->second, name);
    }
  }
  if (!missing.empty()) watchFolders();
  return drained;
}

}  // namespace agent::spf::endpointregistry::watch
