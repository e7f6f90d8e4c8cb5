// Base64 (RFC 4648, with padding), as etcd's JSON gateway carries keys and
// values.
#pragma once

#include <optional>
#include <string>

namespace agent::spf::endpointregistry::bridge {

std::string base64Encode(const std::string& bytes);

// The bytes of `text`; nothing when it is not base64.
std::optional<std::string> base64Decode(const std::string& text);

}  // namespace agent::spf::endpointregistry::bridge
