#include "option_checks.hpp"

#include <regex>
#include <sstream>

#include "first_word.hpp"

namespace agent::spf::endpointregistry::tool {

CLI::Validator wholeNumber(unsigned low, unsigned high, const std::string& unit) {
  return CLI::Validator(
      [low, high, unit](std::string& text) -> std::string {
        const std::string range = std::to_string(low) + " to " + std::to_string(high);
        if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos) {
          return "'" + text + "' is not a whole number of " + unit + " (" + range + ")";
        }
        const unsigned long value = std::stoul(text);
        if (value < low || value > high) return text + " is out of range (" + range + " " + unit + ")";
        return {};
      },
      "", "");
}

namespace {

// The subcommand that the command line selected, or the app itself.
const CLI::App& selected(const CLI::App& app) {
  const CLI::App* command = &app;
  for (const CLI::App* sub : app.get_subcommands()) command = sub;
  return *command;
}

}  // namespace

std::string repeatedOptionMessage(const CLI::App& app, const CLI::Error& error) {
  static const std::regex pattern(R"((--[a-z-]+): At Most 1 required but received (\d+))");
  std::smatch parts;
  const std::string text = error.what();
  if (!std::regex_search(text, parts, pattern)) return {};
  std::string values;
  if (const CLI::Option* option = selected(app).get_option_no_throw(parts[1].str())) {
    for (const std::string& value : option->results()) values += (values.empty() ? "" : ", ") + ("'" + value + "'");
  }
  return parts[1].str() + " given " + parts[2].str() + " times" + (values.empty() ? "" : " (" + values + ")") +
         "; it takes one";
}

std::string unexpectedArgumentMessage(const CLI::App& app, const CLI::Error& error) {
  static const std::regex pattern(R"(The following arguments? (?:was|were) not expected: (.*))");
  std::smatch parts;
  const std::string text = error.what();
  if (!std::regex_match(text, parts, pattern)) return {};
  // The first option among the extra words, else the first word.
  std::istringstream extras(parts[1].str());
  std::string word;
  std::string first;
  while (extras >> word && word.rfind('-', 0) != 0) {
    if (first.empty()) first = word;
  }
  if (word.rfind('-', 0) != 0) word = first;
  const CLI::App* command = &selected(app);
  std::vector<std::string> names;
  for (const CLI::Option* option : command->get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  const std::string where = command == &app ? std::string() : " for " + command->get_name();
  if (word.rfind('-', 0) != 0) return "unexpected word '" + word + "'" + where;
  const std::optional<std::string> suggestion = closestWord(word, names);
  return "unknown option '" + word + "'" + where + (suggestion ? " (did you mean '" + *suggestion + "'?)" : "");
}

}  // namespace agent::spf::endpointregistry::tool
