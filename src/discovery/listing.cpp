// Listing and filtering of the live endpoints. A listing is also the
// registry's garbage collector: reading a record whose publisher died clears
// it away.
#include <endpointregistry/endpoint.hpp>

#include "discovery/current_user_groups.hpp"
#include "endpoint/endpoint_impl.hpp"

namespace agent::spf::endpointregistry {

using DataPairs = std::vector<std::pair<std::string, std::string>>;

DataPairs Endpoint::filter(const std::string& groupTag, std::set<std::string> trustees) {
  if (trustees.empty()) return {};
  // The set de-duplicates (one endpoint under several trustees) and sorts.
  std::set<std::pair<std::string, std::string>> pairs;
  for (const std::string& trustee : trustees) {
    for (const std::string& name : Impl::filterNames(groupTag, trustee)) {
      auto pair = Impl::getDataPair(name, trustee);
      if (pair.first.empty() && pair.second.empty()) continue;
      pairs.insert(std::move(pair));
    }
  }
  DataPairs result;
  result.reserve(pairs.size());
  while (!pairs.empty()) result.push_back(std::move(pairs.extract(pairs.begin()).value()));
  return result;
}

DataPairs Endpoint::list(std::set<std::string> trustees) { return filter("", std::move(trustees)); }

DataPairs Endpoint::filterFromLocal(const std::string& groupTag) { return filter(groupTag, std::set<std::string>{""}); }

DataPairs Endpoint::filter(const std::string& groupTag) { return filterFromLocal(groupTag); }

DataPairs Endpoint::list() { return filter(""); }

DataPairs Endpoint::listFromLocal() { return filterFromLocal(""); }

DataPairs Endpoint::filterFromAllTrustees(const std::string& groupTag) {
  std::set<std::string> trustees = getCurrentUserGroups();
  trustees.insert("");
  return filter(groupTag, std::move(trustees));
}

DataPairs Endpoint::listFromAllTrustees() { return filterFromAllTrustees(""); }

}  // namespace agent::spf::endpointregistry
