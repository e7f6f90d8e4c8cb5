#include "discovery/kept_records.hpp"

#include <pthread.h>

#include "record/record_name.hpp"
#include "record/record_reader.hpp"

namespace agent::spf::endpointregistry {

KeptRecords& KeptRecords::ofProcess() {
  // Never destroyed: listings may run on other threads while the process
  // exits. A fork waits for a listing under way to let go of the lock, so
  // that the child gets the lock free and the records whole.
  static KeptRecords* const kept = [] {
    auto* made = new KeptRecords;
    pthread_atfork([] { ofProcess().mutex_.lock(); }, [] { ofProcess().mutex_.unlock(); },
                   [] { ofProcess().mutex_.unlock(); });
    return made;
  }();
  return *kept;
}

KeptRecords::Listing KeptRecords::listing(const std::string& trustee, const std::string& prefix) {
  return Listing(*this, trustee, prefix);
}

void KeptRecords::clear() {
  std::lock_guard lock(mutex_);
  byTrustee_.clear();
  count_ = 0;
}

std::size_t KeptRecords::size() {
  std::lock_guard lock(mutex_);
  return count_;
}

KeptRecords::Listing::Listing(KeptRecords& kept, const std::string& trustee, std::string prefix)
    : lock_(kept.mutex_),
      kept_(kept),
      records_(kept.byTrustee_[trustee]),
      prefix_(std::move(prefix)),
      serial_(++kept.serial_) {}

std::optional<KeptRecords::DataPair> KeptRecords::Listing::readLive(const std::string& name) {
  const auto found = records_.find(name);
  if (found == records_.end()) return std::nullopt;
  KeptRecord& record = found->second;
  std::optional<DataPair> data = RecordReader::readLiveView(record.view, record.dataLength);
  if (!data) {
    records_.erase(found);
    --kept_.count_;
    return std::nullopt;
  }
  record.seen = serial_;
  return data;
}

bool KeptRecords::Listing::hasRoom() const noexcept { return kept_.count_ < capacity; }

void KeptRecords::Listing::keep(const std::string& name, SegmentView view) {
  if (!view.isMapped()) return;
  const unsigned long dataLength = RecordName(name).dataLength();
  auto [position, added] = records_.try_emplace(name);
  if (added) {
    if (!hasRoom()) {
      records_.erase(position);
      return;
    }
    ++kept_.count_;
  }
  position->second = KeptRecord{std::move(view), dataLength, serial_};
}

void KeptRecords::Listing::finish() {
  for (auto it = records_.begin(); it != records_.end();) {
    if (it->second.seen != serial_ && it->first.compare(0, prefix_.size(), prefix_) == 0) {
      it = records_.erase(it);
      --kept_.count_;
    } else {
      ++it;
    }
  }
}

}  // namespace agent::spf::endpointregistry
