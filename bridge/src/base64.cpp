#include "base64.hpp"

#include <cstdint>

namespace agent::spf::endpointregistry::bridge {
namespace {

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int valueOf(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+' || c == '-') return 62;
  if (c == '/' || c == '_') return 63;
  return -1;
}

}  // namespace

std::string base64Encode(const std::string& bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t at = 0;
  for (; at + 3 <= bytes.size(); at += 3) {
    const std::uint32_t group = static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at])) << 16 |
                                static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at + 1])) << 8 |
                                static_cast<unsigned char>(bytes[at + 2]);
    for (int shift = 18; shift >= 0; shift -= 6) text += alphabet[(group >> shift) & 63];
  }
  const std::size_t left = bytes.size() - at;
  if (left > 0) {
    std::uint32_t group = static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at])) << 16;
    if (left == 2) group |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at + 1])) << 8;
    text += alphabet[(group >> 18) & 63];
    text += alphabet[(group >> 12) & 63];
    text += left == 2 ? alphabet[(group >> 6) & 63] : '=';
    text += '=';
  }
  return text;
}

std::optional<std::string> base64Decode(const std::string& text) {
  std::string bytes;
  std::uint32_t group = 0;
  int bits = 0;
  std::size_t padding = 0;
  for (char c : text) {
    if (c == '=') {
      ++padding;
      continue;
    }
    const int value = valueOf(c);
    if (value < 0 || padding > 0) return std::nullopt;
    group = group << 6 | static_cast<std::uint32_t>(value);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      bytes += static_cast<char>((group >> bits) & 0xff);
    }
  }
  if (padding > 2 || bits >= 6) return std::nullopt;
  return bytes;
}

}  // namespace agent::spf::endpointregistry::bridge
