// Reading a fuzz input front to back: small numbers, byte strings and 64-bit
// words. Whatever runs out reads as zero or empty, so every input is valid.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace er::fuzz {

class FuzzInput {
 public:
  FuzzInput(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  // One byte, 0 when none is left.
  std::uint8_t byte() { return position_ < size_ ? data_[position_++] : 0; }

  // Up to `length` bytes.
  std::string bytes(std::size_t length) {
    const std::size_t taken = length < size_ - position_ ? length : size_ - position_;
    std::string text(reinterpret_cast<const char*>(data_ + position_), taken);
    position_ += taken;
    return text;
  }

  // A string whose length is the next byte modulo `limit`.
  std::string sizedBytes(std::size_t limit) { return bytes(byte() % limit); }

  // Eight bytes, little-endian.
  std::uint64_t word() {
    std::uint64_t value = 0;
    for (int i = 0; i < 8; ++i) value |= static_cast<std::uint64_t>(byte()) << (8 * i);
    return value;
  }

  // Everything not read yet.
  std::string rest() { return bytes(size_ - position_); }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t position_ = 0;
};

}  // namespace er::fuzz
