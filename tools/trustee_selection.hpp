// Which trustees' directories a listing reads: by default the current user's
// own ("" trustee); with --trustee exactly the ones named ("" names the
// user's own); with --all-trustees the user's own and every group the user
// belongs to. --trustee and --all-trustees exclude each other.
#pragma once

#include <set>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

namespace agent::spf::endpointregistry::tool {

struct TrusteeSelection {
  std::vector<std::string> trustees;
  bool allTrustees = false;

  // Adds --trustee (repeatable) and --all-trustees to `command`.
  void addOptions(CLI::App& command);
  // Adds --all-trustees only.
  void addAllTrusteesOption(CLI::App& command);

  // The trustee set the options select.
  std::set<std::string> resolve() const;
};

// The live endpoints of `groupTag` ("" for every tag) under the selected
// trustees, as the library's filter returns them. Clears stale records it meets.
std::vector<std::pair<std::string, std::string>> listEndpoints(const std::string& groupTag,
                                                               const TrusteeSelection& selection);

}  // namespace agent::spf::endpointregistry::tool
