#include "json_text.hpp"

#include <unistd.h>

#include <algorithm>

#include "text_escape.hpp"

namespace agent::spf::endpointregistry::tool {

void addTexts(Json& object, const std::vector<std::pair<std::string, const std::string*>>& members) {
  const bool valid =
      std::all_of(members.begin(), members.end(), [](const auto& member) { return isValidUtf8(*member.second); });
  for (const auto& [name, text] : members) object[name] = valid ? *text : escapeText(*text);
  if (!valid) object["escaped"] = true;
}

Json pairToJson(const std::pair<std::string, std::string>& pair) {
  Json object = Json::object();
  addTexts(object, {{"first", &pair.first}, {"second", &pair.second}});
  return object;
}

Json textsToJson(const std::vector<std::string>& texts, bool& escaped) {
  escaped = !std::all_of(texts.begin(), texts.end(), [](const std::string& text) { return isValidUtf8(text); });
  Json array = Json::array();
  for (const std::string& text : texts) array.push_back(escaped ? escapeText(text) : text);
  return array;
}

std::string dumpJson(const Json& value, int indent) { return value.dump(indent); }

int JsonStyle::indent() const {
  if (style == "pretty") return 2;
  if (style == "short") return -1;
  return isatty(STDOUT_FILENO) ? 2 : -1;
}

void addJsonOption(CLI::App& command, JsonStyle& json, const std::string& what) {
  command
      .add_flag("--json{auto}", json.style,
                what + " (indented for a terminal, compact otherwise; --json=pretty or --json=short to choose)")
      ->check(CLI::IsMember({"auto", "pretty", "short"}))
      ->option_text("[=pretty|short]");
}

}  // namespace agent::spf::endpointregistry::tool
