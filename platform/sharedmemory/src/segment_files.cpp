#include "segment_files.hpp"

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <string>
#include <utility>

namespace agent::spf::sharedmemory::detail {

namespace {

// Segments are opened like POSIX shared memory. O_NONBLOCK and O_NOCTTY keep
// opening a planted FIFO or device from blocking or doing anything; such a
// file is then refused as not regular.
constexpr int segmentOpenFlags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;

// createOrFind() waits this long at most for a segment that another process
// is creating and has not sized yet (a creator may be preempted between
// creating and sizing). The count bounds the tries when yielding is cheap.
constexpr int createOrFindAttempts = 100000;
constexpr std::chrono::milliseconds createOrFindPatience{500};

// Claims a file that this process is creating: an exclusive lock on it,
// which isBeingCreated() looks for, held by the descriptor that the handle
// keeps until endCreation(). Taken before anybody else can open the file. A
// file system without such locks leaves the segment unclaimed, and readers
// judge it without the claim.
bool claimCreation(int fd) { return flock(fd, LOCK_EX | LOCK_NB) == 0; }

Outcome mapSegment(int fd, std::size_t size, Opened& opened) {
  void* address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (address == MAP_FAILED) return systemFailure("mmap", errno);
  opened.address = address;
  return {};
}

// Gives a new segment file (described by `st`) its owner, group, mode and
// size, and maps it. Owner, group and mode are set only where they differ.
Outcome setUpSegment(const Scope& scope, int fd, const struct stat& st, std::size_t size, Opened& opened) {
  const bool ownerRight = scope.groupScope ? st.st_gid == scope.group : st.st_uid == scope.owner;
  if (!ownerRight) {
    const uid_t owner = scope.groupScope ? static_cast<uid_t>(-1) : scope.owner;
    const gid_t group = scope.groupScope ? scope.group : static_cast<gid_t>(-1);
    if (fchown(fd, owner, group) != 0) return systemFailure("fchown", errno);
  }
  // A change of owner or group may clear the set-id bits; the mode is set
  // after it.
  if (!ownerRight || (st.st_mode & 07777) != scope.segmentMode) {
    if (fchmod(fd, scope.segmentMode) != 0) return systemFailure("fchmod", errno);
  }
  if (ftruncate(fd, static_cast<off_t>(size)) != 0) return systemFailure("ftruncate", errno);
  return mapSegment(fd, size, opened);
}

// Whether linking by descriptor (AT_EMPTY_PATH, which needs the capability
// to search any folder) has been refused to this process; it is then not
// tried again.
std::atomic<bool> linkByDescriptorRefused{false};

// Gives the unnamed file `fd` the name `name`; fails with EEXIST when the
// name is taken. Linking by descriptor is the cheaper way; linking through
// /proc needs no privilege.
int linkUnnamed(int fd, int folder, const std::string& name) {
  if (!linkByDescriptorRefused.load(std::memory_order_relaxed)) {
    if (linkat(fd, "", folder, name.c_str(), AT_EMPTY_PATH) == 0) return 0;
    if (errno != ENOENT && errno != EPERM) return errno;
    linkByDescriptorRefused.store(true, std::memory_order_relaxed);
  }
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  return linkat(AT_FDCWD, path.c_str(), folder, name.c_str(), AT_SYMLINK_FOLLOW) == 0 ? 0 : errno;
}

// Creates the segment exclusively and atomically: the file is made without
// a name (O_TMPFILE), set up completely, and only then linked under its
// name. A creator that dies on the way leaves nothing behind, and a segment
// is never seen before it is complete.
Outcome createUnnamedThenLink(const Scope& scope, int tmpFd, int folder, const std::string& name, std::size_t size,
                              Opened& opened) {
  UniqueFd fd(tmpFd);
  struct stat st {};
  if (fstat(fd.get(), &st) != 0) return systemFailure("fstat", errno);
  Outcome setUp = setUpSegment(scope, fd.get(), st, size, opened);
  if (!setUp.ok()) return setUp;
  // Claimed before the name appears, so that no reader sees it unclaimed.
  const bool claimed = claimCreation(fd.get());
  const int error = linkUnnamed(fd.get(), folder, name);
  if (error != 0) {
    munmap(opened.address, size);
    opened.address = nullptr;
    if (error == EEXIST) return {Problem::Exists, "exists already"};
    return systemFailure("linkat", error);
  }
  opened.device = st.st_dev;
  opened.inode = st.st_ino;
  opened.created = true;
  if (claimed) opened.creationClaim = fd.release();
  return {};
}

// True when `name` is a regular file smaller than `size`: a segment another
// process has created and not yet set up and sized.
bool beingCreated(int folder, const std::string& name, std::size_t size) {
  struct stat st {};
  if (fstatat(folder, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
  return S_ISREG(st.st_mode) && static_cast<std::uintmax_t>(st.st_size) < size;
}

// True unless `name` is known not to be claimed as being created: a segment
// too short for what is asked, and not being created, will not grow.
bool mayStillGrow(int folder, const std::string& name) {
  const UniqueFd fd(openat(folder, name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  if (!fd.valid()) return true;
  if (flock(fd.get(), LOCK_SH | LOCK_NB) == 0) return false;
  return errno == EWOULDBLOCK;
}

}  // namespace

Outcome checkArguments(const std::string& name, std::size_t size) {
  if (name.empty() || name == "." || name == ".." || name.size() > NAME_MAX ||
      name.find_first_of(std::string("/\0", 2)) != std::string::npos) {
    return refused("invalid name");
  }
  if (size == 0) return refused("size 0 is not allowed");
  if (size > static_cast<std::size_t>(PTRDIFF_MAX)) return refused("size " + std::to_string(size) + " is too large");
  return {};
}

Outcome openSegment(const Scope& scope, int folder, const std::string& name, std::size_t size, UniqueFd& fd,
                    struct stat& st) {
  fd.reset(openat(folder, name.c_str(), segmentOpenFlags));
  if (!fd.valid()) {
    const int error = errno;
    if (error == ENOENT) return {Problem::NotFound, "not found"};
    if (error == ELOOP) return refused("is a symbolic link");
    if (error == EISDIR || error == ENXIO || error == ENODEV) return refused("not a regular file");
    return systemFailure("open", error);
  }
  if (fstat(fd.get(), &st) != 0) return systemFailure("fstat", errno);
  Outcome checked = scope.checkSegment(st);
  if (!checked.ok()) return checked;
  // Mapping beyond the end of the file would fault on first access.
  if (static_cast<std::uintmax_t>(st.st_size) < size) {
    return {Problem::TooSmall, "size " + std::to_string(st.st_size) + " is smaller than " + std::to_string(size)};
  }
  return {};
}

Outcome findSegment(const Scope& scope, int folder, const std::string& name, std::size_t size, Opened& opened) {
  UniqueFd fd;
  struct stat st {};
  Outcome found = openSegment(scope, folder, name, size, fd, st);
  if (!found.ok()) return found;
  opened.device = st.st_dev;
  opened.inode = st.st_ino;
  return mapSegment(fd.get(), size, opened);
}

// Where the file system cannot make unnamed files, the segment is made under
// its name with mode 0, so that nobody but root opens it before its owner,
// group and mode are set, and sized last, so a reader that sees the full
// size sees a finished segment.
Outcome createSegment(const Scope& scope, int folder, const std::string& name, std::size_t size, Opened& opened) {
  // Nobody can open the file before it is linked, so it may be made with
  // its final mode at once (less what the umask removes).
  const int tmpFd = openat(folder, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, scope.segmentMode);
  if (tmpFd >= 0) return createUnnamedThenLink(scope, tmpFd, folder, name, size, opened);
  if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) return systemFailure("open", errno);

  UniqueFd fd(openat(folder, name.c_str(), segmentOpenFlags | O_CREAT | O_EXCL, mode_t{0}));
  if (!fd.valid()) {
    const int error = errno;
    if (error == EEXIST) return {Problem::Exists, "exists already"};
    return systemFailure("open", error);
  }
  const bool claimed = claimCreation(fd.get());
  struct stat st {};
  if (fstat(fd.get(), &st) != 0) {
    // Without the identity of the file its name cannot be removed safely.
    return systemFailure("fstat", errno);
  }
  Outcome setUp = setUpSegment(scope, fd.get(), st, size, opened);
  if (!setUp.ok()) {
    removeIfSame(folder, name, st.st_dev, st.st_ino);
    return setUp;
  }
  opened.device = st.st_dev;
  opened.inode = st.st_ino;
  opened.created = true;
  if (claimed) opened.creationClaim = fd.release();
  return {};
}

Outcome createOrFindSegment(const Scope& scope, int folder, const std::string& name, std::size_t size, Opened& opened) {
  const auto deadline = std::chrono::steady_clock::now() + createOrFindPatience;
  for (int attempt = 1;; ++attempt) {
    Outcome found = findSegment(scope, folder, name, size, opened);
    if (found.ok()) return found;
    if (found.problem == Problem::NotFound) {
      Outcome created = createSegment(scope, folder, name, size, opened);
      // Exists: another process created it in between; find it next round.
      if (created.problem != Problem::Exists) return created;
      found = std::move(created);
    } else if (found.problem == Problem::TooSmall) {
      if (!mayStillGrow(folder, name)) return found;
    } else if (!(found.problem == Problem::AccessDenied && beingCreated(folder, name, size))) {
      return found;
    }
    if (attempt >= createOrFindAttempts || std::chrono::steady_clock::now() > deadline) return found;
    sched_yield();
  }
}

}  // namespace agent::spf::sharedmemory::detail
