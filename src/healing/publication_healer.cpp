#include "healing/publication_healer.hpp"

#include <chrono>
#include <exception>
#include <mutex>
#include <unordered_set>
#include <utility>
#include <vector>

#include <agent/spf/sharedmemory/mapped_access.hpp>
#include <agent/spf/sharedmemory/shared_memory.hpp>

#include "concurrency/work_queue.hpp"
#include "diagnostics/diagnostics.hpp"
#include "directory/directory_entry.hpp"
#include "directory/segment_names.hpp"
#include "endpoint/endpoint_impl.hpp"
#include "healing/held_records.hpp"

namespace agent::spf::endpointregistry::healing {
namespace {

using Record = Endpoint::Impl;

// At most one failure a second is logged, with the number of those left
// unlogged before it: a process whose segments another keeps cutting must
// not flood the log.
constexpr auto logInterval = std::chrono::seconds(1);
std::mutex logMutex;
std::chrono::steady_clock::time_point lastLogged;
unsigned long unlogged = 0;

void logFailure(const std::string& text) noexcept {
  try {
    unsigned long skipped = 0;
    {
      std::lock_guard<std::mutex> lock(logMutex);
      const auto now = std::chrono::steady_clock::now();
      if (lastLogged != std::chrono::steady_clock::time_point{} && now - lastLogged < logInterval) {
        ++unlogged;
        return;
      }
      lastLogged = now;
      skipped = std::exchange(unlogged, 0);
    }
    logMessage(mainLogger(), Error, "PublicationHealer: ", text, " (", skipped, " more failure(s) not logged before)");
  } catch (...) {
  }
}

void logFailure(const Record& record, const char* what, const std::exception& error) noexcept {
  try {
    logFailure(std::string(what) + " " + record.recordNameText() + " (trustee \"" + record.getTrustee() +
               "\"): " + error.what());
  } catch (...) {
  }
}

HealingOutcome heal(const std::vector<Record*>& records, const std::set<std::string>& trustees, bool all,
                    bool logFailures) {
  HealingOutcome outcome;
  // Runs `step` for `record`; false (logged if wanted) when it throws.
  const auto attempt = [logFailures](const Record& record, const char* what, const auto& step) {
    try {
      step();
      return true;
    } catch (const std::exception& error) {
      if (logFailures) logFailure(record, what, error);
      return false;
    }
  };
  std::vector<Record*> chosen;
  for (Record* record : records) {
    if (all || trustees.count(record->getTrustee()) != 0) chosen.push_back(record);
  }
  // Segments first. A record whose own bytes were damaged takes its lane
  // out of service, and every record of that lane is published anew.
  std::unordered_set<const WorkQueue*> damagedLanes;
  for (Record* record : chosen) {
    outcome.directoriesSeen.insert(record->getTrustee());
    switch (record->segmentHealth()) {
      case Record::SegmentHealth::Intact:
        break;
      case Record::SegmentHealth::Unnamed:
        outcome.succeeded &= attempt(*record, "Failed to publish again", [&] { record->republish(true); });
        break;
      case Record::SegmentHealth::Damaged:
        damagedLanes.insert(record->lane());
        break;
    }
  }
  for (const WorkQueue* lane : damagedLanes) {
    WorkThreadGuard::retireLane(lane);
    for (Record* record : records) {
      if (record->lane() != lane) continue;
      outcome.directoriesSeen.insert(record->getTrustee());
      outcome.succeeded &= attempt(*record, "Failed to publish again", [&] { record->republish(false); });
    }
  }
  // Then names: each record's name in its trustee's directory, read once
  // per trustee. Naming one again rebuilds a lost directory from every live
  // record of its scope.
  for (const std::string& trustee : outcome.directoriesSeen) {
    std::unordered_set<std::string> named;
    for (std::string& name : listDirectoryNames(recordPrefix, trustee)) named.insert(std::move(name));
    for (Record* record : records) {
      if (record->getTrustee() != trustee || named.count(record->recordNameText()) != 0) continue;
      outcome.succeeded &= attempt(*record, "Failed to name again", [&] { (void)record->restoreName(); });
    }
  }
  return outcome;
}

}  // namespace

HealingOutcome healPublications(const std::set<std::string>& trustees, bool all, bool logFailures) noexcept {
  HealingOutcome outcome;
  try {
    const agent::spf::sharedmemory::MappedAccess mapped;
    const WorkThreadHold workThread;
    HeldRecords::withAll(
        [&](const std::vector<Record*>& records) { outcome = heal(records, trustees, all, logFailures); });
  } catch (const std::exception& error) {
    if (logFailures) logFailure(error.what());
    outcome.succeeded = false;
  } catch (...) {
    outcome.succeeded = false;
  }
  return outcome;
}

}  // namespace agent::spf::endpointregistry::healing
