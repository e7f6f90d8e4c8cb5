// How a bridge writes an endpoint into etcd, and reads another host's.
//
//   key    <prefix><hex of the group tag>/<host>/<digest of the data pair>
//   value  {"tag": b64, "host": "...", "first": b64, "second": b64}
//
// The key names the tag, the host and the data, so that each host's copy of
// an endpoint is a key of its own; the value carries the bytes exactly
// (base64), whatever they are.
#pragma once

#include <optional>
#include <string>
#include <utility>

namespace agent::spf::endpointregistry::bridge {

using DataPair = std::pair<std::string, std::string>;

struct ExportedEndpoint {
  std::string tag;
  std::string host;
  DataPair data;
};

std::string exportKey(const std::string& prefix, const ExportedEndpoint& endpoint);
std::string exportValue(const ExportedEndpoint& endpoint);

// The endpoint a key and its value under `prefix` describe; nothing for a
// key or value that is not one (another program's, or damaged).
std::optional<ExportedEndpoint> parseExport(const std::string& prefix, const std::string& key,
                                            const std::string& value);

// Whether `host` can stand in a key: not empty, no '/', printable ASCII.
bool isValidHostName(const std::string& host);

}  // namespace agent::spf::endpointregistry::bridge
