#include "agent/spf/sharedmemory/shared_memory.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "diagnostic.hpp"
#include "folder_cache.hpp"
#include "mapping_cache.hpp"
#include "scope.hpp"
#include "segment_files.hpp"

namespace agent::spf::sharedmemory {

using detail::checkArguments;
using detail::createOrFindSegment;
using detail::createSegment;
using detail::findSegment;
using detail::logFailure;
using detail::logHandleFailure;
using detail::Opened;
using detail::Outcome;
using detail::Problem;
using detail::Scope;
using detail::UniqueFd;

enum class SharedMemory::OpenMode : unsigned char { Create, Find, CreateOrFind };

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

void SharedMemory::touch() const noexcept {
  if (!isAttached()) return;
  try {
    if (const detail::SharedFolder trusted = detail::trustedScopeFolder(scopePath_)) {
      (void)utimensat(trusted->get(), name_.c_str(), nullptr, AT_SYMLINK_NOFOLLOW);
    } else {
      (void)utimensat(AT_FDCWD, (scopePath_ + "/" + name_).c_str(), nullptr, AT_SYMLINK_NOFOLLOW);
    }
  } catch (...) {
    // No memory for the path: nobody hears of it.
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

}  // namespace agent::spf::sharedmemory
