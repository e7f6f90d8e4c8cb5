#include "scope.hpp"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "agent/spf/sharedmemory/accounts.hpp"

namespace agent::spf::sharedmemory::detail {
namespace {

constexpr const char* shmRoot = "/dev/shm/";
constexpr mode_t userFolderMode = 0700;
constexpr mode_t groupFolderMode = S_ISGID | 0770;
constexpr mode_t userSegmentMode = 0600;
constexpr mode_t groupSegmentMode = 0660;

// A folder that another process has just made may be seen before its owner,
// group and mode are set; such a folder is looked at again this many times.
constexpr int folderSetupAttempts = 200;
constexpr std::chrono::milliseconds folderSetupPatience{100};

// Group names are looked up once a second at most; a listing opens one
// segment per record, and each lookup reads the group database.
constexpr std::chrono::seconds groupCacheLifetime{1};
constexpr std::size_t groupCacheCapacity = 64;

std::string octal(mode_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "0%o", static_cast<unsigned>(mode));
  return text;
}

struct CachedGroup {
  gid_t gid;
  std::chrono::steady_clock::time_point expiry;
};

std::mutex groupCacheMutex;
std::unordered_map<std::string, CachedGroup> groupCache;

Outcome groupId(const std::string& name, gid_t& gid) {
  const auto now = std::chrono::steady_clock::now();
  {
    std::lock_guard lock(groupCacheMutex);
    auto found = groupCache.find(name);
    if (found != groupCache.end() && found->second.expiry > now) {
      gid = found->second.gid;
      return {};
    }
  }
  const GroupLookUp found = lookUpGroup(name);
  if (found.result == GroupLookUp::Failed) return systemFailure("getgrnam_r", found.error);
  if (found.result == GroupLookUp::Unknown) return refused("unknown group");
  gid = found.gid;
  std::lock_guard lock(groupCacheMutex);
  if (groupCache.size() >= groupCacheCapacity) groupCache.clear();
  groupCache[name] = CachedGroup{gid, now + groupCacheLifetime};
  return {};
}

// Sets owner, group and mode of a folder this process has just made.
Outcome setUpNewFolder(const Scope& scope) {
  UniqueFd fd(open(scope.path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd.valid()) return systemFailure("open of the new scope folder", errno);
  struct stat st {};
  if (fstat(fd.get(), &st) != 0) return systemFailure("fstat of the new scope folder", errno);
  if (!S_ISDIR(st.st_mode) || st.st_uid != geteuid()) return refused("scope folder was replaced while being made");
  const gid_t group = scope.groupScope ? scope.group : static_cast<gid_t>(-1);
  if (fchown(fd.get(), scope.owner, group) != 0) return systemFailure("fchown of the new scope folder", errno);
  if (fchmod(fd.get(), scope.folderMode) != 0) return systemFailure("fchmod of the new scope folder", errno);
  return {};
}

// Opens and checks an existing scope folder. `beingMade` tells whether a
// refused folder may be one that another process has just made and not yet
// set up (still private to its maker: no mode bits beyond 0700).
Outcome openExistingFolder(const Scope& scope, UniqueFd& folder, bool& beingMade) {
  beingMade = false;
  folder.reset(open(scope.path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder.valid()) {
    const int error = errno;
    if (error == ENOENT) return {Problem::ScopeMissing, "scope folder not found"};
    if (error == ELOOP || error == ENOTDIR) return refused("scope folder is not a folder");
    return systemFailure("open of the scope folder", error);
  }
  struct stat st {};
  if (fstat(folder.get(), &st) != 0) {
    const int error = errno;
    folder.reset();
    return systemFailure("fstat of the scope folder", error);
  }
  Outcome checked = scope.checkFolder(st);
  if (!checked.ok()) {
    folder.reset();
    beingMade = S_ISDIR(st.st_mode) && (st.st_mode & 07777 & ~mode_t{0700}) == 0;
  }
  return checked;
}

}  // namespace

Outcome systemFailure(const char* what, int error) {
  const Problem problem = (error == EACCES || error == EPERM) ? Problem::AccessDenied : Problem::SystemError;
  return {problem, std::string(what) + " failed: " + std::strerror(error) + " (Error " + std::to_string(error) + ")"};
}

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  if (this != &other) {
    reset(other.fd_);
    other.fd_ = -1;
  }
  return *this;
}

void UniqueFd::reset(int fd) noexcept {
  if (fd_ >= 0) close(fd_);
  fd_ = fd;
}

Outcome Scope::checkSegment(const struct stat& st) const {
  if (!S_ISREG(st.st_mode)) return refused("not a regular file");
  if (groupScope) {
    if (st.st_gid != group) {
      return refused("group " + std::to_string(st.st_gid) + " is not " + std::to_string(group));
    }
  } else if (st.st_uid != owner) {
    return refused("owner " + std::to_string(st.st_uid) + " is not " + std::to_string(owner));
  }
  const mode_t mode = st.st_mode & 07777;
  if ((mode & ~segmentMode) != 0) return refused("mode " + octal(mode) + " exceeds " + octal(segmentMode));
  return {};
}

Outcome Scope::checkFolder(const struct stat& st) const {
  if (!S_ISDIR(st.st_mode)) return refused("scope folder is not a folder");
  const mode_t mode = st.st_mode & 07777;
  if (groupScope) {
    if (st.st_gid != group) {
      return refused("scope folder group " + std::to_string(st.st_gid) + " is not " + std::to_string(group));
    }
    if ((mode & S_IRWXO) != 0) return refused("scope folder mode " + octal(mode) + " grants access to others");
  } else {
    if (st.st_uid != owner) {
      return refused("scope folder owner " + std::to_string(st.st_uid) + " is not " + std::to_string(owner));
    }
    if ((mode & (S_IRWXG | S_IRWXO)) != 0) {
      return refused("scope folder mode " + octal(mode) + " grants access to others");
    }
  }
  return {};
}

namespace {

// The path of a scope folder: the root, then `kind` ('u' or 'g') and the id.
std::string folderPath(char kind, unsigned id) {
  std::string path = shmRoot;
  path += kind;
  path += std::to_string(id);
  return path;
}

}  // namespace

Outcome resolveScope(const std::string& trustee, Scope& scope) {
  if (trustee.empty()) {
    scope.groupScope = false;
    scope.owner = geteuid();
    scope.group = 0;
    scope.path = folderPath('u', scope.owner);
    scope.folderMode = userFolderMode;
    scope.segmentMode = userSegmentMode;
    return {};
  }
  if (trustee.find('\0') != std::string::npos) return refused("unknown group");
  gid_t gid = 0;
  Outcome found = groupId(trustee, gid);
  if (!found.ok()) return found;
  scope.groupScope = true;
  scope.owner = geteuid();
  scope.group = gid;
  scope.path = folderPath('g', gid);
  scope.folderMode = groupFolderMode;
  scope.segmentMode = groupSegmentMode;
  return {};
}

Outcome openScopeFolder(const Scope& scope, bool createIfMissing, UniqueFd& folder) {
  bool beingMade = false;
  Outcome opened = openExistingFolder(scope, folder, beingMade);
  if (!createIfMissing || opened.ok()) return opened;
  const auto deadline = std::chrono::steady_clock::now() + folderSetupPatience;
  for (int attempt = 1;; ++attempt) {
    if (opened.problem == Problem::ScopeMissing) {
      // Made private first; owner, group and mode are then set explicitly.
      if (mkdir(scope.path.c_str(), 0700) == 0) {
        Outcome setUp = setUpNewFolder(scope);
        if (!setUp.ok()) {
          rmdir(scope.path.c_str());
          return setUp;
        }
      } else if (errno != EEXIST) {
        return systemFailure("mkdir of the scope folder", errno);
      }
    } else if (!beingMade) {
      return opened;
    } else {
      sched_yield();
    }
    opened = openExistingFolder(scope, folder, beingMade);
    if (opened.ok() || attempt >= folderSetupAttempts || std::chrono::steady_clock::now() > deadline) {
      return opened;
    }
  }
}

Outcome removeIfSame(int folder, const std::string& name, dev_t device, ino_t inode) {
  struct stat st {};
  if (fstatat(folder, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return {};
    return systemFailure("fstatat", errno);
  }
  if (st.st_dev != device || st.st_ino != inode) return {};
  if (unlinkat(folder, name.c_str(), 0) != 0 && errno != ENOENT) return systemFailure("unlinkat", errno);
  return {};
}

}  // namespace agent::spf::sharedmemory::detail
