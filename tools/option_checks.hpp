// Command-line checks whose messages name the offending word and what would
// be right, where CLI11's own say less ("Value abc not in range", "At Most 1
// required but received 2", "The following argument was not expected").
#pragma once

#include <string>

#include <CLI/CLI.hpp>

namespace agent::spf::endpointregistry::tool {

// A validator of a whole number from `low` to `high` in `unit`s:
//   "'abc' is not a whole number of milliseconds (1 to 3600000)"
//   "0 is out of range (1 to 3600000 milliseconds)"
CLI::Validator wholeNumber(unsigned low, unsigned high, const std::string& unit);

// The message for a single-valued option given more than once, naming the
// values: "--group given 2 times ('a', 'b'); it takes one"; empty when
// `error` is not about such an option.
std::string repeatedOptionMessage(const CLI::App& app, const CLI::Error& error);

// The message for an argument that the parsed subcommand does not expect,
// with the closest option it has: "unknown option '--grup' for list (did you
// mean '--group'?)"; empty when `error` is not about such an argument.
std::string unexpectedArgumentMessage(const CLI::App& app, const CLI::Error& error);

}  // namespace agent::spf::endpointregistry::tool
