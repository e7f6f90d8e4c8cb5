// The rows of a name-directory container, read and written over plain bytes.
//
// A container (named_string_array.hpp draws the whole segment) holds
// rowCount rows of rowWidth bytes each. Row layout:
//   byte 0     element count n as a signed byte: 0 = free row, 1 ... 127 = n
//              strings follow, a negative count reads as 1
//   byte 1 ... the n strings one after another, each followed by a zero byte;
//              the rest of the row is whatever was there
//
// Nothing in the row bytes is trusted: a string runs to its zero byte or to
// the end of its row, whichever comes first, and no read or write leaves the
// rowCount x rowWidth bytes the view was given. The view holds no lock and
// opens no segment: the caller hands it bytes it has mapped under the
// directory's lock (or, in tests and fuzzing, any buffer) and checks first
// that they are all there.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace agent::spf::endpointregistry {

// rowCount x rowWidth + 9, the size of a container segment, or nothing when
// the descriptor cannot describe one: the size overflows, or its rows have
// width 0 (no room for a count byte). There is no upper bound here: a
// directory that exists is read whole, however large it grew.
std::optional<std::size_t> checkedContainerSize(unsigned long rowWidth, unsigned long rowCount);

// The largest container a directory is grown to (32 MiB): an insert that
// would need more fails with an error, while larger containers made by
// others are still read, kept and shrunk.
inline constexpr std::size_t maxGrownContainerBytes = std::size_t{32} << 20;

// `value` rounded up to a multiple of `increment` (an increment of 0 counts
// as 1); nothing on overflow.
std::optional<unsigned long> roundUp(unsigned long value, unsigned long increment);

class ContainerRows {
 public:
  using Entry = std::vector<std::string>;

  // Container bytes around the rows: unused bytes before and after them.
  static constexpr std::size_t headerBytes = 8;
  static constexpr std::size_t trailerBytes = 1;
  static constexpr std::size_t frameBytes = headerBytes + trailerBytes;

  // What a rebuild must keep: the number of used rows and the most bytes any
  // of them needs (see usedLength()).
  struct Usage {
    unsigned long usedRows = 0;
    std::size_t maxLength = 0;
  };

  // A view of `rowCount` rows of `rowWidth` bytes starting at `rows`, which
  // must hold rowCount x rowWidth bytes (nothing when rowCount is 0).
  ContainerRows(unsigned char* rows, unsigned long rowCount, std::size_t rowWidth) noexcept
      : rows_(rows), rowCount_(rowCount), rowWidth_(rowWidth) {}

  unsigned long rowCount() const noexcept { return rowCount_; }
  std::size_t rowWidth() const noexcept { return rowWidth_; }

  // The element count of row `index`: 0 for a free row, a negative count
  // byte reads as 1.
  unsigned elementCount(unsigned long index) const noexcept;
  // The count byte of row `index` as it is stored, a signed byte.
  int countByte(unsigned long index) const noexcept { return static_cast<signed char>(*row(index)); }

  // The entries of the used rows whose first string begins with `prefix`
  // (an empty prefix matches all), in row order. An entry holds the row's
  // strings read from byte 1, at most its element count of them, stopping
  // early when the next string would start beyond the row's last byte.
  std::vector<Entry> list(const std::string& prefix) const;

  // The strings of row `index`, read as list() reads them (nothing for a
  // free row).
  Entry entryAt(unsigned long index) const;

  // True when the first string of row `index` begins with `prefix` and ends
  // with its zero byte inside the row. Allocates nothing.
  bool firstStringIsWhole(unsigned long index, const std::string& prefix) const noexcept;

  // The first row that holds exactly the strings of `entry` (a free row
  // matches the empty entry).
  std::optional<unsigned long> find(const Entry& entry) const;

  // The used rows and the largest usedLength() among them.
  Usage usage() const noexcept;

  // The bytes of used row `index` that a copy must keep: up to and including
  // the zero byte of its last string, found without looking at the row's
  // last byte; the whole width when the zeros run out or the count byte is
  // negative.
  std::size_t usedLength(unsigned long index) const noexcept;

  // The first free row.
  std::optional<unsigned long> firstFreeRow() const noexcept;

  // Bytes an entry needs in a row: one count byte, each string and its zero.
  static std::size_t requiredWidth(const Entry& entry) noexcept;

  // Writes the strings of `entry` into row `index` from byte 1 on, each
  // followed by a zero byte, leaving the count byte alone. False, with
  // nothing written, when the row is narrower than requiredWidth(entry).
  bool writeStrings(unsigned long index, const Entry& entry) noexcept;

  // Stores the count byte of row `index` (release order, so that a reader of
  // the count sees the strings written before it). 0 frees the row.
  void setCount(unsigned long index, unsigned char count) noexcept;

  // Copies the first `length` bytes of every used row, in row order, to rows
  // 0, 1, 2 ... of `target`; `length` is cut to the narrower width and the
  // copy stops when `target` has no row left. Returns the rows copied.
  unsigned long copyUsedRowsTo(ContainerRows& target, std::size_t length) const noexcept;

 private:
  unsigned char* row(unsigned long index) const noexcept { return rows_ + index * rowWidth_; }

  unsigned char* rows_;
  unsigned long rowCount_;
  std::size_t rowWidth_;
};

}  // namespace agent::spf::endpointregistry
