#include "agent/spf/sharedmemory/shared_memory.hpp"

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <utility>

#include "diagnostic.hpp"
#include "folder_cache.hpp"
#include "mapping_cache.hpp"
#include "scope.hpp"

namespace agent::spf::sharedmemory {

using detail::Outcome;
using detail::Problem;
using detail::Scope;
using detail::UniqueFd;

enum class SharedMemory::OpenMode : unsigned char { Create, Find, CreateOrFind };

namespace detail {

namespace {
const char* const channelName = "agent::spf::sharedmemory";
}  // namespace

DiagnosticLogger& logger() {
  static DiagnosticLogger channel(channelName);
  return channel;
}

const foundation::log::channel_levels& levels() {
  static const foundation::log::channel_levels channel(channelName);
  return channel;
}

}  // namespace detail

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

// What a successful open hands to the handle.
struct Opened {
  void* address = nullptr;
  dev_t device = 0;
  ino_t inode = 0;
  bool created = false;
  int creationClaim = -1;  // created: the descriptor that holds the claim
};

// Claims a file that this process is creating: an exclusive lock on it,
// which isBeingCreated() looks for, held by the descriptor that the handle
// keeps until endCreation(). Taken before anybody else can open the file. A
// file system without such locks leaves the segment unclaimed, and readers
// judge it without the claim.
bool claimCreation(int fd) { return flock(fd, LOCK_EX | LOCK_NB) == 0; }

Outcome refused(std::string reason) { return {Problem::Refused, std::move(reason)}; }

Outcome checkArguments(const std::string& name, std::size_t size) {
  if (name.empty() || name == "." || name == ".." || name.size() > NAME_MAX ||
      name.find_first_of(std::string("/\0", 2)) != std::string::npos) {
    return refused("invalid name");
  }
  if (size == 0) return refused("size 0 is not allowed");
  if (size > static_cast<std::size_t>(PTRDIFF_MAX)) return refused("size " + std::to_string(size) + " is too large");
  return {};
}

// The name as it may appear in a log line: control bytes escaped, cut short
// when longer than a name may be.
std::string printable(const std::string& name) {
  std::string text;
  const std::size_t shown = name.size() > NAME_MAX ? NAME_MAX : name.size();
  for (std::size_t i = 0; i < shown; ++i) {
    const auto byte = static_cast<unsigned char>(name[i]);
    if (byte < 0x20 || byte == 0x7f || byte == '\\') {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(byte));
      text += escaped;
    } else {
      text += static_cast<char>(byte);
    }
  }
  if (shown < name.size()) text += "...";
  return text;
}

void logFailure(const char* operation, const Scope& scope, bool scopeKnown, const std::string& name,
                const std::string& trustee, const Outcome& outcome) {
  if (!detail::logEnabled(outcome.logLevel())) return;
  if (scopeKnown) {
    detail::logMessage(outcome.logLevel(), operation, ": ", scope.path, "/", printable(name), ": ", outcome.reason);
  } else {
    detail::logMessage(outcome.logLevel(), operation, ": \"", printable(name), "\" of trustee \"", printable(trustee),
                       "\": ", outcome.reason);
  }
}

// Logs a failure of a handle's own operation (release, markForDeletion).
void logHandleFailure(const char* operation, const std::string& scopePath, const std::string& name,
                      const Outcome& outcome) noexcept {
  if (!detail::logEnabled(outcome.logLevel())) return;
  try {
    detail::logMessage(outcome.logLevel(), operation, ": ", scopePath, "/", printable(name), ": ", outcome.reason);
  } catch (...) {
    // No memory for the text; the line is dropped.
  }
}

Outcome mapSegment(int fd, std::size_t size, Opened& opened) {
  void* address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (address == MAP_FAILED) return detail::systemFailure("mmap", errno);
  opened.address = address;
  return {};
}

// Opens an existing segment of at least `size` bytes and checks it.
Outcome openSegment(const Scope& scope, int folder, const std::string& name, std::size_t size, UniqueFd& fd,
                    struct stat& st) {
  fd.reset(openat(folder, name.c_str(), segmentOpenFlags));
  if (!fd.valid()) {
    const int error = errno;
    if (error == ENOENT) return {Problem::NotFound, "not found"};
    if (error == ELOOP) return refused("is a symbolic link");
    if (error == EISDIR || error == ENXIO || error == ENODEV) return refused("not a regular file");
    return detail::systemFailure("open", error);
  }
  if (fstat(fd.get(), &st) != 0) return detail::systemFailure("fstat", errno);
  Outcome checked = scope.checkSegment(st);
  if (!checked.ok()) return checked;
  // Mapping beyond the end of the file would fault on first access.
  if (static_cast<std::uintmax_t>(st.st_size) < size) {
    return {Problem::TooSmall, "size " + std::to_string(st.st_size) + " is smaller than " + std::to_string(size)};
  }
  return {};
}

// Opens an existing segment and maps `size` bytes of it.
Outcome findSegment(const Scope& scope, int folder, const std::string& name, std::size_t size, Opened& opened) {
  UniqueFd fd;
  struct stat st {};
  Outcome found = openSegment(scope, folder, name, size, fd, st);
  if (!found.ok()) return found;
  opened.device = st.st_dev;
  opened.inode = st.st_ino;
  return mapSegment(fd.get(), size, opened);
}

// Gives a new segment file (described by `st`) its owner, group, mode and
// size, and maps it. Owner, group and mode are set only where they differ.
Outcome setUpSegment(const Scope& scope, int fd, const struct stat& st, std::size_t size, Opened& opened) {
  const bool ownerRight = scope.groupScope ? st.st_gid == scope.group : st.st_uid == scope.owner;
  if (!ownerRight) {
    const uid_t owner = scope.groupScope ? static_cast<uid_t>(-1) : scope.owner;
    const gid_t group = scope.groupScope ? scope.group : static_cast<gid_t>(-1);
    if (fchown(fd, owner, group) != 0) return detail::systemFailure("fchown", errno);
  }
  // A change of owner or group may clear the set-id bits; the mode is set
  // after it.
  if (!ownerRight || (st.st_mode & 07777) != scope.segmentMode) {
    if (fchmod(fd, scope.segmentMode) != 0) return detail::systemFailure("fchmod", errno);
  }
  if (ftruncate(fd, static_cast<off_t>(size)) != 0) return detail::systemFailure("ftruncate", errno);
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
  if (fstat(fd.get(), &st) != 0) return detail::systemFailure("fstat", errno);
  Outcome setUp = setUpSegment(scope, fd.get(), st, size, opened);
  if (!setUp.ok()) return setUp;
  // Claimed before the name appears, so that no reader sees it unclaimed.
  const bool claimed = claimCreation(fd.get());
  const int error = linkUnnamed(fd.get(), folder, name);
  if (error != 0) {
    munmap(opened.address, size);
    opened.address = nullptr;
    if (error == EEXIST) return {Problem::Exists, "exists already"};
    return detail::systemFailure("linkat", error);
  }
  opened.device = st.st_dev;
  opened.inode = st.st_ino;
  opened.created = true;
  if (claimed) opened.creationClaim = fd.release();
  return {};
}

// Creates the segment exclusively (see createUnnamedThenLink). Where the file
// system cannot make unnamed files, the segment is made under its name with
// mode 0, so that nobody but root opens it before its owner, group and mode
// are set, and sized last, so a reader that sees the full size sees a
// finished segment.
Outcome createSegment(const Scope& scope, int folder, const std::string& name, std::size_t size, Opened& opened) {
  // Nobody can open the file before it is linked, so it may be made with
  // its final mode at once (less what the umask removes).
  const int tmpFd = openat(folder, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, scope.segmentMode);
  if (tmpFd >= 0) return createUnnamedThenLink(scope, tmpFd, folder, name, size, opened);
  if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) return detail::systemFailure("open", errno);

  UniqueFd fd(openat(folder, name.c_str(), segmentOpenFlags | O_CREAT | O_EXCL, mode_t{0}));
  if (!fd.valid()) {
    const int error = errno;
    if (error == EEXIST) return {Problem::Exists, "exists already"};
    return detail::systemFailure("open", error);
  }
  const bool claimed = claimCreation(fd.get());
  struct stat st {};
  if (fstat(fd.get(), &st) != 0) {
    // Without the identity of the file its name cannot be removed safely.
    return detail::systemFailure("fstat", errno);
  }
  Outcome setUp = setUpSegment(scope, fd.get(), st, size, opened);
  if (!setUp.ok()) {
    detail::removeIfSame(folder, name, st.st_dev, st.st_ino);
    return setUp;
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

}  // namespace

SharedMemory SharedMemory::create(const std::string& name, std::size_t size, const std::string& trustee,
                                  ImplementationSpecifications) {
  return attach(OpenMode::Create, name, size, trustee);
}

SharedMemory SharedMemory::find(const std::string& name, std::size_t size, const std::string& trustee,
                                ImplementationSpecifications) {
  return attach(OpenMode::Find, name, size, trustee);
}

SharedMemory SharedMemory::createOrFind(const std::string& name, std::size_t size, const std::string& trustee,
                                        ImplementationSpecifications) {
  return attach(OpenMode::CreateOrFind, name, size, trustee);
}

SharedMemory SharedMemory::attach(OpenMode mode, const std::string& name, std::size_t size,
                                  const std::string& trustee) {
  const char* operation = mode == OpenMode::Create ? "create" : mode == OpenMode::Find ? "find" : "createOrFind";
  SharedMemory handle;
  try {
    Scope scope;
    Outcome outcome = detail::resolveScope(trustee, scope);
    if (!outcome.ok()) {
      logFailure(operation, scope, false, name, trustee, outcome);
      return handle;
    }
    outcome = checkArguments(name, size);
    if (!outcome.ok()) {
      logFailure(operation, scope, true, name, trustee, outcome);
      return handle;
    }
    // The handle's names are set before it owns a mapping, so that a failure
    // to copy them leaves nothing behind.
    handle.name_ = name;
    handle.trustee_ = trustee;
    handle.scopePath_ = scope.path;
    detail::CachedMapping kept;
    if (mode != OpenMode::Create && detail::reuseMapping(scope, name, size, kept)) {
      handle.address_ = kept.address;
      handle.size_ = size;
      handle.device_ = kept.device;
      handle.inode_ = kept.inode;
      return handle;
    }
    detail::SharedFolder folder;
    outcome = detail::shareScopeFolder(scope, mode != OpenMode::Find, folder);
    Opened opened;
    if (outcome.ok()) {
      if (mode == OpenMode::Create) {
        outcome = createSegment(scope, folder->get(), name, size, opened);
      } else if (mode == OpenMode::Find) {
        outcome = findSegment(scope, folder->get(), name, size, opened);
      } else {
        outcome = createOrFindSegment(scope, folder->get(), name, size, opened);
      }
    }
    if (!outcome.ok()) {
      logFailure(operation, scope, true, name, trustee, outcome);
      return SharedMemory();
    }
    handle.address_ = opened.address;
    handle.size_ = size;
    handle.creationClaim_ = opened.creationClaim;
    handle.creator_ = opened.created;
    handle.creatorPid_ = opened.created ? getpid() : 0;
    handle.device_ = opened.device;
    handle.inode_ = opened.inode;
    // Found segments are opened again and again (a directory by each of its
    // operations); created ones are mostly a publisher's own, opened once.
    if (mode != OpenMode::Create) {
      detail::adoptMapping(scope, name, size, detail::CachedMapping{opened.address, opened.device, opened.inode});
    }
  } catch (...) {
    // Only memory for texts can run out here, before anything is mapped.
    return SharedMemory();
  }
  return handle;
}

SharedMemory::SharedMemory(SharedMemory&& other) noexcept
    : address_(std::exchange(other.address_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      creator_(std::exchange(other.creator_, false)),
      keepName_(std::exchange(other.keepName_, false)),
      creationClaim_(std::exchange(other.creationClaim_, -1)),
      creatorPid_(std::exchange(other.creatorPid_, 0)),
      device_(std::exchange(other.device_, 0)),
      inode_(std::exchange(other.inode_, 0)),
      name_(std::move(other.name_)),
      trustee_(std::move(other.trustee_)),
      scopePath_(std::move(other.scopePath_)) {
  other.name_.clear();
  other.trustee_.clear();
  other.scopePath_.clear();
}

SharedMemory& SharedMemory::operator=(SharedMemory&& other) noexcept {
  if (this == &other) return *this;
  release();
  address_ = std::exchange(other.address_, nullptr);
  size_ = std::exchange(other.size_, 0);
  creator_ = std::exchange(other.creator_, false);
  keepName_ = std::exchange(other.keepName_, false);
  creationClaim_ = std::exchange(other.creationClaim_, -1);
  creatorPid_ = std::exchange(other.creatorPid_, 0);
  device_ = std::exchange(other.device_, 0);
  inode_ = std::exchange(other.inode_, 0);
  name_.swap(other.name_);
  trustee_.swap(other.trustee_);
  scopePath_.swap(other.scopePath_);
  return *this;
}

SharedMemory::~SharedMemory() { release(); }

void SharedMemory::makePersistent() noexcept {
  if (isAttached()) keepName_ = true;
}

void SharedMemory::markForDeletion() noexcept {
  if (!isAttached()) return;
  detail::forgetMapping(address_);
  removeName("markForDeletion");
  keepName_ = true;
}

void SharedMemory::endCreation() noexcept {
  if (creationClaim_ < 0) return;
  // The mapping holds the file open as well, so the claim outlives the
  // descriptor: it is turned shared here (only by the creating process; a
  // forked child's copy shares the parent's lock), and goes when the mapping
  // is released or the creator dies.
  if (creatorPid_ == getpid()) flock(creationClaim_, LOCK_SH);
  ::close(creationClaim_);
  creationClaim_ = -1;
}

namespace {

// Tries the lock `operation` (LOCK_SH or LOCK_EX, not blocking) on the file
// that `fd` opened: true when it is refused, that is, when a conflicting
// claim is held. One that is granted goes with the descriptor.
bool lockRefused(int fd, int operation) noexcept { return flock(fd, operation | LOCK_NB) != 0 && errno == EWOULDBLOCK; }

}  // namespace

bool SharedMemory::isBeingCreated() const noexcept { return claimRefuses(LOCK_SH); }

bool SharedMemory::isClaimed() const noexcept { return claimRefuses(LOCK_EX); }

bool SharedMemory::claimRefuses(int operation) const noexcept {
  if (!isAttached()) return false;
  try {
    UniqueFd own;
    int folder = -1;
    const detail::SharedFolder trusted = detail::trustedScopeFolder(scopePath_);
    if (trusted) {
      folder = trusted->get();
    } else {
      own.reset(::open(scopePath_.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      folder = own.get();
    }
    if (folder < 0) return false;
    const UniqueFd fd(openat(folder, name_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    struct stat st {};
    if (!fd.valid() || fstat(fd.get(), &st) != 0 || st.st_dev != device_ || st.st_ino != inode_) return false;
    return lockRefused(fd.get(), operation);
  } catch (...) {
    return false;
  }
}

SharedMemory::NameState SharedMemory::nameState() const noexcept {
  if (!isAttached()) return NameState::Unknown;
  try {
    struct stat st {};
    const int result = fstatat(AT_FDCWD, (scopePath_ + "/" + name_).c_str(), &st, AT_SYMLINK_NOFOLLOW);
    if (result != 0) return errno == ENOENT || errno == ENOTDIR ? NameState::Missing : NameState::Unknown;
    if (st.st_dev != device_ || st.st_ino != inode_) return NameState::Other;
    return static_cast<std::uintmax_t>(st.st_size) < size_ ? NameState::Short : NameState::Same;
  } catch (...) {
    return NameState::Unknown;
  }
}

std::string scopeFolderPath(const std::string& trustee) {
  Scope scope;
  return detail::resolveScope(trustee, scope).ok() ? scope.path : std::string();
}

void SharedMemory::release() noexcept {
  endCreation();
  if (address_ != nullptr) {
    const bool removesName = creator_ && !keepName_ && creatorPid_ == getpid();
    if (removesName) detail::forgetMapping(address_);
    if (!detail::releaseMapping(address_) && munmap(address_, size_) != 0) {
      const int error = errno;
      try {
        logHandleFailure("release", scopePath_, name_, detail::systemFailure("munmap", error));
      } catch (...) {
        // No memory for the text; the line is dropped.
      }
    }
    if (removesName) removeName("release");
  }
  address_ = nullptr;
  size_ = 0;
  creator_ = false;
  keepName_ = false;
  creatorPid_ = 0;
  device_ = 0;
  inode_ = 0;
  name_.clear();
  trustee_.clear();
  scopePath_.clear();
}

void SharedMemory::removeName(const char* operation) noexcept {
  try {
    Outcome outcome;
    if (const detail::SharedFolder trusted = detail::trustedScopeFolder(scopePath_)) {
      outcome = detail::removeIfSame(trusted->get(), name_, device_, inode_);
    } else if (UniqueFd folder(::open(scopePath_.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
               folder.valid()) {
      outcome = detail::removeIfSame(folder.get(), name_, device_, inode_);
    } else if (errno != ENOENT) {
      outcome = detail::systemFailure("open of the scope folder", errno);
    }
    if (!outcome.ok()) logHandleFailure(operation, scopePath_, name_, outcome);
  } catch (...) {
    // Only the text of a failure can run out of memory; the line is dropped.
  }
}

struct ScopeFolder::Impl {
  Scope scope;
  detail::SharedFolder folder;
};

ScopeFolder ScopeFolder::open(const std::string& trustee) {
  ScopeFolder opened;
  try {
    auto impl = std::make_shared<Impl>();
    if (!detail::resolveScope(trustee, impl->scope).ok()) return opened;
    if (!detail::shareScopeFolder(impl->scope, false, impl->folder).ok()) return opened;
    opened.impl_ = std::move(impl);
  } catch (...) {
    // No memory: unopened.
  }
  return opened;
}

SegmentReader SegmentReader::open(const std::string& name, std::size_t size, const std::string& trustee,
                                  SharedMemory::ImplementationSpecifications implementation) {
  return open(ScopeFolder(), name, size, trustee, implementation);
}

SegmentReader SegmentReader::open(const ScopeFolder& opened, const std::string& name, std::size_t size,
                                  const std::string& trustee, SharedMemory::ImplementationSpecifications) {
  const char* operation = "find";
  try {
    // Without a folder opened beforehand, the steps of find(): scope, then
    // arguments, then folder.
    ScopeFolder::Impl local;
    const ScopeFolder::Impl& in = opened.isOpen() ? *opened.impl_ : local;
    if (!opened.isOpen()) {
      const Outcome resolved = detail::resolveScope(trustee, local.scope);
      if (!resolved.ok()) {
        logFailure(operation, local.scope, false, name, trustee, resolved);
        return SegmentReader();
      }
    }
    Outcome outcome = checkArguments(name, size);
    if (outcome.ok() && !opened.isOpen()) outcome = detail::shareScopeFolder(local.scope, false, local.folder);
    UniqueFd fd;
    struct stat st {};
    if (outcome.ok()) outcome = openSegment(in.scope, in.folder->get(), name, size, fd, st);
    if (!outcome.ok()) {
      logFailure(operation, in.scope, true, name, trustee, outcome);
      return SegmentReader();
    }
    return SegmentReader(fd.release());
  } catch (...) {
    // Only memory for texts can run out here.
    return SegmentReader();
  }
}

SegmentReader::SegmentReader(SegmentReader&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

SegmentReader& SegmentReader::operator=(SegmentReader&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

SegmentReader::~SegmentReader() {
  if (fd_ >= 0) ::close(fd_);
}

bool SegmentReader::read(std::size_t offset, void* buffer, std::size_t length) const noexcept {
  if (fd_ < 0 || offset > static_cast<std::size_t>(PTRDIFF_MAX)) return false;
  auto* out = static_cast<char*>(buffer);
  while (length > 0) {
    const ssize_t got = pread(fd_, out, length, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    out += got;
    offset += static_cast<std::size_t>(got);
    length -= static_cast<std::size_t>(got);
  }
  return true;
}

}  // namespace agent::spf::sharedmemory
