// Construction, publication, moving and withdrawal of Endpoint objects.
#include <endpointregistry/endpoint.hpp>

#include <utility>

#include "diagnostics/diagnostics.hpp"
#include "endpoint/endpoint_impl.hpp"
#include "endpoint/registry_operation.hpp"

namespace agent::spf::endpointregistry {

Endpoint::DuplicateEndpointError::DuplicateEndpointError()
    : std::runtime_error("Endpoint already exists in registry") {}

Endpoint::Endpoint() noexcept = default;

Endpoint::Endpoint(const std::pair<std::string, std::string>& data, const std::string& groupTag) {
  if (data.first.empty() && data.second.empty()) {
    logMessage(mainLogger(), Error, "Endpoint(): Data strings cannot be both empty.");
    throw std::invalid_argument("Endpoint data strings cannot be both empty");
  }
  if (groupTag.empty()) {
    logMessage(mainLogger(), Error, "Endpoint(): Group tag cannot be empty.");
    throw std::invalid_argument("Endpoint group tag cannot be both empty");
  }

  // The counts and the record's locks share one work thread, which the
  // record then keeps; without this each count would start and join one.
  const RegistryOperation operation;

  // Optimistic duplicate detection: count, publish, count again. A second
  // record seen after publishing was published at the same moment by
  // someone else; withdraw and let a fresh count decide.
  std::size_t synonyms = Impl::countSynonymEndpoints(data, groupTag);
  for (;;) {
    if (synonyms != 0) throw DuplicateEndpointError();
    ownRecord.reset();
    ownRecord = std::make_unique<Impl>(data, groupTag, "");
    if (Impl::countSynonymEndpoints(data, groupTag) == 1) return;
    ownRecord.reset();
    synonyms = Impl::countSynonymEndpoints(data, groupTag);
  }
}

Endpoint Endpoint::publish(const std::string& first, const std::string& second, const std::string& groupTag) {
  return Endpoint(std::pair<std::string, std::string>(first, second), groupTag);
}

Endpoint::Endpoint(Endpoint&& other) noexcept
    : ownRecord(std::move(other.ownRecord)), trusteeRecords(std::move(other.trusteeRecords)) {}

Endpoint& Endpoint::operator=(Endpoint&& other) {
  if (this == &other) return *this;
  try {
    if (ownRecord && other.ownRecord && lifetimeLevelEnabled(LifetimeTrace)) {
      logMessage(lifetimeLogger(), LifetimeTrace, "Endpoint: Moving ", other.ownRecord->getGroupTag());
    }
    // The previous own record is withdrawn here, before the previous trustee records.
    ownRecord = std::move(other.ownRecord);
    std::vector<std::unique_ptr<Impl>> previous = std::exchange(trusteeRecords, std::move(other.trusteeRecords));
    other.trusteeRecords = std::vector<std::unique_ptr<Impl>>();
    for (auto& record : previous) record.reset();
  } catch (...) {
    logCaughtException(lifetimeLogger());
    throw;
  }
  return *this;
}

Endpoint::~Endpoint() {
  const RegistryOperation operation(RegistryOperation::WorkThread::NotHeld);
  if (ownRecord && lifetimeLevelEnabled(LifetimeTrace)) {
    logMessage(lifetimeLogger(), LifetimeTrace, "Endpoint: Destructing ", ownRecord->getGroupTag());
  }
  for (auto& record : trusteeRecords) record.reset();
  std::vector<std::unique_ptr<Impl>>().swap(trusteeRecords);
  ownRecord.reset();
}

Endpoint::operator bool() const noexcept { return ownRecord != nullptr; }

void Endpoint::reset() noexcept {
  for (auto& record : trusteeRecords) record.reset();
  trusteeRecords.clear();
  ownRecord.reset();
}

}  // namespace agent::spf::endpointregistry
