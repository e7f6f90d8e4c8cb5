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

  // The trustee set the options select. Throws std::runtime_error (see
  // checkTrustee()) for a named trustee that is not one of the user's groups
  // or whose directory the user may not read.
  std::set<std::string> resolve() const;
};

// Throws std::runtime_error unless `trustee` is "" or one of the user's
// (supplementary) groups whose scope folder, if it exists, the user may
// read. The message names it and what is wrong:
//   trustee 'nope': no such group (your groups: monitoring, ops)
//   trustee 'root' is not one of your groups (your groups: monitoring, ops)
//   trustee 'ops': permission denied (/dev/shm/g1001)
void checkTrustee(const std::string& trustee);

// The live endpoints of `groupTag` ("" for every tag) under the selected
// trustees, as the library's filter returns them. Clears stale records it meets.
std::vector<std::pair<std::string, std::string>> listEndpoints(const std::string& groupTag,
                                                               const TrusteeSelection& selection);

}  // namespace agent::spf::endpointregistry::tool
