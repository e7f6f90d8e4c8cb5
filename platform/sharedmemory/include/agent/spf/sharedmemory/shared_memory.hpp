// Named shared-memory segments, scoped by trustee.
//
// A segment is identified by (name, trustee). The empty trustee's segments
// live in /dev/shm/u<euid>/ (folder 0700, segments 0600): private to the
// user. A group trustee G's segments live in /dev/shm/g<gid>/ (group G,
// folder 2770, segments 0660), so every member of G may open and remove
// them. Scope folders are created on first need; a folder or segment with
// the wrong owner or group, extra permission bits, or of the wrong kind is
// refused, never read or written.
//
// create(), find() and createOrFind() never throw and never crash: when the
// segment cannot be had (missing, existing already for create, smaller than
// the size asked for, refused, unknown trustee, bad name) they return an
// unattached handle and log one line on the channel
// "agent::spf::sharedmemory" (256: missing or refused, 512: system error).
// A new segment is zero-filled. It appears under its name only once it is
// complete (owner, group, mode and size set), so a creator that dies while
// creating it leaves nothing behind.
//
// A handle is move-only. Releasing it (destructor, move-assign over) unmaps
// the segment and, if this handle created it and neither makePersistent()
// nor markForDeletion() was called, removes its name. A copy inherited by a
// forked child never removes the name on release: the segment belongs to the
// parent.
//
// Claims. A created segment is claimed by its creator: exclusively from
// before its name appears until endCreation() ("being created"), then
// shared for as long as the creating handle keeps it mapped. A claim is a
// lock on the file that the mapping itself holds, so it costs no descriptor
// after endCreation(), and the system drops it when the creator releases the
// segment or dies: other processes ask isBeingCreated() and isClaimed(), or
// segmentClaim() by name, and need no process id, which means nothing in
// another pid namespace. (A forked child that keeps the creator's mapping
// keeps the claim.) No other file descriptor is kept open while a segment
// is mapped; the scope folders in use are kept open (one close-on-exec
// descriptor each).
//
// Thread safety: distinct handles may be used from any threads; one handle
// must not be used from two threads at once.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace agent::spf::sharedmemory {

class SharedMemory {
 public:
  // How segments are implemented. Only POSIX shared memory exists; it is value 0.
  enum class ImplementationSpecifications : unsigned { PosixSharedMemory = 0 };

  // An unattached handle.
  SharedMemory() noexcept = default;

  // Creates the segment exclusively, sized to exactly `size` zero bytes, and
  // maps it read-write. Unattached if it exists already or cannot be made.
  static SharedMemory create(const std::string& name, std::size_t size, const std::string& trustee,
                             ImplementationSpecifications implementation);

  // Opens an existing segment and maps its first `size` bytes read-write.
  // Unattached if it is missing, refused, or smaller than `size`.
  static SharedMemory find(const std::string& name, std::size_t size, const std::string& trustee,
                           ImplementationSpecifications implementation);

  // find(), else create(); race-free between processes (bounded retries).
  static SharedMemory createOrFind(const std::string& name, std::size_t size, const std::string& trustee,
                                   ImplementationSpecifications implementation);

  SharedMemory(SharedMemory&& other) noexcept;
  // Releases this handle's segment first, then takes the other's.
  SharedMemory& operator=(SharedMemory&& other) noexcept;
  SharedMemory(const SharedMemory&) = delete;
  SharedMemory& operator=(const SharedMemory&) = delete;
  ~SharedMemory();

  // Start of the mapping; null when unattached.
  void* getPointer() const noexcept { return address_; }
  // Number of bytes mapped; 0 when unattached.
  std::size_t getSize() const noexcept { return size_; }
  bool isAttached() const noexcept { return address_ != nullptr; }
  // True when this handle created the segment.
  bool isCreator() const noexcept { return creator_; }
  // The trustee the handle was opened with.
  std::string getTrustee() const { return trustee_; }

  // The segment outlives every process: releasing does not remove its name.
  void makePersistent() noexcept;
  // Removes the name now (if it still names this segment), also after
  // makePersistent(); mappings stay valid until released.
  void markForDeletion() noexcept;

  // Ends the creation: this creating handle's exclusive claim becomes the
  // shared one that lasts until the segment is released. No effect on a
  // handle that holds no claim.
  void endCreation() noexcept;
  // True while the segment's creator still claims it as being created
  // (between its create() and its endCreation()). False for an unattached
  // handle, for a segment whose name no longer names it, and when the answer
  // cannot be had.
  bool isBeingCreated() const noexcept;
  // True while any claim on the segment is held: its creator has neither
  // released it nor died. False as isBeingCreated() is.
  bool isClaimed() const noexcept;

  // What the segment's name names now, compared with this handle's segment.
  enum class NameState {
    Same,     // this segment, at least as long as mapped
    Short,    // this segment, cut shorter than mapped
    Other,    // another file
    Missing,  // nothing (or the scope folder is gone)
    Unknown,  // unattached, or the answer cannot be had
  };
  NameState nameState() const noexcept;

  // Sets the times of the file that the segment's name names to now, so
  // that inotify watchers of its scope folder hear of the segment
  // (IN_ATTRIB). Does nothing for an unattached handle or when the name
  // names nothing. Never blocks, never throws.
  void touch() const noexcept;

 private:
  enum class OpenMode : unsigned char;
  // The work of create(), find() and createOrFind(); logs any failure.
  static SharedMemory attach(OpenMode mode, const std::string& name, std::size_t size, const std::string& trustee);
  void release() noexcept;
  // Removes the name if it still names this handle's segment; `operation`
  // heads any log line.
  void removeName(const char* operation) noexcept;
  // True when a lock `operation` (LOCK_SH or LOCK_EX) on the segment is
  // refused to a descriptor of its own.
  bool claimRefuses(int operation) const noexcept;

  void* address_ = nullptr;
  std::size_t size_ = 0;
  bool creator_ = false;
  bool keepName_ = false;   // persistent, or the name was already removed
  int creationClaim_ = -1;  // a created segment's locked descriptor, until endCreation()
  pid_t creatorPid_ = 0;    // process that created the segment, if this handle did
  dev_t device_ = 0;
  ino_t inode_ = 0;
  std::string name_;
  std::string trustee_;
  std::string scopePath_;
};

// A trustee's scope folder, opened and checked once, for a reader that opens
// many segments in it one after another (a listing): each open then skips the
// check of the folder. It sees the folder as it was when it was opened; one
// replaced since is not noticed until the next ScopeFolder. Copies share the
// folder.
class ScopeFolder {
 public:
  ScopeFolder() noexcept = default;
  // Unopened, and not logged, when the trustee is unknown or its folder is
  // missing or refused: SegmentReader::open then reports it for each segment.
  static ScopeFolder open(const std::string& trustee);
  bool isOpen() const noexcept { return impl_ != nullptr; }

  // What the folder's own status says of its entries: which folder it is,
  // when an entry was last made or removed, and how many it has (tmpfs
  // counts its entries in a folder's size). Equal stamps mean no entry
  // came or went, save changes that the clock's tick could not tell apart.
  struct Stamp {
    unsigned long long device = 0;
    unsigned long long inode = 0;
    long long seconds = 0;
    long nanoseconds = 0;
    long long size = 0;
    bool operator==(const Stamp&) const = default;
  };
  // The stamp now; empty when the folder is not open or its status cannot
  // be had. One system call.
  std::optional<Stamp> stamp() const noexcept;

  // The names of the folder's segments that begin with `prefix`, read from
  // this open folder, as listSegmentNames() reads them from the trustee's
  // (same answer, log and `complete`); an unopened folder has none, and its
  // answer is not whole. Never throws.
  std::vector<std::string> segmentNames(const std::string& prefix, bool* complete = nullptr) const;

 private:
  friend class SegmentReader;
  struct Impl;
  std::shared_ptr<const Impl> impl_;
};

// One operation made of several segment calls on this thread (a
// publication, a listing). Every call checks that its scope folder is still
// the one at the scope's path, a stat of the folder's descriptor and one of
// its path; while an object of this class lives on the thread, a folder that
// the thread has found in place is trusted for the rest of the operation
// instead. A folder replaced meanwhile is noticed by the next operation.
// Nests; for the calling thread only.
class FolderTrust {
 public:
  FolderTrust() noexcept;
  ~FolderTrust();
  FolderTrust(const FolderTrust&) = delete;
  FolderTrust& operator=(const FolderTrust&) = delete;
};

// How many forks this process came out of (counted in each child by a fork
// handler): a view made under another count was not inherited.
std::uint64_t forkGeneration() noexcept;

// A read-only mapping of a segment that outlives the reader that made it
// (SegmentReader::view): for a caller that reads the same segment again and
// again and wants no system call for it. It sees the segment's bytes as
// they are at each access, also after the segment's name was removed or
// given to another segment (the view keeps the old one). Read it only under
// a MappedAccess: another process may cut the segment short. Move-only;
// unmapped on destruction. A forked child does not inherit the mapping
// (MADV_DONTFORK): a child that lives on would otherwise keep the segment,
// and its file, long after it was removed. In the child, the view reads as
// unmapped and its destruction leaves the addresses alone (the child may
// have mapped something else there since). (A page of zeros that a
// MappedAccess put in place of a cut page of the view is the child's,
// though: a page of address space, holding no segment.)
class SegmentView {
 public:
  SegmentView() noexcept = default;
  SegmentView(SegmentView&& other) noexcept;
  SegmentView& operator=(SegmentView&& other) noexcept;
  SegmentView(const SegmentView&) = delete;
  SegmentView& operator=(const SegmentView&) = delete;
  ~SegmentView();

  // False in a forked child for a view made before the fork.
  bool isMapped() const noexcept { return address_ != nullptr && generation_ == forkGeneration(); }
  const void* data() const noexcept { return address_; }
  std::size_t size() const noexcept { return size_; }

 private:
  friend class SegmentReader;
  SegmentView(void* address, std::size_t size) noexcept
      : address_(address), size_(size), generation_(forkGeneration()) {}
  void* address_ = nullptr;
  std::size_t size_ = 0;
  std::uint64_t generation_ = 0;  // forkGeneration() when mapped
};

// An existing segment opened for reading with read calls instead of a
// mapping: a reader that looks at a segment once and briefly saves the map,
// the unmap (which, in a process with other running threads, interrupts
// their cores) and the page fault. It sees the bytes as they are at each
// read; nothing is kept between reads. Move-only; closed on destruction.
class SegmentReader {
 public:
  SegmentReader() noexcept = default;

  // Opens the segment as SharedMemory::find() would and checks it the same
  // way (at least `size` bytes); unopened, and logged exactly as find() logs,
  // wherever find() would return an unattached handle.
  static SegmentReader open(const std::string& name, std::size_t size, const std::string& trustee,
                            SharedMemory::ImplementationSpecifications implementation);
  // The same, in a folder opened before for the trustee (one that is not
  // open is opened here, as above).
  static SegmentReader open(const ScopeFolder& folder, const std::string& name, std::size_t size,
                            const std::string& trustee, SharedMemory::ImplementationSpecifications implementation);

  SegmentReader(SegmentReader&& other) noexcept;
  SegmentReader& operator=(SegmentReader&& other) noexcept;
  SegmentReader(const SegmentReader&) = delete;
  SegmentReader& operator=(const SegmentReader&) = delete;
  ~SegmentReader();

  bool isOpen() const noexcept { return fd_ >= 0; }
  // Copies `length` bytes from `offset` into `buffer`; false when fewer were
  // there (the segment shrank) or the read failed. Never throws.
  bool read(std::size_t offset, void* buffer, std::size_t length) const noexcept;

  // Maps the first `size` bytes of the segment read-only, for this process
  // only (see SegmentView); unmapped when the reader is not open, or the
  // mapping or its exclusion from forked children fails. Never throws.
  SegmentView view(std::size_t size) const noexcept;

 private:
  explicit SegmentReader(int fd) noexcept : fd_(fd) {}
  int fd_ = -1;
};

// The path of the trustee's scope folder ("/dev/shm/u<euid>" or
// "/dev/shm/g<gid>"), whether or not it exists; empty when the trustee is
// no known group.
std::string scopeFolderPath(const std::string& trustee);

// The claim on the trustee's segment `name`, looked at through a descriptor
// of its own (see SharedMemory, Claims), whatever the segment's size.
enum class SegmentClaim {
  Unknown,    // the segment could not be opened, or is refused
  Unclaimed,  // no claim: its creator released it or died
  Held,       // its creator still holds it
  Creating,   // its creator is still creating it
};
SegmentClaim segmentClaim(const std::string& trustee, const std::string& name) noexcept;

// Removes the trustee's segment `name` if it is shorter than `smallerThan`
// bytes and nobody claims it: a segment too damaged to be found, such as one
// truncated after its creator let go of it. The name goes only if it still
// names the file that was judged, and no creator can claim it meanwhile.
// False when it was not removed (long enough, claimed, refused, gone, or a
// call failed).
bool removeUnclaimedSegment(const std::string& trustee, const std::string& name, std::size_t smallerThan) noexcept;

// Whether the trustee's segment `name` exists, as its scope folder tells.
enum class SegmentPresence {
  Present,
  Absent,   // the scope folder is there, passes its checks, and has no such name
  Unknown,  // anything else: the folder is missing or refused, the name is invalid, a call failed
};
SegmentPresence segmentPresence(const std::string& trustee, const std::string& name) noexcept;

// The names of the trustee's segments that begin with `prefix`, in no
// particular order: every regular file of the trustee's scope folder, whether
// or not find() would accept it. Empty when the scope folder is missing (not
// logged) or cannot be read (logged like find()). Never throws. Costs one
// pass over the scope folder. With `complete`, *complete tells whether the
// answer is whole (false when the folder could not be read, or memory ran
// out; a missing folder has no segments, and is whole).
std::vector<std::string> listSegmentNames(const std::string& trustee, const std::string& prefix,
                                          bool* complete = nullptr);

}  // namespace agent::spf::sharedmemory
