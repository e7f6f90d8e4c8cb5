// A directory of entries kept in shared memory, one per (name, version,
// trustee). An entry is a list of 1 to 127 strings.
//
// A directory is a fixed 96-byte base segment and a container segment of
// fixed-width rows. The container never grows in place: a change of
// dimensions builds the next-numbered container, copies the used rows into it
// compacted, and flips one byte of the base. Two descriptor slots let the
// next writer clean up a switch that a crash interrupted.
//
// The byte layout of bases and containers is drawn in directory_layout.hpp.
//
// Every read and write of rows, descriptors and activeSlot happens under the
// base's mutex. Readers never trust the bytes: whatever a dead or buggy
// writer left, they stay inside the mapped segments.
//
// Damaged directories. A descriptor is absurd when its size overflows or it
// has rows of width 0. A directory whose active descriptor is absurd, or
// whose container is shorter than described, reads as empty (erase logs its
// container as not found). Size alone is no damage: a directory of any size
// is read and kept; only an insert that would grow it beyond 32 MiB fails.
// An activeSlot other than 0 or 1 reads as its low bit; only initialized ==
// 1 counts as initialised. A string runs to its zero byte or to the end of
// its row, whichever comes first.
//
// Without a Recovery, the next insert rebuilds a damaged directory as empty
// under the next number, removing the old segment. With one (the registry's
// directories), a directory is healed instead of emptied: its entries are
// what can still be read from it plus what Recovery::entries yields, and an
// insert (or repair()) rebuilds it that way when it finds it never used,
// its base damaged or too short (replaced by a new one), its container
// missing, too short or described absurdly, or a used row not well formed.
// Operations that only read or erase never rebuild, and never fail for
// damage: they read what can be read.
//
// Initialisation is claimed through initializerPid. A claim by a process
// that is gone is cleared; one held for 3 seconds by a process that still
// exists (a reused pid, a stopped claimer) is withdrawn. Every step of the
// initialisation is an atomic write that only turns zero bytes into their
// initial values, and `initialized` is set only together with a claim that
// still stands, so a claimer that goes on after its claim was withdrawn
// changes nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <agent/spf/sharedmemory/shared_memory.hpp>

#include "concurrency/robust_lock_guard.hpp"
#include "directory/directory_layout.hpp"

namespace agent::spf::endpointregistry {

class NamedStringArray {
 public:
  using SharedMemory = agent::spf::sharedmemory::SharedMemory;
  using Entry = std::vector<std::string>;

  // How a directory heals (see Damaged directories): where the entries of a
  // lost or damaged directory can be found again, for the trustee, and
  // which used rows are well formed. Plain functions: a directory is made
  // for every operation, and these cost no allocation.
  struct Recovery {
    std::vector<std::vector<std::string>> (*entries)(const std::string& trustee) = nullptr;
    bool (*wellFormedRow)(const ContainerRows& rows, unsigned long row) = nullptr;  // for used rows
  };

  static constexpr std::size_t baseSize = sizeof(NamedStringArrayBase);
  static constexpr std::size_t containerHeaderSize = ContainerRows::headerBytes;
  static constexpr std::size_t maxElements = 127;

  // `version` is not used: the base name always carries version 0.
  NamedStringArray(const std::string& name, unsigned long version, const std::string& trustee);

  // Heals the directory with `recovery` from now on.
  void setRecovery(const Recovery& recovery) noexcept { this->recovery = recovery; }

  // Adds an entry in the first free row, growing the directory as needed.
  // std::invalid_argument for more than 127 strings or no non-empty string.
  void insert(const Entry& entry);
  void insert(const std::string& element);
  // insert(), unless a row holds the entry already (decided under the
  // directory's lock); false then.
  bool insertUnlessPresent(const Entry& entry);
  // Frees the first row equal to the entry and compacts; logs (256) when the
  // base, the container or the entry is not there.
  void erase(const Entry& entry);
  void erase(const std::string& element);
  // The entries whose first string begins with `prefix`, in row order.
  std::vector<Entry> listEntries(const std::string& prefix);

  // Maintenance, each under the directory's lock. Frees every row whose
  // entry `doomed` picks (asked under the lock, so that no writer changes
  // the rows meanwhile) and compacts once; returns how many were freed.
  std::size_t eraseIf(const std::function<bool(const Entry&)>& doomed);
  // Rebuilds the directory if it is damaged (see Damaged directories), and
  // makes it anew when it is missing while Recovery::entries yields
  // entries; true when it rebuilt. Needs a Recovery; false without one.
  bool repair();
  // Removes the directory's container segments that it does not use (any
  // "<base><digits>" segment but the active container): left by writers
  // that died, or by damage. Returns how many were removed. Nothing is
  // removed while the base is missing or not initialised.
  std::size_t removeLeftoverContainers();

  // Makes the base ready; true once it is initialised (by anyone).
  bool initializeBase(SharedMemory& base);
  // Rebuilds the container for the current rows plus one of `requiredWidth`
  // bytes (none when 0), if its dimensions change.
  void reorganize(SharedMemory& base, SharedMemory& container, unsigned long requiredWidth);
  // Removes the half-built container an interrupted reorganisation left.
  void deleteInactiveContainer(SharedMemory& base, SharedMemory& container);

  static void deleteNamedStringArray(const std::string& name, unsigned long version, const std::string& trustee);
  // (rowCount, rowWidth) of the active container; (0, 0) if there is none.
  static std::pair<unsigned long, unsigned long> getDimensions(const std::string& name, unsigned long version,
                                                               const std::string& trustee);
  std::string getBaseTrustee();
  static std::string makeBaseName(const std::string& name, unsigned long version, const std::string& trustee);
  std::string makeContainerName(unsigned long number) const;
  static unsigned long containerSize(unsigned long rowWidth, unsigned long rowCount);

  void setRowIncrement(unsigned long increment) { rowIncrement = increment; }
  void setWidthIncrement(unsigned long increment) { widthIncrement = increment; }

 private:
  // The shared work of insert() and insertUnlessPresent().
  bool insertEntry(const Entry& entry, bool unlessPresent);
  // The base, opened to be written: created if missing; with a Recovery, a
  // damaged or too short one is replaced (`replaced` tells). Throws when it
  // cannot be had.
  SharedMemory openBaseForWriting(bool* replaced = nullptr);
  // Spins until the base is initialised (see initializeBase).
  void awaitInitialized(SharedMemory& base);
  // The base's lock; nothing when, with a Recovery, the base is found
  // damaged (before locking, or by a lock that fails for it). Other
  // failures throw as the lock guard does.
  std::optional<PThreadRobustLockGuard> lockBase(NamedStringArrayBase& header) const;
  // The active container, found or created, under the lock. `lost` tells
  // that it had to be created although the descriptor describes rows.
  SharedMemory openActiveContainer(SharedMemory& base, bool& lost);
  // True when the directory must be rebuilt from what can be read and the
  // Recovery (never without one).
  bool needsRebuild(SharedMemory& base, SharedMemory& container, bool lost);
  // Builds the next container from the readable well-formed rows and the
  // recovered entries (without `excluded`), with room for one more entry of
  // `requiredWidth` bytes (none when 0), and switches to it. Returns the
  // number of entries it holds.
  std::size_t rebuild(SharedMemory& base, SharedMemory& container, unsigned long requiredWidth, const Entry* excluded,
                      const std::vector<Entry>& recovered);
  // Makes the next container of `count` rows of `width` bytes, the inactive
  // slot describing it. Throws when it cannot be made.
  SharedMemory makeNextContainer(NamedStringArrayBase& header, unsigned long width, unsigned long count);
  // Makes the inactive slot's container the active one and lets the old go.
  void switchTo(SharedMemory& base, SharedMemory& container, SharedMemory& fresh);

  std::string baseName;
  std::string trustee;
  SharedMemory::ImplementationSpecifications implementationSpecifications{};
  unsigned long rowIncrement = 10;
  unsigned long widthIncrement = 4;
  Recovery recovery;
};

}  // namespace agent::spf::endpointregistry
