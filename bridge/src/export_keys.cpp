#include "export_keys.hpp"

#include <cstdint>
#include <nlohmann/json.hpp>

#include "base64.hpp"

namespace agent::spf::endpointregistry::bridge {
namespace {

std::string hexOf(const std::string& bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  for (unsigned char c : bytes) {
    text += digits[c >> 4];
    text += digits[c & 15];
  }
  return text;
}

// FNV-1a over the first string's length and both strings: the same on every
// host.
std::string digestOf(const DataPair& data) {
  std::uint64_t hash = 14695981039346656037ull;
  const auto add = [&hash](unsigned char byte) {
    hash ^= byte;
    hash *= 1099511628211ull;
  };
  for (int shift = 0; shift < 64; shift += 8) add(static_cast<unsigned char>(data.first.size() >> shift));
  for (unsigned char c : data.first) add(c);
  for (unsigned char c : data.second) add(c);
  static constexpr char digits[] = "0123456789abcdef";
  std::string text(16, '0');
  for (int i = 15; i >= 0; --i, hash >>= 4) text[static_cast<std::size_t>(i)] = digits[hash & 15];
  return text;
}

}  // namespace

std::string exportKey(const std::string& prefix, const ExportedEndpoint& endpoint) {
  return prefix + hexOf(endpoint.tag) + "/" + endpoint.host + "/" + digestOf(endpoint.data);
}

std::string exportValue(const ExportedEndpoint& endpoint) {
  return nlohmann::json{{"tag", base64Encode(endpoint.tag)},
                        {"host", endpoint.host},
                        {"first", base64Encode(endpoint.data.first)},
                        {"second", base64Encode(endpoint.data.second)}}
      .dump();
}

std::optional<ExportedEndpoint> parseExport(const std::string& prefix, const std::string& key,
                                            const std::string& value) {
  if (key.rfind(prefix, 0) != 0) return std::nullopt;
  const nlohmann::json parsed = nlohmann::json::parse(value, nullptr, false);
  if (!parsed.is_object()) return std::nullopt;
  for (const char* field : {"tag", "host", "first", "second"}) {
    if (!parsed.contains(field) || !parsed[field].is_string()) return std::nullopt;
  }
  const auto tag = base64Decode(parsed["tag"].get<std::string>());
  const auto first = base64Decode(parsed["first"].get<std::string>());
  const auto second = base64Decode(parsed["second"].get<std::string>());
  if (!tag || !first || !second) return std::nullopt;
  ExportedEndpoint endpoint{*tag, parsed["host"].get<std::string>(), {*first, *second}};
  if (!isValidHostName(endpoint.host) || exportKey(prefix, endpoint) != key) return std::nullopt;
  return endpoint;
}

bool isValidHostName(const std::string& host) {
  if (host.empty()) return false;
  for (unsigned char c : host) {
    if (c <= ' ' || c >= 0x7f || c == '/') return false;
  }
  return true;
}

}  // namespace agent::spf::endpointregistry::bridge
