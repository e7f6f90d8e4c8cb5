// The trustees of one published endpoint: further records of the same data
// and group tag, one per group of the current user.
#include <endpointregistry/endpoint.hpp>

#include <algorithm>
#include <iterator>

#include "diagnostics/diagnostics.hpp"
#include "endpoint/endpoint_impl.hpp"

namespace agent::spf::endpointregistry {
namespace {

[[noreturn]] void refuseEmptyEndpoint(const char* message, unsigned level) {
  logMessage(mainLogger(), level, message);
  throw std::invalid_argument("Empty endpoints do not support trustees");
}

std::set<std::string> difference(const std::set<std::string>& from, const std::set<std::string>& without) {
  std::set<std::string> result;
  std::set_difference(from.begin(), from.end(), without.begin(), without.end(), std::inserter(result, result.end()));
  return result;
}

}  // namespace

std::set<std::string> Endpoint::getTrustees() {
  if (!ownRecord) refuseEmptyEndpoint("Endpoint:getTrustees:Not supported on empty object", Error);
  std::set<std::string> trustees;
  for (const auto& record : trusteeRecords) trustees.insert(record->getTrustee());
  return trustees;
}

void Endpoint::addTrustees(std::set<std::string> trustees) {
  if (!ownRecord) refuseEmptyEndpoint("Endpoint:addTrustees:Not supported on empty object", Error);
  const auto data = ownRecord->getDataPair();
  const auto groupTag = ownRecord->getGroupTag();
  // Records are made one by one in ascending order; a failure leaves those
  // made before it published.
  for (const std::string& trustee : difference(trustees, getTrustees())) {
    if (trustee.empty()) continue;
    auto record = std::make_unique<Impl>(data, groupTag, trustee);
    trusteeRecords.push_back(std::move(record));
  }
}

void Endpoint::removeTrustees(std::set<std::string> trustees) {
  if (!ownRecord) refuseEmptyEndpoint("Endpoint:removeTrustees:Not supported on empty object", RefusedRequest);
  (void)ownRecord->getDataPair();
  (void)ownRecord->getGroupTag();
  std::vector<std::unique_ptr<Impl>> kept;
  kept.reserve(trusteeRecords.size());
  for (auto& record : trusteeRecords) {
    if (trustees.count(record->getTrustee()) != 0) {
      record.reset();
    } else {
      kept.push_back(std::move(record));
    }
  }
  trusteeRecords = std::move(kept);
}

void Endpoint::clearTrustees() {
  if (!ownRecord) refuseEmptyEndpoint("Endpoint:clearTrustees:Not supported on empty object", RefusedRequest);
  for (auto& record : trusteeRecords) record.reset();
  trusteeRecords.clear();
}

void Endpoint::setTrustees(std::set<std::string> trustees) {
  if (!ownRecord) refuseEmptyEndpoint("Endpoint:setTrustees:Not supported on empty object", Error);
  const std::set<std::string> old = getTrustees();
  // New trustees first, so the endpoint never drops out of a wanted group.
  addTrustees(difference(trustees, old));
  removeTrustees(difference(old, trustees));
}

}  // namespace agent::spf::endpointregistry
