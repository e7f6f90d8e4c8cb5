// Reading the records of one trustee: opening, classifying, reading and
// reclaiming record segments (layout in record_layout.hpp). Listings,
// duplicate detection, maintenance, directory rebuilds and the tool's
// inspect all read records through here.
//
// Records are written by other processes, which may be dead, half-way, in
// another pid namespace, or buggy. A read never crashes on what it finds
// (a segment cut short reads as zeros, see MappedAccess), never blocks on a
// record's mutex (it only probes it), and clears away only records that are
// stale: flag set and mutex free or owner-dead, or flag clear and no
// publisher left to finish or withdraw them.
//
// Thread safety: a RecordReader is used by one thread at a time; distinct
// readers may be used from any threads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <agent/spf/sharedmemory/shared_memory.hpp>

#include "record/record_name.hpp"

namespace agent::spf::endpointregistry {

// How a reader classifies a record segment.
enum RecordState : unsigned {
  Stale = 0,      // no live publisher: the record may be reclaimed
  Transient = 1,  // undecided: being built or torn down, or not attached
  Live = 2,       // the liveness mutex is held
};

// How a reader judges a record whose flag is clear and whose segment its
// publisher no longer claims. A listing follows the record's pid (stale only
// once no process has it); maintenance takes it for stale whatever the pid
// names.
enum class RecordJudgement { Listing, Maintenance };

// What one read of a record found.
struct RecordRead {
  enum Finding {
    Unreadable,  // not a record of format 0, or its segment could not be opened
    Transient,   // being published or withdrawn, or changed while it was read
    Live,        // `data` holds its data pair
    Reclaimed,   // stale: cleared away by this read
  };
  Finding finding = Unreadable;
  std::pair<std::string, std::string> data;
};

// What inspect() finds: whether the segment could be had, its state, and
// for a live record the data stored in it (none when its first length is
// impossible).
struct RecordInspection {
  bool found = false;
  RecordState state = Transient;
  std::optional<std::pair<std::string, std::string>> data;
};

class RecordReader {
 public:
  using SharedMemory = agent::spf::sharedmemory::SharedMemory;
  using DataPair = std::pair<std::string, std::string>;

  // A reader of the trustee's records. Opens and checks the trustee's scope
  // folder once for all the reads made through it (a folder that is missing
  // now is looked for again by each read). Never throws but std::bad_alloc.
  explicit RecordReader(const std::string& trustee);

  const std::string& trustee() const noexcept { return trustee_; }

  // The stamp of the trustee's scope folder now (see ScopeFolder::stamp).
  std::optional<agent::spf::sharedmemory::ScopeFolder::Stamp> folderStamp() const noexcept { return folder_.stamp(); }

  // The names of the trustee's segments that begin with `prefix` (see
  // listSegmentNames), read through the folder this reader holds when it
  // could open it.
  std::vector<std::string> segmentNames(const std::string& prefix, bool* complete = nullptr) const;

  // Reads the record `name`: a live one's data pair; a stale one cleared
  // away (flag cleared, mutex destroyed, segment and directory name
  // removed). A name without a segment reads as Unreadable and keeps its
  // directory name: erasing it is explicit maintenance, which first makes
  // sure that the segment is really absent. Throws std::out_of_range when a
  // live record's first length exceeds its data, std::runtime_error when its
  // mutex probes in an undesired state. With `keep`, a record found live at
  // once is read through a mapping, which is handed over in *keep, for
  // liveMarkIn() to look at later (unmapped otherwise).
  RecordRead read(const RecordName& name, RecordJudgement judgement = RecordJudgement::Listing,
                  agent::spf::sharedmemory::SegmentView* keep = nullptr);

  // What shows a record live in a mapping of it: its flag (exactly 1, as
  // publishers set it), the thread id in its mutex's lock word, and its
  // first length. Equal marks mean the same publication, still held.
  struct LiveMark {
    unsigned holder = 0;
    std::uint64_t firstLength = 0;
    bool operator==(const LiveMark&) const = default;
  };

  // The mark of the record in `view` when it shows live now (flag 1, mutex
  // held by a thread that did not die); empty for anything else, which only
  // a read() by name may judge. Reads the header alone, under a
  // MappedAccess: no system call, and a header cut off reads as zeros.
  static std::optional<LiveMark> liveMarkIn(const agent::spf::sharedmemory::SegmentView& view) noexcept;

  // True when the record counts as published: live, or being published or
  // withdrawn. Reclaims nothing. For duplicate detection. Throws as read().
  bool isPublished(const RecordName& name);

  // The record's state, as a listing would judge it, and a live record's
  // stored data, without clearing anything away (the probe of a flagged
  // record's mutex leaves it as it was, made consistent if its owner died).
  // Not found when the segment cannot be had, whatever the format. Throws
  // std::runtime_error as read() does.
  RecordInspection inspect(const RecordName& name);

  // Removes the record segment `name` when it is too short to be read and
  // its publisher holds it no longer (a record truncated after its
  // publisher let go of it, or died). True when it was removed.
  bool removeUnreadable(const RecordName& name);

  // The names of the live records in the trustee's scope folder. Reads the
  // records without locking or clearing anything.
  std::vector<std::string> liveNames();

  // The record's segment, mapped; unattached when it is missing, refused,
  // shorter than its name says, or no segment could have its size.
  static SharedMemory findSegment(const RecordName& name, const std::string& trustee);

  // Classifies a mapped record segment whose name carries `pid`. Throws
  // std::runtime_error for a flagged record whose mutex probes in an
  // undesired state.
  static RecordState classify(SharedMemory& segment, unsigned long pid, RecordJudgement judgement);

 private:
  // The record's segment opened for read calls, not mapped; unopened as
  // findSegment() is unattached.
  agent::spf::sharedmemory::SegmentReader openUnmapped(const RecordName& name) const;

  std::string trustee_;
  agent::spf::sharedmemory::ScopeFolder folder_;
};

}  // namespace agent::spf::endpointregistry
