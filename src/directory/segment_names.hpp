// The names of every shared-memory segment of the registry, byte for byte.
//
// H(s), the hash text of s, is empty for an empty s and otherwise the 64-bit
// Murmur-style byte hash with seed 0xc70f6907 (the GNU standard library's
// string hash) in lower-case hexadecimal without leading zeros. It is computed
// here, not by the standard library, so that every build forms the same names.
//
//   record prefix   "qzER"
//   group prefix    "qzER" H(groupTag)
//   synonym prefix  "qzER" H(groupTag) H(first second)
//   record name     "qzER" H(groupTag) H(first second) "l" len "p" pid "v" format
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace agent::spf::endpointregistry {

inline constexpr char recordPrefix[] = "qzER";

// The raw 64-bit hash of `length` bytes at `data` with the given seed.
std::uint64_t hashBytes(const void* data, std::size_t length, std::uint64_t seed) noexcept;

std::string hashText(const std::string& s);
std::string groupPrefix(const std::string& groupTag);
std::string synonymPrefix(const std::pair<std::string, std::string>& dataPair, const std::string& groupTag);
// The trustee does not enter the name; records of different trustees are kept
// apart by the shared-memory library. getpid() is read on every call.
std::string recordName(const std::pair<std::string, std::string>& dataPair, const std::string& groupTag,
                       unsigned long format, const std::string& trustee);

// The unsigned decimal number after the last `marker` in `name` (the whole
// name when there is none); 0 when no digits follow, ULONG_MAX on overflow.
unsigned long numberAfterLast(const std::string& name, char marker);
unsigned long recordDataLength(const std::string& name);
unsigned long recordPid(const std::string& name);
unsigned long recordFormat(const std::string& name);

}  // namespace agent::spf::endpointregistry
