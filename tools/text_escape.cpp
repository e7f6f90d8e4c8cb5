#include "text_escape.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace agent::spf::endpointregistry::tool {
namespace {

// Decodes one well-formed UTF-8 sequence at `position`: its code point and
// length, or length 0 when the bytes there are not well-formed.
struct Decoded {
  char32_t codePoint = 0;
  std::size_t length = 0;
};

Decoded decodeAt(const std::string& text, std::size_t position) {
  const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byteAt(position);
  if (lead < 0x80) return {lead, 1};
  std::size_t length = 0;
  char32_t codePoint = 0;
  char32_t minimum = 0;
  if (lead >= 0xc2 && lead <= 0xdf) {
    length = 2, codePoint = lead & 0x1fu, minimum = 0x80;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    length = 3, codePoint = lead & 0x0fu, minimum = 0x800;
  } else if (lead >= 0xf0 && lead <= 0xf4) {
    length = 4, codePoint = lead & 0x07u, minimum = 0x10000;
  } else {
    return {};
  }
  if (text.size() - position < length) return {};
  for (std::size_t i = 1; i < length; ++i) {
    const unsigned char next = byteAt(position + i);
    if ((next & 0xc0u) != 0x80u) return {};
    codePoint = (codePoint << 6) | (next & 0x3fu);
  }
  if (codePoint < minimum || codePoint > 0x10ffff || (codePoint >= 0xd800 && codePoint <= 0xdfff)) return {};
  return {codePoint, length};
}

// Characters that a terminal would not show as themselves.
bool isInvisible(char32_t codePoint) {
  return codePoint < 0x20 || (codePoint >= 0x7f && codePoint <= 0x9f) || codePoint == 0x200e || codePoint == 0x200f ||
         (codePoint >= 0x2028 && codePoint <= 0x202e) || (codePoint >= 0x2066 && codePoint <= 0x2069);
}

void appendByteEscape(std::string& out, unsigned char byte) {
  char buffer[8];
  std::snprintf(buffer, sizeof buffer, "\\x%02x", byte);
  out += buffer;
}

void appendCodePointEscape(std::string& out, char32_t codePoint) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "\\u{%04x}", static_cast<unsigned>(codePoint));
  out += buffer;
}

}  // namespace

bool isValidUtf8(const std::string& text) {
  for (std::size_t position = 0; position < text.size();) {
    const Decoded decoded = decodeAt(text, position);
    if (decoded.length == 0) return false;
    position += decoded.length;
  }
  return true;
}

std::string escapeText(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t position = 0; position < text.size();) {
    const Decoded decoded = decodeAt(text, position);
    if (decoded.length == 0) {
      appendByteEscape(out, static_cast<unsigned char>(text[position]));
      ++position;
      continue;
    }
    const char32_t c = decoded.codePoint;
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c < 0x80 && isInvisible(c)) {
      appendByteEscape(out, static_cast<unsigned char>(c));
    } else if (isInvisible(c)) {
      appendCodePointEscape(out, c);
    } else {
      out.append(text, position, decoded.length);
    }
    position += decoded.length;
  }
  return out;
}

std::string displayText(const std::string& text) { return text.empty() ? std::string("\"\"") : escapeText(text); }

std::string quotedWord(const std::string& text) {
  const std::string shown = displayText(text);
  if (text.empty() || shown.find_first_of(" \"'") == std::string::npos) return shown;
  std::string quoted = "\"";
  for (char c : shown) {
    if (c == '"') quoted += '\\';
    quoted += c;
  }
  return quoted + "\"";
}

}  // namespace agent::spf::endpointregistry::tool
