// The rule for trustees: apart from "" (an endpoint's own record, visible to
// its user alone), a trustee must name a group of the current user.
#include <set>
#include <stdexcept>
#include <string>

#include "diagnostics/diagnostics.hpp"
#include "discovery/current_user_groups.hpp"
#include "endpoint/endpoint_impl.hpp"

namespace agent::spf::endpointregistry {

// Reads the groups afresh on every call, so a change of the user's groups
// takes effect at the next record. Names compare exactly, case included.
std::string Endpoint::Impl::checkTrustee(const std::string& trustee) {
  if (trustee.empty()) return {};
  const std::set<std::string> groups = getCurrentUserGroups();
  if (groups.count(trustee) != 0) return trustee;
  logMessage(mainLogger(), LogLevel::Error, "Endpoint::Impl(): <", trustee,
             "> is not a allowed trustee for the current user.");
  throw std::invalid_argument("Trustees can only be groups of the current user");
}

}  // namespace agent::spf::endpointregistry
