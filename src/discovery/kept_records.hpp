// Record segments that this process's listings keep mapped. A listing that
// comes again finds a record that is still live in its kept mapping: a look
// at its flag and its mutex's lock word in memory and a copy of its data,
// with no system call.
//
// Why an answer from a kept mapping is sound: it is given only when the
// record shows live in the mapping (flag set, mutex held) before and after
// the copy, and only for a name that the trustee's directory names now. A
// publisher that lets go of a record does so in that very segment, whatever
// has become of its name since: withdrawing it, or publishing it anew after
// another process damaged it, clears its flag; its death leaves the mutex
// owner-dead. And a record is only cleared away by readers once it reads
// stale, which a held mutex never does. So a mutex held in a kept mapping
// belongs to a record that is still published under that name. Anything
// else a kept mapping shows ends it, and the record is read by name, as a
// first listing reads it (which may clear it away).
//
// The same lock keeps the folder stamp at which a listing last swept its
// trustee's folder for records that no name leads to and found none: the
// sweep, one pass over the folder, is skipped while no entry came or went.
//
// A record is mapped when a listing meets its name for the second time: a
// first listing reads by read calls, as it always did, and costs no more;
// a name met only once (a record that came and went) is never mapped.
//
// Bounded: at most `capacity` mappings in the process, and names for four
// times as many. A mapping is dropped once its record no longer reads live
// in it, and a name once a listing of its tag and trustee no longer finds it
// in the directory.
//
// Thread safety: any thread; one lock, held by a Listing while it lives.
// A forked child keeps its copies of the mappings: they map the same
// segments.
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

namespace agent::spf::endpointregistry {

// A name met by a listing, its mapping once it has one, and the listing
// that last met it.
struct KeptRecord {
  agent::spf::sharedmemory::SegmentView view;
  unsigned long dataLength = 0;
  std::uint64_t seen = 0;
};

class KeptRecords {
 public:
  using DataPair = std::pair<std::string, std::string>;
  using SegmentView = agent::spf::sharedmemory::SegmentView;

  static constexpr std::size_t capacity = 8192;

  // The process's kept records (never destroyed).
  static KeptRecords& ofProcess();

  // One listing of one trustee's records under one name prefix; holds the
  // lock while it lives.
  class Listing {
   public:
    Listing(const Listing&) = delete;
    Listing& operator=(const Listing&) = delete;
    ~Listing() = default;

    // The data of the record `name` when a kept mapping of it shows it live.
    // Otherwise empty, and its mapping (if any) is dropped; `mapNow` then
    // tells whether the caller, reading the record by name, should map it
    // and keep() the mapping (the name was met before, and there is room).
    std::optional<DataPair> readLive(const std::string& name, bool& mapNow);
    // Keeps `view`, a mapping of the record `name` just read live (nothing
    // when it is unmapped).
    void keep(const std::string& name, SegmentView view);
    // Whether the trustee's folder must be swept for segments that no name
    // leads to: no, while it has the stamp, and the directory the names
    // (`namesDigest`, see digestOf), at which a sweep under this prefix
    // last found every segment named.
    bool sweepNeeded(const agent::spf::sharedmemory::ScopeFolder::Stamp& stamp, std::uint64_t namesDigest) const;
    // Notes the outcome of a sweep made at `stamp` and `namesDigest`.
    void swept(const agent::spf::sharedmemory::ScopeFolder::Stamp& stamp, std::uint64_t namesDigest,
               bool everySegmentNamed);

    // The listing went through every name that the directory gave: drops
    // the kept mappings of this trustee under this prefix that it did not
    // meet (their names left the directory).
    void finish();

   private:
    friend class KeptRecords;
    Listing(KeptRecords& kept, const std::string& trustee, std::string prefix);

    std::unique_lock<std::mutex> lock_;
    KeptRecords& kept_;
    std::unordered_map<std::string, KeptRecord>& records_;
    std::string trustee_;
    std::string prefix_;
    std::uint64_t serial_;
  };

  Listing listing(const std::string& trustee, const std::string& prefix);

  // A digest of a set of names, whatever their order.
  static std::uint64_t digestOf(const std::vector<std::string>& names) noexcept;

  // Drops every kept mapping (a benchmark of a first listing, tests).
  void clear();

  // How many mappings are kept now.
  std::size_t size();

  // How many names are known now, mapped or not.
  std::size_t names();

 private:
  friend class Listing;
  KeptRecords() = default;

  std::mutex mutex_;
  std::unordered_map<std::string, std::unordered_map<std::string, KeptRecord>> byTrustee_;
  // Folder stamps of sweeps that found every segment named, by trustee and
  // prefix ('\0' between them); bounded.
  struct CleanSweep {
    agent::spf::sharedmemory::ScopeFolder::Stamp stamp;
    std::uint64_t namesDigest = 0;
  };
  std::unordered_map<std::string, CleanSweep> cleanSweeps_;
  std::size_t count_ = 0;  // mappings
  std::size_t names_ = 0;  // names, mapped or not
  std::uint64_t serial_ = 0;
};

}  // namespace agent::spf::endpointregistry
