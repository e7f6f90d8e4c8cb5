#include "first_word.hpp"

#include <algorithm>
#include <cctype>

namespace agent::spf::endpointregistry::tool {
namespace {

// Global options, as main() declares them.
const std::vector<std::string> globalOptions{"--help", "-h", "--version", "--verbose", "-v"};

std::string lowered(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// Levenshtein distance, case-insensitive.
std::size_t distance(const std::string& a, const std::string& b) {
  const std::string x = lowered(a);
  const std::string y = lowered(b);
  std::vector<std::size_t> row(y.size() + 1);
  for (std::size_t j = 0; j <= y.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= x.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= y.size(); ++j) {
      const std::size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (x[i - 1] == y[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[y.size()];
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : ", ") + word;
  return text;
}

}  // namespace

std::optional<std::string> closestWord(const std::string& word, const std::vector<std::string>& known) {
  std::optional<std::string> best;
  std::size_t bestDistance = 3;
  for (const std::string& candidate : known) {
    std::size_t d = distance(word, candidate);
    if (word.size() >= 2 && lowered(candidate).rfind(lowered(word), 0) == 0) d = std::min<std::size_t>(d, 1);
    if (d < bestDistance) {
      best = candidate;
      bestDistance = d;
    }
  }
  return best;
}

FirstWord checkFirstWord(const std::vector<std::string>& arguments, const std::vector<std::string>& subcommands) {
  for (const std::string& word : arguments) {
    if (word == "-v" || word == "--verbose") continue;
    if (std::find(subcommands.begin(), subcommands.end(), word) != subcommands.end()) return {};
    if (std::find(globalOptions.begin(), globalOptions.end(), word) != globalOptions.end()) return {};
    if (word == "help") return {FirstWord::Help, {}};
    if (!word.empty() && word[0] == '-') {
      // "-V" is how many tools ask for their version.
      const std::optional<std::string> suggestion = word == "-V"
                                                        ? std::optional<std::string>("--version")
                                                        : closestWord(word, {"--help", "--version", "--verbose"});
      return {FirstWord::Wrong, "unknown option '" + word + "'" +
                                    (suggestion ? " (did you mean '" + *suggestion + "'?)" : std::string())};
    }
    const std::optional<std::string> suggestion = closestWord(word, subcommands);
    return {FirstWord::Wrong,
            "unknown subcommand '" + word + "' (" +
                (suggestion ? "did you mean '" + *suggestion + "'?" : "the subcommands are " + joined(subcommands)) +
                ")"};
  }
  return {};
}

}  // namespace agent::spf::endpointregistry::tool
