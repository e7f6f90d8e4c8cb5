// Scope folders: where the segments of one trustee live, and what the folder
// and its segments must look like before this library touches them.
//
// The empty trustee's scope is /dev/shm/u<euid> (owner euid, mode 0700,
// segments owner euid and at most 0600). A group G's scope is /dev/shm/g<gid>
// (group G, mode 2770, segments group G and at most 0660): setgid so that new
// entries belong to G, not sticky so that any member may remove a stale
// segment another member made.
//
// Everything here returns an Outcome instead of throwing; the caller decides
// whether and how to log it.
//
// Thread safety: all functions may be called from any thread.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <string>
#include <utility>
#include <vector>

namespace agent::spf::sharedmemory::detail {

// Why an operation did not succeed. Every value but None and SystemError is a
// refusal or an absence (logged at 256); SystemError is logged at 512.
enum class Problem {
  None,
  NotFound,      // no such segment
  ScopeMissing,  // no scope folder yet
  Exists,        // create: the name is taken
  TooSmall,      // smaller than the size asked for (perhaps still being sized)
  AccessDenied,  // the system refused access (EACCES, EPERM)
  Refused,       // of the wrong kind, owner, group or mode; bad name or trustee
  SystemError,   // a system call failed unexpectedly
};

struct Outcome {
  Problem problem = Problem::None;
  std::string reason;  // ends the log line, e.g. "not found"

  bool ok() const noexcept { return problem == Problem::None; }
  unsigned logLevel() const noexcept { return problem == Problem::SystemError ? 512u : 256u; }
};

// "<what> failed: <strerror> (Error <n>)"; SystemError, or AccessDenied for
// EACCES and EPERM.
Outcome systemFailure(const char* what, int error);

// A refusal for `reason` (a segment or folder of the wrong kind, owner,
// group or mode; a bad name or trustee).
inline Outcome refused(std::string reason) { return {Problem::Refused, std::move(reason)}; }

// A file descriptor closed on destruction.
class UniqueFd {
 public:
  UniqueFd() noexcept = default;
  explicit UniqueFd(int fd) noexcept : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  UniqueFd& operator=(UniqueFd&& other) noexcept;
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const noexcept { return fd_; }
  bool valid() const noexcept { return fd_ >= 0; }
  void reset(int fd = -1) noexcept;
  // Gives up ownership: the descriptor is returned, not closed.
  int release() noexcept {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_ = -1;
};

// What one trustee's scope requires.
struct Scope {
  std::string path;  // "/dev/shm/u<euid>" or "/dev/shm/g<gid>", without a trailing '/'
  bool groupScope = false;
  uid_t owner = 0;  // u-scope: folder and segments are owned by it
  gid_t group = 0;  // g-scope: folder and segments belong to it
  mode_t folderMode = 0;
  mode_t segmentMode = 0;  // the mode given to new segments; found ones may have fewer bits

  // Refused (with the reason) unless `st` describes an acceptable segment:
  // a regular file of the right owner or group without extra mode bits.
  Outcome checkSegment(const struct stat& st) const;
  // Refused unless `st` describes an acceptable scope folder.
  Outcome checkFolder(const struct stat& st) const;
};

// The scope of `trustee`: the empty trustee or the name of a group (looked up
// with getgrnam_r; the result is remembered for a short while). Refused when
// the trustee is no known group.
Outcome resolveScope(const std::string& trustee, Scope& scope);

// Opens the scope folder (O_PATH, never following a link) and checks what was
// opened. When the folder is missing and `createIfMissing` is set, makes it
// with the scope's owner, group and mode; a folder another process is making
// at the same moment is waited for a bounded number of times. ScopeMissing
// when it is missing and not to be made.
Outcome openScopeFolder(const Scope& scope, bool createIfMissing, UniqueFd& folder);

// The names in the open scope folder at `path` that begin with `prefix`:
// every regular file (or entry of unknown kind), as the folder gives them.
// A failure to read the folder is logged and gives none, and *complete (if
// given) is set only for a whole answer. Throws std::bad_alloc.
std::vector<std::string> segmentNamesIn(int folder, const std::string& path, const std::string& prefix, bool* complete);

// Removes `name` from the folder only if it still names the file (device,
// inode); a name that is gone or names another file is left alone (None).
Outcome removeIfSame(int folder, const std::string& name, dev_t device, ino_t inode);

}  // namespace agent::spf::sharedmemory::detail
