#include "trustee_selection.hpp"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include <agent/spf/sharedmemory/shared_memory.hpp>
#include <endpointregistry/endpoint.hpp>

#include "discovery/current_user_groups.hpp"
#include "text_escape.hpp"

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

namespace {

std::string yourGroups(const std::set<std::string>& groups) {
  if (groups.empty()) return "you have no supplementary groups, and only those can be trustees";
  std::string text = "your groups: ";
  bool first = true;
  for (const std::string& group : groups) {
    text += (first ? "" : ", ") + displayText(group);
    first = false;
  }
  return text;
}

}  // namespace

void checkTrustee(const std::string& trustee) {
  if (trustee.empty()) return;
  const std::set<std::string> groups = getCurrentUserGroups();
  if (groups.count(trustee) == 0) {
    const bool exists = getgrnam(trustee.c_str()) != nullptr;
    throw std::runtime_error("trustee '" + displayText(trustee) + "'" +
                             (exists ? " is not one of your groups" : ": no such group") + " (" + yourGroups(groups) +
                             ")");
  }
  const std::string folder = agent::spf::sharedmemory::scopeFolderPath(trustee);
  struct stat status {};
  if (!folder.empty() && stat(folder.c_str(), &status) == 0 && access(folder.c_str(), R_OK | X_OK) != 0 &&
      errno == EACCES) {
    throw std::runtime_error("trustee '" + displayText(trustee) + "': permission denied (" + folder + ")");
  }
}

std::set<std::string> TrusteeSelection::resolve() const {
  for (const std::string& trustee : trustees) checkTrustee(trustee);
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
