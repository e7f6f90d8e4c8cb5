#include "directory/container_rows.hpp"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>

namespace agent::spf::endpointregistry {
namespace {

// End of the string that starts at `start`: its zero byte, or the row's end
// when the row holds none. Never looks past the row.
std::size_t stringEnd(const unsigned char* row, std::size_t width, std::size_t start) {
  const void* zero = std::memchr(row + start, 0, width - start);
  return zero == nullptr ? width : static_cast<std::size_t>(static_cast<const unsigned char*>(zero) - row);
}

// Up to `count` strings of a row, read from byte 1; stops early when the next
// string would start beyond the row's last byte.
ContainerRows::Entry readStrings(const unsigned char* row, std::size_t width, unsigned count) {
  ContainerRows::Entry strings;
  std::size_t start = 1;
  for (unsigned k = 0; k < count && start < width; ++k) {
    const std::size_t end = stringEnd(row, width, start);
    strings.emplace_back(reinterpret_cast<const char*>(row + start), end - start);
    start = end + 1;
  }
  return strings;
}

// True when the row's first string begins with `prefix`.
bool firstStringStartsWith(const unsigned char* row, std::size_t width, const std::string& prefix) {
  if (width < 2) return false;  // no byte for a first string
  const std::size_t length = stringEnd(row, width, 1) - 1;
  return length >= prefix.size() && std::memcmp(row + 1, prefix.data(), prefix.size()) == 0;
}

unsigned countOf(const unsigned char* row) {
  const auto count = static_cast<signed char>(row[0]);
  return count < 0 ? 1u : static_cast<unsigned>(count);
}

}  // namespace

std::optional<std::size_t> checkedContainerSize(unsigned long rowWidth, unsigned long rowCount) {
  constexpr std::size_t frame = ContainerRows::frameBytes;
  if (rowCount == 0) return frame;
  if (rowWidth == 0) return std::nullopt;
  // Whatever is mapped must also fit a signed file offset.
  constexpr std::size_t largest = static_cast<std::size_t>(PTRDIFF_MAX);
  if (rowWidth > (largest - frame) / rowCount) return std::nullopt;
  return rowWidth * rowCount + frame;
}

std::optional<unsigned long> roundUp(unsigned long value, unsigned long increment) {
  if (increment == 0) increment = 1;
  const unsigned long remainder = value % increment;
  if (remainder == 0) return value;
  if (value > ~0ul - (increment - remainder)) return std::nullopt;
  return value + (increment - remainder);
}

unsigned ContainerRows::elementCount(unsigned long index) const noexcept { return countOf(row(index)); }

std::vector<ContainerRows::Entry> ContainerRows::list(const std::string& prefix) const {
  std::vector<Entry> entries;
  // The row count comes from shared memory: reserved for up to a bound only.
  entries.reserve(std::min<unsigned long>(rowCount_, 16384));
  for (unsigned long i = 0; i < rowCount_; ++i) {
    const unsigned char* current = row(i);
    const unsigned count = countOf(current);
    if (count == 0 || !firstStringStartsWith(current, rowWidth_, prefix)) continue;
    entries.push_back(readStrings(current, rowWidth_, count));
  }
  return entries;
}

ContainerRows::Entry ContainerRows::entryAt(unsigned long index) const {
  const unsigned char* current = row(index);
  return readStrings(current, rowWidth_, countOf(current));
}

bool ContainerRows::firstStringIsWhole(unsigned long index, const std::string& prefix) const noexcept {
  const unsigned char* current = row(index);
  return firstStringStartsWith(current, rowWidth_, prefix) && stringEnd(current, rowWidth_, 1) < rowWidth_;
}

std::optional<unsigned long> ContainerRows::find(const Entry& entry) const {
  for (unsigned long i = 0; i < rowCount_; ++i) {
    const unsigned char* current = row(i);
    if (countOf(current) != entry.size()) continue;
    // The walk stops at the first mismatch, or when the next string would
    // start beyond the row's last byte.
    std::size_t start = 1;
    bool matches = true;
    for (const std::string& element : entry) {
      if (start >= rowWidth_) {
        matches = false;
        break;
      }
      const std::size_t end = stringEnd(current, rowWidth_, start);
      if (end - start != element.size() || std::memcmp(current + start, element.data(), element.size()) != 0) {
        matches = false;
        break;
      }
      start = end + 1;
    }
    if (matches) return i;
  }
  return std::nullopt;
}

ContainerRows::Usage ContainerRows::usage() const noexcept {
  Usage usage;
  for (unsigned long i = 0; i < rowCount_; ++i) {
    if (row(i)[0] == 0) continue;
    ++usage.usedRows;
    usage.maxLength = std::max(usage.maxLength, usedLength(i));
  }
  return usage;
}

std::size_t ContainerRows::usedLength(unsigned long index) const noexcept {
  const unsigned char* current = row(index);
  const auto count = static_cast<signed char>(current[0]);
  if (count < 0 || rowWidth_ < 2) return rowWidth_;
  const std::size_t limit = rowWidth_ - 1;
  std::size_t position = 1;
  for (int k = 0; k < count; ++k) {
    const void* zero = position < limit ? std::memchr(current + position, 0, limit - position) : nullptr;
    if (zero == nullptr) return rowWidth_;
    position = static_cast<std::size_t>(static_cast<const unsigned char*>(zero) - current) + 1;
  }
  return position;
}

std::optional<unsigned long> ContainerRows::firstFreeRow() const noexcept {
  for (unsigned long i = 0; i < rowCount_; ++i) {
    if (row(i)[0] == 0) return i;
  }
  return std::nullopt;
}

std::size_t ContainerRows::requiredWidth(const Entry& entry) noexcept {
  std::size_t width = 1;
  for (const std::string& element : entry) width += element.size() + 1;
  return width;
}

bool ContainerRows::writeStrings(unsigned long index, const Entry& entry) noexcept {
  if (requiredWidth(entry) > rowWidth_) return false;
  unsigned char* current = row(index);
  std::size_t position = 1;
  for (const std::string& element : entry) {
    std::memcpy(current + position, element.data(), element.size());
    position += element.size();
    current[position++] = 0;
  }
  return true;
}

void ContainerRows::setCount(unsigned long index, unsigned char count) noexcept {
  std::atomic_ref<unsigned char>(row(index)[0]).store(count, std::memory_order_release);
}

unsigned long ContainerRows::copyUsedRowsTo(ContainerRows& target, std::size_t length) const noexcept {
  length = std::min({length, rowWidth_, target.rowWidth_});
  unsigned long copied = 0;
  for (unsigned long i = 0; i < rowCount_ && copied < target.rowCount_; ++i) {
    const unsigned char* current = row(i);
    if (current[0] == 0) continue;
    if (length != 0) std::memcpy(target.row(copied), current, length);
    ++copied;
  }
  return copied;
}

}  // namespace agent::spf::endpointregistry
