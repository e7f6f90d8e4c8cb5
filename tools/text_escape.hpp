// How the tool shows strings that come out of shared memory. The registry
// gives data strings no meaning, so they may hold terminal control sequences
// or bytes that are not UTF-8; the tool never writes those raw.
#pragma once

#include <string>

namespace agent::spf::endpointregistry::tool {

// True when `text` is well-formed UTF-8 (no overlong forms, no surrogates,
// nothing above U+10FFFF).
bool isValidUtf8(const std::string& text);

// `text` with everything that is not printable UTF-8 written as an escape:
// a backslash as \\, newline, tab and carriage return as \n, \t and \r, other
// control bytes and bytes that are not part of well-formed UTF-8 as \xNN
// (lower-case hex), and the invisible direction and line-separator characters
// (U+200E, U+200F, U+2028 to U+202E, U+2066 to U+2069) and C1 controls as
// \u{NNNN}. The result is valid, printable UTF-8 from which `text` can be
// recovered.
std::string escapeText(const std::string& text);

// escapeText(), except that the empty string is shown as "" so that a table
// cell or a word on a line never vanishes.
std::string displayText(const std::string& text);

// displayText() as one word of a line: in double quotes when it holds a
// blank or a quote (a double quote inside written \"), so that a line of
// words splits back into the strings it shows.
std::string quotedWord(const std::string& text);

}  // namespace agent::spf::endpointregistry::tool
