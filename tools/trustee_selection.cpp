#include "trustee_selection.hpp"

#include <endpointregistry/endpoint.hpp>

#include "discovery/current_user_groups.hpp"

namespace agent::spf::endpointregistry::tool {

void TrusteeSelection::addOptions(CLI::App& command) {
  CLI::Option* trustee =
      command.add_option("--trustee", trustees, "Read this trustee's directory (repeatable; \"\" is your own)")
          ->type_name("GROUP")
          ->allow_extra_args(false);
  CLI::Option* all = command.add_flag("--all-trustees", allTrustees, "Read your own and all your groups' directories");
  trustee->excludes(all);
}

void TrusteeSelection::addAllTrusteesOption(CLI::App& command) {
  command.add_flag("--all-trustees", allTrustees, "Read your own and all your groups' directories");
}

std::set<std::string> TrusteeSelection::resolve() const {
  if (allTrustees) {
    std::set<std::string> all = getCurrentUserGroups();
    all.insert("");
    return all;
  }
  if (trustees.empty()) return {""};
  return std::set<std::string>(trustees.begin(), trustees.end());
}

std::vector<std::pair<std::string, std::string>> listEndpoints(const std::string& groupTag,
                                                               const TrusteeSelection& selection) {
  if (selection.allTrustees) return Endpoint::filterFromAllTrustees(groupTag);
  return Endpoint::filter(groupTag, selection.resolve());
}

}  // namespace agent::spf::endpointregistry::tool
