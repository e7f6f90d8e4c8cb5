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

#include <CLI/CLI.hpp>
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

// --json, --json=pretty, --json=short: whether and how a command writes one
// JSON document. Bare --json indents it for a terminal and writes it compact
// into a pipe or a file.
struct JsonStyle {
  std::string style;  // "" (no JSON), "auto", "pretty" or "short"

  bool on() const noexcept { return !style.empty(); }
  // The indent for dumpJson(): 2 when pretty, -1 when short.
  int indent() const;
};

// Adds --json[=pretty|short] to `command`; `what` says what is written.
void addJsonOption(CLI::App& command, JsonStyle& json, const std::string& what);

}  // namespace agent::spf::endpointregistry::tool
