#include "healing/held_records.hpp"

#include <pthread.h>
#include <algorithm>
#include <cstring>
#include <mutex>
#include <new>

#include "concurrency/work_queue.hpp"

namespace agent::spf::endpointregistry {
namespace {

struct Registry {
  std::mutex mutex;
  std::vector<Endpoint::Impl*> records;
  WorkThreadGuard primary;  // held while `records` is not empty
};

// Never destroyed: a healer may still be at work while the process exits.
Registry& registry() {
  static Registry* const made = [] {
    pthread_atfork(nullptr, nullptr, [] {
      // The child's records are none, whatever another thread of the
      // parent was doing with the registry at the fork: the old one is
      // parked, never used or destroyed (its primary is the parent's).
      alignas(Registry) static unsigned char parked[sizeof(Registry)];
      std::memcpy(parked, static_cast<void*>(&registry()), sizeof parked);
      ::new (static_cast<void*>(&registry())) Registry{};
    });
    return new Registry{};
  }();
  return *made;
}

}  // namespace

void HeldRecords::add(Endpoint::Impl& record) {
  Registry& held = registry();
  // Taken outside the lock (it may start the thread), kept if the registry
  // has none, dropped after the lock otherwise.
  WorkThreadGuard primary = WorkThreadGuard::holdThread();
  std::lock_guard<std::mutex> lock(held.mutex);
  if (held.records.empty()) held.primary = std::move(primary);
  held.records.push_back(&record);
}

void HeldRecords::remove(Endpoint::Impl& record) noexcept {
  Registry& held = registry();
  WorkThreadGuard primary;  // dropped after the lock is released
  std::lock_guard<std::mutex> lock(held.mutex);
  const auto found = std::find(held.records.begin(), held.records.end(), &record);
  if (found == held.records.end()) return;
  held.records.erase(found);
  if (held.records.empty()) primary = std::move(held.primary);
}

void HeldRecords::withAll(const std::function<void(const std::vector<Endpoint::Impl*>&)>& work) {
  Registry& held = registry();
  std::lock_guard<std::mutex> lock(held.mutex);
  work(held.records);
}

}  // namespace agent::spf::endpointregistry
