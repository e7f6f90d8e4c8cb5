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
// Bounded: at most `capacity` mappings in the process. A mapping is dropped
// once its record no longer reads live in it, or once a listing of its tag
// and trustee no longer finds its name in the directory.
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

#include <agent/spf/sharedmemory/shared_memory.hpp>

namespace agent::spf::endpointregistry {

// One kept mapping and the listing that last met it.
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

    // The data of the record `name` when a kept mapping of it shows it live;
    // otherwise empty, and its mapping (if any) is dropped.
    std::optional<DataPair> readLive(const std::string& name);
    // True while another mapping may be kept.
    bool hasRoom() const noexcept;
    // Keeps `view`, a mapping of the record `name` just read live.
    void keep(const std::string& name, SegmentView view);
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
    std::string prefix_;
    std::uint64_t serial_;
  };

  Listing listing(const std::string& trustee, const std::string& prefix);

  // Drops every kept mapping (a benchmark of a first listing, tests).
  void clear();

  // How many mappings are kept now.
  std::size_t size();

 private:
  friend class Listing;
  KeptRecords() = default;

  std::mutex mutex_;
  std::unordered_map<std::string, std::unordered_map<std::string, KeptRecord>> byTrustee_;
  std::size_t count_ = 0;
  std::uint64_t serial_ = 0;
};

}  // namespace agent::spf::endpointregistry
