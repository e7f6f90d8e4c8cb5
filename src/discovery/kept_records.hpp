// What this process's listings learnt of the records they read, kept for
// the next listing.
//
// Records: a record whose name a listing meets for the second time is read
// through a mapping, which is kept with the data read and the record's live
// mark (flag, mutex holder, first length; see RecordReader::liveMarkIn). A
// listing that comes again looks at the mark in the mapping and hands out
// the kept data while it is the same: a look at the header in memory and a
// copy, with no system call. A first listing reads by read calls, as it
// always did, and costs no more; a name met only once (a record that came
// and went) is never mapped.
//
// Why a kept answer is sound: it is given only when the record shows the
// same live mark in the mapping as when it was read, and only for a name
// that the trustee's directory names now. A publisher that lets go of a
// record does so in that very segment, whatever has become of its name
// since: withdrawing it, or publishing it anew after another process
// removed, replaced or damaged it, clears its flag; its death leaves the
// mutex owner-dead; a flag or header that another process overwrote shows
// another mark. Readers clear a record away only once it reads stale, which
// a held mutex never does. And the data of a live record never changes:
// the kept copy is the data as published, also when another process has
// since cut or overwritten the segment's data (its publisher then publishes
// it anew). So a kept answer names a record still published under that name,
// with its data. Anything else drops the mapping, and the record is read by
// name, as a first listing reads it (which may clear it away).
//
// Folders: the stamp of a trustee's folder (see ScopeFolder::stamp) and a
// digest of the directory's names at which a listing last swept the folder
// for records that no name leads to and found none; the sweep, one pass
// over the folder, is skipped while both are the same.
//
// Bounded: at most `capacity` mappings in the process, names for four times
// as many, and 1,024 sweep stamps. A mapping is dropped when a listing finds
// its record changed, and with its name once a listing of its tag and
// trustee no longer finds the name in the directory; a process that stops
// listing a tag keeps the mappings of its last listing of it.
//
// Thread safety: any thread; one lock, held for each call only. A fork
// waits for a call under way. A forked child inherits no mapping (see
// SegmentView): it forgets what was kept (its sweep stamps stay) at its
// first call, or, on the thread that forked in the middle of a listing, at
// that listing's next step; its next listing reads every record by name. A
// child that lives on thus holds no segment of a record withdrawn since,
// which would keep its memory and its file (and slow every reading of its
// folder) for as long as the child lived.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <agent/spf/sharedmemory/shared_memory.hpp>

#include "record/record_reader.hpp"

namespace agent::spf::endpointregistry {

// A name met by a listing, its mapping, data and mark once it has them, and
// the listing that last met it.
struct KeptRecord {
  agent::spf::sharedmemory::SegmentView view;
  RecordReader::DataPair data;
  RecordReader::LiveMark mark;
  std::uint64_t seen = 0;
};

class KeptRecords {
 public:
  using DataPair = RecordReader::DataPair;
  using SegmentView = agent::spf::sharedmemory::SegmentView;
  using Stamp = agent::spf::sharedmemory::ScopeFolder::Stamp;

  static constexpr std::size_t capacity = 8192;

  // The process's kept records (never destroyed).
  static KeptRecords& ofProcess();

  // A trustee's records, and the serial number of a listing of them, taken
  // under one lock.
  struct Opened {
    std::unordered_map<std::string, KeptRecord>& records;
    std::uint64_t serial;
    std::uint64_t generation;  // see generation_
  };

  // One listing of one trustee's records under one name prefix.
  class Listing {
   public:
    Listing(const Listing&) = delete;
    Listing& operator=(const Listing&) = delete;

    // The data of the record `name` when its kept mapping shows the mark it
    // was kept with. Otherwise empty, and its mapping (if any) is dropped;
    // `mapNow` then tells whether the caller, reading the record by name,
    // should map it and keep() it (the name was met before, and there is
    // room).
    std::optional<DataPair> readLive(const std::string& name, bool& mapNow);
    // Keeps `view`, a mapping of the record `name` that a read by name has
    // just found live with `data`, when it still shows live (nothing when
    // it is unmapped).
    void keep(const std::string& name, SegmentView view, const DataPair& data);
    // Whether the trustee's folder must be swept for segments that no name
    // leads to: no, while it has the stamp, and the directory the names
    // (`namesDigest`, see digestOf), at which a sweep under this prefix
    // last found every segment named.
    bool sweepNeeded(const Stamp& stamp, std::uint64_t namesDigest) const;
    // Notes the outcome of a complete sweep made at `stamp` and `namesDigest`.
    void swept(const Stamp& stamp, std::uint64_t namesDigest, bool everySegmentNamed);
    // The listing went through every name that the directory gave: drops
    // the names (and mappings) of this trustee under this prefix that it
    // did not meet.
    void finish();

   private:
    friend class KeptRecords;
    Listing(KeptRecords& kept, const std::string& trustee, std::string prefix);
    Listing(KeptRecords& kept, Opened opened, const std::string& trustee, std::string prefix);

    KeptRecords& kept_;
    std::unordered_map<std::string, KeptRecord>& records_;  // never erased, only emptied
    std::string trustee_;
    std::string prefix_;
    std::uint64_t serial_;
    std::uint64_t generation_;  // the fork generation at the listing's start
  };

  Listing listing(const std::string& trustee, const std::string& prefix);

  // A digest of a set of names, whatever their order.
  static std::uint64_t digestOf(const std::vector<std::string>& names) noexcept;

  // Drops every kept mapping, name and stamp (a benchmark of a first
  // listing, tests).
  void clear();

  // How many mappings are kept now.
  std::size_t size();

  // How many names are known now, mapped or not.
  std::size_t names();

 private:
  KeptRecords() = default;
  Opened open(const std::string& trustee);
  // In a forked child, once: forgets the mappings it did not inherit, and
  // the names with them. Called under the lock.
  void forgetIfForked();

  struct CleanSweep {
    Stamp stamp;
    std::uint64_t namesDigest = 0;
  };

  mutable std::mutex mutex_;
  std::unordered_map<std::string, std::unordered_map<std::string, KeptRecord>> byTrustee_;
  // By trustee and prefix ('\0' between them).
  std::unordered_map<std::string, CleanSweep> cleanSweeps_;
  std::size_t count_ = 0;  // mappings
  std::size_t names_ = 0;  // names, mapped or not
  std::uint64_t serial_ = 0;
  // The fork generation (sharedmemory::forkGeneration) the records were
  // kept in.
  std::uint64_t generation_ = agent::spf::sharedmemory::forkGeneration();
};

}  // namespace agent::spf::endpointregistry
