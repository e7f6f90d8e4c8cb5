// Strings from shared memory in the tool's JSON output. JSON strings must be
// UTF-8, and the registry's strings need not be: a string that is valid UTF-8
// is written as it is (JSON itself escapes its control characters), and an
// object whose strings are not all valid UTF-8 carries every one of them in
// the escaped form of text_escape.hpp, together with the member
// "escaped": true.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace agent::spf::endpointregistry::tool {

// JSON values whose members keep the order they were added in.
using Json = nlohmann::ordered_json;

// Adds the members name -> text to `object`, following the rule above for
// the whole group of strings.
void addTexts(Json& object, const std::vector<std::pair<std::string, const std::string*>>& members);

// {"first": ..., "second": ...} for one data pair.
Json pairToJson(const std::pair<std::string, std::string>& pair);

// A JSON array of strings under the same rule; true in `escaped` when the
// array holds escaped forms.
Json textsToJson(const std::vector<std::string>& texts, bool& escaped);

// The text of a JSON value as the tool prints it: compact (indent < 0) or
// indented, UTF-8 kept as it is.
std::string dumpJson(const Json& value, int indent);

}  // namespace agent::spf::endpointregistry::tool
