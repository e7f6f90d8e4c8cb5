// Looking at one trustee's scope folder by name: the segments it holds,
// whether one is there, who claims it, and removing one that nobody claims.
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdint>

#include "agent/spf/sharedmemory/shared_memory.hpp"
#include "diagnostic.hpp"
#include "scope.hpp"

namespace agent::spf::sharedmemory {

using detail::Outcome;
using detail::Problem;
using detail::Scope;
using detail::UniqueFd;

namespace {

void logListingFailure(const std::string& where, const Outcome& outcome) {
  detail::logLine(outcome.logLevel(), "listSegmentNames: ", where, ": ", outcome.reason);
}

// Appends the names in the open scope folder that begin with `prefix` to
// `names`: every regular file (or entry of unknown kind), as the folder
// gives them.
Outcome readNames(int folder, const std::string& prefix, std::vector<std::string>& names) {
  // The scope folder is held as an O_PATH descriptor; reading it needs a
  // descriptor of its own.
  const int readable = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (readable < 0) return detail::systemFailure("open", errno);
  DIR* stream = fdopendir(readable);  // owns the descriptor from here on
  if (stream == nullptr) {
    const int error = errno;
    close(readable);
    return detail::systemFailure("fdopendir", error);
  }
  Outcome outcome;
  for (;;) {
    errno = 0;
    const dirent* entry = readdir(stream);
    if (entry == nullptr) {
      if (errno != 0) outcome = detail::systemFailure("readdir", errno);
      break;
    }
    if (entry->d_type != DT_REG && entry->d_type != DT_UNKNOWN) continue;
    const std::string name = entry->d_name;
    if (name.compare(0, prefix.size(), prefix) == 0) names.push_back(name);
  }
  closedir(stream);
  return outcome;
}

}  // namespace

std::vector<std::string> detail::segmentNamesIn(int folder, const std::string& path, const std::string& prefix,
                                                bool* complete) {
  std::vector<std::string> names;
  const Outcome outcome = readNames(folder, prefix, names);
  if (!outcome.ok()) {
    logListingFailure(path, outcome);
    names.clear();
  } else if (complete != nullptr) {
    *complete = true;
  }
  return names;
}

std::vector<std::string> listSegmentNames(const std::string& trustee, const std::string& prefix, bool* complete) {
  std::vector<std::string> names;
  if (complete != nullptr) *complete = false;
  try {
    Scope scope;
    Outcome outcome = detail::resolveScope(trustee, scope);
    if (!outcome.ok()) {
      logListingFailure("trustee \"" + trustee + "\"", outcome);
      return names;
    }
    UniqueFd folder;
    outcome = detail::openScopeFolder(scope, false, folder);
    if (outcome.problem == Problem::ScopeMissing) {
      if (complete != nullptr) *complete = true;
      return names;
    }
    if (!outcome.ok()) {
      logListingFailure(scope.path, outcome);
      return names;
    }
    names = detail::segmentNamesIn(folder.get(), scope.path, prefix, complete);
  } catch (...) {
    // Only memory for names and texts can run out here.
    names.clear();
  }
  return names;
}

namespace {

bool validName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.size() <= NAME_MAX &&
         name.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

// Opens the trustee's segment `name` for reading, whatever its size, if it
// passes the scope's checks of kind, owner, group and mode.
bool openForClaim(const std::string& trustee, const std::string& name, UniqueFd& folder, UniqueFd& segment,
                  struct stat& st) {
  if (!validName(name)) return false;
  Scope scope;
  if (!detail::resolveScope(trustee, scope).ok()) return false;
  if (!detail::openScopeFolder(scope, false, folder).ok()) return false;
  segment.reset(openat(folder.get(), name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  return segment.valid() && fstat(segment.get(), &st) == 0 && scope.checkSegment(st).ok();
}

bool lockRefused(int fd, int operation) { return flock(fd, operation | LOCK_NB) != 0 && errno == EWOULDBLOCK; }

}  // namespace

SegmentPresence segmentPresence(const std::string& trustee, const std::string& name) noexcept {
  try {
    if (!validName(name)) return SegmentPresence::Unknown;
    Scope scope;
    if (!detail::resolveScope(trustee, scope).ok()) return SegmentPresence::Unknown;
    UniqueFd folder;
    if (!detail::openScopeFolder(scope, false, folder).ok()) return SegmentPresence::Unknown;
    struct stat st {};
    if (fstatat(folder.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) return SegmentPresence::Present;
    return errno == ENOENT ? SegmentPresence::Absent : SegmentPresence::Unknown;
  } catch (...) {
    return SegmentPresence::Unknown;
  }
}

SegmentClaim segmentClaim(const std::string& trustee, const std::string& name) noexcept {
  try {
    UniqueFd folder;
    UniqueFd segment;
    struct stat st {};
    if (!openForClaim(trustee, name, folder, segment, st)) return SegmentClaim::Unknown;
    if (lockRefused(segment.get(), LOCK_SH)) return SegmentClaim::Creating;
    flock(segment.get(), LOCK_UN);
    return lockRefused(segment.get(), LOCK_EX) ? SegmentClaim::Held : SegmentClaim::Unclaimed;
  } catch (...) {
    return SegmentClaim::Unknown;
  }
}

bool removeUnclaimedSegment(const std::string& trustee, const std::string& name, std::size_t smallerThan) noexcept {
  try {
    UniqueFd folder;
    UniqueFd segment;
    struct stat st {};
    if (!openForClaim(trustee, name, folder, segment, st)) return false;
    if (static_cast<std::uintmax_t>(st.st_size) >= smallerThan) return false;
    // Held while the name goes, so that no creator can claim the file in
    // between (a creator claims before the name appears).
    if (flock(segment.get(), LOCK_EX | LOCK_NB) != 0) return false;
    struct stat named {};
    if (fstatat(folder.get(), name.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0) return false;
    if (named.st_dev != st.st_dev || named.st_ino != st.st_ino) return false;
    return unlinkat(folder.get(), name.c_str(), 0) == 0;
  } catch (...) {
    return false;
  }
}

}  // namespace agent::spf::sharedmemory
