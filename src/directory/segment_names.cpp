#include "directory/segment_names.hpp"

#include <unistd.h>
#include <cstring>
#include <limits>
#include <sstream>

namespace agent::spf::endpointregistry {

namespace {

constexpr std::uint64_t hashSeed = 0xc70f6907UL;
constexpr std::uint64_t multiplier = 0xc6a4a7935bd1e995ULL;

constexpr std::uint64_t shiftMix(std::uint64_t v) noexcept { return v ^ (v >> 47); }

// Reads `count` (at most 8) bytes as a little-endian integer, the first byte
// being the least significant, whatever the byte order of the machine.
std::uint64_t loadLittleEndian(const unsigned char* bytes, std::size_t count) noexcept {
  std::uint64_t value = 0;
  for (std::size_t i = count; i > 0; --i) value = (value << 8) | bytes[i - 1];
  return value;
}

}  // namespace

// The 64-bit Murmur variant of the GNU standard library's std::_Hash_bytes.
// Reproduced here so that every process forms the same names whatever
// standard library it was built with.
std::uint64_t hashBytes(const void* data, std::size_t length, std::uint64_t seed) noexcept {
  const auto* bytes = static_cast<const unsigned char*>(data);
  const std::size_t wholeBlocks = length / 8;
  const std::size_t tail = length % 8;

  std::uint64_t hash = seed ^ (static_cast<std::uint64_t>(length) * multiplier);
  for (std::size_t block = 0; block < wholeBlocks; ++block) {
    const std::uint64_t word = loadLittleEndian(bytes + block * 8, 8);
    const std::uint64_t mixed = shiftMix(word * multiplier) * multiplier;
    hash = (hash ^ mixed) * multiplier;
  }
  if (tail != 0) {
    hash = (hash ^ loadLittleEndian(bytes + wholeBlocks * 8, tail)) * multiplier;
  }
  hash = shiftMix(hash) * multiplier;
  return shiftMix(hash);
}

// The empty string has the empty hash text; no hash of zero bytes is taken.
std::string hashText(const std::string& s) {
  if (s.empty()) return std::string();
  std::uint64_t value = hashBytes(s.data(), s.size(), hashSeed);
  static constexpr char digits[] = "0123456789abcdef";
  char buffer[16];
  std::size_t start = sizeof buffer;
  do {
    buffer[--start] = digits[value & 0xf];
    value >>= 4;
  } while (value != 0);
  return std::string(buffer + start, sizeof buffer - start);
}

std::string groupPrefix(const std::string& groupTag) { return recordPrefix + hashText(groupTag); }

std::string synonymPrefix(const std::pair<std::string, std::string>& dataPair, const std::string& groupTag) {
  return groupPrefix(groupTag) + hashText(dataPair.first + dataPair.second);
}

std::string recordName(const std::pair<std::string, std::string>& dataPair, const std::string& groupTag,
                       unsigned long format, const std::string& /*trustee*/) {
  const std::string joined = dataPair.first + dataPair.second;
  return recordPrefix + hashText(groupTag) + hashText(joined) + "l" + std::to_string(joined.size()) + "p" +
         std::to_string(getpid()) + "v" + std::to_string(format);
}

// Formatted stream extraction: leading white space is skipped, reading stops
// at the first non-digit, no digits give 0 and overflow gives the largest
// value. Nothing is reported.
unsigned long numberAfterLast(const std::string& name, char marker) {
  const std::size_t last = name.rfind(marker);
  const std::size_t start = last == std::string::npos ? 0 : last + 1;
  // The usual case, digits right after the marker, is read here as the
  // stream would read it (up to the first non-digit; the largest value on
  // overflow). Every other text takes the stream itself.
  if (start < name.size() && name[start] >= '0' && name[start] <= '9') {
    unsigned long value = 0;
    for (std::size_t i = start; i < name.size() && name[i] >= '0' && name[i] <= '9'; ++i) {
      const auto digit = static_cast<unsigned long>(name[i] - '0');
      if (value > (std::numeric_limits<unsigned long>::max() - digit) / 10) {
        return std::numeric_limits<unsigned long>::max();
      }
      value = value * 10 + digit;
    }
    return value;
  }
  std::istringstream stream(name.substr(start));
  unsigned long value = 0;
  stream >> value;
  return value;
}

unsigned long recordDataLength(const std::string& name) { return numberAfterLast(name, 'l'); }
unsigned long recordPid(const std::string& name) { return numberAfterLast(name, 'p'); }
unsigned long recordFormat(const std::string& name) { return numberAfterLast(name, 'v'); }

}  // namespace agent::spf::endpointregistry
