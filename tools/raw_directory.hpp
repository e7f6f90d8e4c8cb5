// A read-only snapshot of one trustee's registry directory, for inspection:
// the base segment's fields, both descriptor slots, and the used rows of the
// active container, exactly as the bytes say.
//
// The snapshot is taken without the directory's lock, so that a directory
// whose lock is stuck can still be looked at, and nothing is written: the
// base and the container are opened with SharedMemory::find and copied out,
// and the copy is kept only if the base's descriptor did not change while
// the container was copied (else the copy is retried a few times). Every
// size the bytes claim is checked against the segments and against the same
// bounds the library applies, so hostile bytes give a "problem" text, never
// a read out of bounds.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace agent::spf::endpointregistry::tool {

struct RawSlot {
  std::uint64_t rowWidth = 0;
  std::uint64_t rowCount = 0;
  std::uint64_t containerNumber = 0;
};

struct RawRow {
  unsigned long index = 0;           // row number in the container
  int countByte = 0;                 // the row's count byte, as a signed byte
  std::vector<std::string> strings;  // the strings read, as the library reads them
};

struct RawDirectory {
  std::string trustee;
  std::string baseName;
  bool baseFound = false;
  std::uint32_t initializerPid = 0;
  unsigned initialized = 0;
  unsigned activeSlotByte = 0;  // the raw byte; its low bit selects the slot
  RawSlot slots[2];
  std::string containerName;  // the active container's name, once the base is initialised
  bool containerFound = false;
  std::string problem;  // why the rows could not be read; empty when they were
  // What is damaged (each a sentence): a base that exists but cannot be
  // read, bytes of the base that no writer writes, rows that hold no record
  // name. A writer rebuilds such a directory; nothing here changes it.
  std::vector<std::string> damage;
  unsigned long freeRows = 0;
  std::vector<RawRow> rows;  // the used rows, in row order

  unsigned activeSlot() const { return activeSlotByte & 1u; }
};

// The snapshot of the registry directory of `trustee` ("" for the user's own).
RawDirectory readRawDirectory(const std::string& trustee);

}  // namespace agent::spf::endpointregistry::tool
