#include "json_text.hpp"

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

}  // namespace agent::spf::endpointregistry::tool
