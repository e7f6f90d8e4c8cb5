#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <utility>

#include "agent/spf/sharedmemory/shared_memory.hpp"
#include "diagnostic.hpp"
#include "folder_cache.hpp"
#include "scope.hpp"
#include "segment_files.hpp"

namespace agent::spf::sharedmemory {

using detail::logFailure;
using detail::Outcome;
using detail::Scope;
using detail::UniqueFd;

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

std::optional<ScopeFolder::Stamp> ScopeFolder::stamp() const noexcept {
  if (!impl_) return std::nullopt;
  struct stat st {};
  if (fstat(impl_->folder->get(), &st) != 0) return std::nullopt;
  return Stamp{st.st_dev, st.st_ino, st.st_mtim.tv_sec, st.st_mtim.tv_nsec, st.st_size};
}

std::vector<std::string> ScopeFolder::segmentNames(const std::string& prefix, bool* complete) const {
  std::vector<std::string> names;
  if (complete != nullptr) *complete = false;
  if (!impl_) return names;
  try {
    names = detail::segmentNamesIn(impl_->folder->get(), impl_->scope.path, prefix, complete);
  } catch (...) {
    // Only memory for names and texts can run out here.
    names.clear();
  }
  return names;
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
    Outcome outcome = detail::checkArguments(name, size);
    if (outcome.ok() && !opened.isOpen()) outcome = detail::shareScopeFolder(local.scope, false, local.folder);
    UniqueFd fd;
    struct stat st {};
    if (outcome.ok()) outcome = detail::openSegment(in.scope, in.folder->get(), name, size, fd, st);
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

SegmentView SegmentReader::view(std::size_t size) const noexcept {
  if (fd_ < 0 || size == 0) return SegmentView();
  void* address = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd_, 0);
  if (address == MAP_FAILED) return SegmentView();
  if (madvise(address, size, MADV_DONTFORK) != 0) {
    munmap(address, size);
    return SegmentView();
  }
  return SegmentView(address, size);
}

namespace {

std::atomic<std::uint64_t> forks{0};

// Counts the forks from the library's loading on.
[[maybe_unused]] const bool forksCounted = [] {
  return pthread_atfork(nullptr, nullptr, [] { forks.fetch_add(1, std::memory_order_relaxed); }) == 0;
}();

}  // namespace

std::uint64_t forkGeneration() noexcept { return forks.load(std::memory_order_relaxed); }

SegmentView::SegmentView(SegmentView&& other) noexcept
    : address_(std::exchange(other.address_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      generation_(other.generation_) {}

SegmentView& SegmentView::operator=(SegmentView&& other) noexcept {
  if (this != &other) {
    // A view made before a fork is not mapped in the child, whose own
    // mappings may lie at its addresses by now.
    if (isMapped()) munmap(address_, size_);
    address_ = std::exchange(other.address_, nullptr);
    size_ = std::exchange(other.size_, 0);
    generation_ = other.generation_;
  }
  return *this;
}

SegmentView::~SegmentView() {
  if (isMapped()) munmap(address_, size_);
}

}  // namespace agent::spf::sharedmemory
