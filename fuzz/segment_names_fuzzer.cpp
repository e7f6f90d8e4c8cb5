// Fuzz target: forming record names and reading their fields back.
//
// Input, front to back (fuzz_input.hpp): a marker byte; a group tag, a first
// and a second data string, each preceded by its length byte (modulo 32); an
// 8-byte format number; then any text. Checked:
//   - the byte hash equals the GNU standard library's std::_Hash_bytes, and
//     the hash text is its lower-case hexadecimal without leading zeros;
//   - a record name formed from the input reads back its data length, this
//     process's id and its format, and begins with its group and synonym
//     prefixes;
//   - numberAfterLast on any text and marker reads what strtoul reads after
//     the marker's last occurrence (stream extraction and strtoul agree on
//     white space, signs, overflow and missing digits).
#include <bits/hash_bytes.h>
#include <unistd.h>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "directory/segment_names.hpp"
#include "fuzz_input.hpp"

namespace {

using namespace agent::spf::endpointregistry;

constexpr std::uint64_t hashSeed = 0xc70f6907;

void check(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "check failed: %s\n", what);
  std::abort();
}

std::string hexadecimal(std::uint64_t value) {
  char text[17];
  std::snprintf(text, sizeof text, "%llx", static_cast<unsigned long long>(value));
  return text;
}

// What stream extraction of an unsigned long yields from the text after the
// last `marker`.
unsigned long referenceNumberAfterLast(const std::string& name, char marker) {
  const std::size_t last = name.rfind(marker);
  const std::string tail = name.substr(last == std::string::npos ? 0 : last + 1);
  errno = 0;
  return std::strtoul(tail.c_str(), nullptr, 10);
}

void checkHash(const std::string& s) {
  const std::uint64_t value = hashBytes(s.data(), s.size(), hashSeed);
  check(value == std::_Hash_bytes(s.data(), s.size(), hashSeed), "hashBytes equals std::_Hash_bytes");
  const std::string text = hashText(s);
  check(text == (s.empty() ? std::string() : hexadecimal(value)), "hash text is the hexadecimal hash");
}

void checkReadBack(const std::string& text, char marker) {
  check(numberAfterLast(text, marker) == referenceNumberAfterLast(text, marker), "numberAfterLast reads as strtoul");
  check(recordDataLength(text) == numberAfterLast(text, 'l'), "recordDataLength reads after l");
  check(recordPid(text) == numberAfterLast(text, 'p'), "recordPid reads after p");
  check(recordFormat(text) == numberAfterLast(text, 'v'), "recordFormat reads after v");
}

void checkRecordName(const std::string& groupTag, const std::pair<std::string, std::string>& data,
                     unsigned long format) {
  const std::string name = recordName(data, groupTag, format, "");
  check(recordDataLength(name) == data.first.size() + data.second.size(), "field l is the data length");
  check(recordPid(name) == static_cast<unsigned long>(getpid()), "field p is the process id");
  check(recordFormat(name) == format, "field v is the format");
  const std::string group = groupPrefix(groupTag);
  const std::string synonym = synonymPrefix(data, groupTag);
  check(group == "qzER" + hashText(groupTag), "group prefix");
  check(synonym == group + hashText(data.first + data.second), "synonym prefix");
  check(name.compare(0, synonym.size(), synonym) == 0, "the name begins with its synonym prefix");
  check(name.compare(0, 4, "qzER") == 0, "the name begins with the record prefix");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  er::fuzz::FuzzInput input(data, size);
  const char marker = static_cast<char>(input.byte());
  const std::string groupTag = input.sizedBytes(32);
  std::pair<std::string, std::string> pair;
  pair.first = input.sizedBytes(32);
  pair.second = input.sizedBytes(32);
  const unsigned long format = input.word();
  const std::string text = input.rest();

  checkHash(groupTag);
  checkHash(pair.first + pair.second);
  checkHash(text);
  checkRecordName(groupTag, pair, format);
  for (char m : {marker, 'l', 'p', 'v'}) checkReadBack(text, m);
  checkReadBack(std::string(reinterpret_cast<const char*>(data), size), marker);
  return 0;
}
