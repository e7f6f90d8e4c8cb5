// The word before the subcommand, checked before CLI11 parses the line, so
// that a mistyped subcommand or global option is named with a suggestion
// ("unknown subcommand 'lst' (did you mean 'list'?)") instead of CLI11's
// "A subcommand is required".
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace agent::spf::endpointregistry::tool {

// What the first words of the command line say.
struct FirstWord {
  enum Kind {
    Fine,   // a subcommand, or a global option CLI11 handles, or nothing
    Help,   // the word "help": the same as --help
    Wrong,  // an unknown subcommand or global option: `message` says which
  };
  Kind kind = Fine;
  std::string message;
};

// Looks at the words of `arguments` (without the program name) up to the
// first one that is not a global option. `subcommands` are the known names.
FirstWord checkFirstWord(const std::vector<std::string>& arguments, const std::vector<std::string>& subcommands);

// The known word closest to `word` (at most two edits away, or one that it
// begins), or nothing.
std::optional<std::string> closestWord(const std::string& word, const std::vector<std::string>& known);

}  // namespace agent::spf::endpointregistry::tool
