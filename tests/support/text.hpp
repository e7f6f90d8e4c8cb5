// Joins pieces of text. Used where "literal" + std::to_string(n) would do:
// GCC 12 warns falsely about that expression (-Wrestrict) in optimised builds.
#pragma once

#include <string>

namespace er::test {

template <typename... Pieces>
std::string concat(const Pieces&... pieces) {
  std::string text;
  (text.append(pieces), ...);
  return text;
}

}  // namespace er::test
