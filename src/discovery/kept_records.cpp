#include "discovery/kept_records.hpp"

#include <pthread.h>

#include "record/record_name.hpp"

namespace agent::spf::endpointregistry {

KeptRecords& KeptRecords::ofProcess() {
  // Never destroyed: listings may run on other threads while the process
  // exits. A fork waits for a call under way to let go of the lock, so that
  // the child gets the lock free and the records whole. The mappings are
  // not inherited (see SegmentView): the child forgets them at its first
  // call (forgetIfForked).
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

std::uint64_t KeptRecords::digestOf(const std::vector<std::string>& names) noexcept {
  // A sum of mixed hashes: independent of the order, and changed by a name
  // that comes, goes or is replaced.
  std::uint64_t digest = names.size();
  for (const std::string& name : names) {
    std::uint64_t h = std::hash<std::string>{}(name) + 0x9e3779b97f4a7c15ULL;
    h = (h ^ (h >> 30)) * 0xbf58476d1ce4e5b9ULL;
    h = (h ^ (h >> 27)) * 0x94d049bb133111ebULL;
    digest += h ^ (h >> 31);
  }
  return digest;
}

void KeptRecords::forgetIfForked() {
  const std::uint64_t now = agent::spf::sharedmemory::forkGeneration();
  if (now == generation_) return;
  generation_ = now;
  // Emptied, not erased (see clear()); the views, made before the fork,
  // leave their addresses alone as they go. The sweep stamps hold for the
  // child too.
  for (auto& [trustee, records] : byTrustee_) records.clear();
  count_ = 0;
  names_ = 0;
}

void KeptRecords::clear() {
  std::lock_guard lock(mutex_);
  forgetIfForked();
  // Emptied, not erased: listings under way hold references to them.
  for (auto& [trustee, records] : byTrustee_) records.clear();
  cleanSweeps_.clear();
  count_ = 0;
  names_ = 0;
}

std::size_t KeptRecords::size() {
  std::lock_guard lock(mutex_);
  forgetIfForked();
  return count_;
}

std::size_t KeptRecords::names() {
  std::lock_guard lock(mutex_);
  forgetIfForked();
  return names_;
}

KeptRecords::Listing::Listing(KeptRecords& kept, const std::string& trustee, std::string prefix)
    : Listing(kept, kept.open(trustee), trustee, std::move(prefix)) {}

KeptRecords::Listing::Listing(KeptRecords& kept, Opened opened, const std::string& trustee, std::string prefix)
    : kept_(kept),
      records_(opened.records),
      trustee_(trustee),
      prefix_(std::move(prefix)),
      serial_(opened.serial),
      generation_(opened.generation) {}

KeptRecords::Opened KeptRecords::open(const std::string& trustee) {
  std::lock_guard lock(mutex_);
  forgetIfForked();
  return Opened{byTrustee_[trustee], ++serial_, generation_};
}

std::optional<KeptRecords::DataPair> KeptRecords::Listing::readLive(const std::string& name, bool& mapNow) {
  mapNow = false;
  std::lock_guard lock(kept_.mutex_);
  kept_.forgetIfForked();
  // Forked since the listing began (on this thread): read by name from here
  // on.
  if (generation_ != kept_.generation_) return std::nullopt;
  auto found = records_.find(name);
  if (found == records_.end()) {
    // Met for the first time: noted, read by name and not mapped.
    if (kept_.names_ >= 4 * capacity) return std::nullopt;
    records_.emplace(name, KeptRecord{SegmentView(), DataPair(), RecordReader::LiveMark(), serial_});
    ++kept_.names_;
    return std::nullopt;
  }
  KeptRecord& record = found->second;
  record.seen = serial_;
  if (record.view.isMapped()) {
    if (RecordReader::liveMarkIn(record.view) == record.mark) return record.data;
    record.view = SegmentView();
    record.data = DataPair();
    --kept_.count_;
  }
  mapNow = kept_.count_ < capacity;
  return std::nullopt;
}

void KeptRecords::Listing::keep(const std::string& name, SegmentView view, const DataPair& data) {
  // A view made before a fork that this thread made since is not mapped
  // here; one made after it is unmapped on return.
  if (!view.isMapped() || generation_ != agent::spf::sharedmemory::forkGeneration()) return;
  const std::optional<RecordReader::LiveMark> mark = RecordReader::liveMarkIn(view);
  if (!mark) return;
  DataPair copy = data;
  std::lock_guard lock(kept_.mutex_);
  if (kept_.count_ >= capacity) return;
  const auto found = records_.find(name);
  if (found == records_.end() || found->second.view.isMapped()) return;
  found->second.view = std::move(view);
  found->second.data = std::move(copy);
  found->second.mark = *mark;
  ++kept_.count_;
}

bool KeptRecords::Listing::sweepNeeded(const Stamp& stamp, std::uint64_t namesDigest) const {
  std::lock_guard lock(kept_.mutex_);
  const auto found = kept_.cleanSweeps_.find(trustee_ + '\0' + prefix_);
  return found == kept_.cleanSweeps_.end() || !(found->second.stamp == stamp) ||
         found->second.namesDigest != namesDigest;
}

void KeptRecords::Listing::swept(const Stamp& stamp, std::uint64_t namesDigest, bool everySegmentNamed) {
  const std::string key = trustee_ + '\0' + prefix_;
  std::lock_guard lock(kept_.mutex_);
  if (!everySegmentNamed) {
    kept_.cleanSweeps_.erase(key);
    return;
  }
  if (kept_.cleanSweeps_.size() >= 1024) kept_.cleanSweeps_.clear();
  kept_.cleanSweeps_[key] = CleanSweep{stamp, namesDigest};
}

void KeptRecords::Listing::finish() {
  std::vector<SegmentView> dropped;  // unmapped after the lock is let go
  {
    std::lock_guard lock(kept_.mutex_);
    kept_.forgetIfForked();
    if (generation_ != kept_.generation_) return;  // the records met are those of before the fork
    for (auto it = records_.begin(); it != records_.end();) {
      if (it->second.seen != serial_ && it->first.compare(0, prefix_.size(), prefix_) == 0) {
        if (it->second.view.isMapped()) {
          dropped.push_back(std::move(it->second.view));
          --kept_.count_;
        }
        --kept_.names_;
        it = records_.erase(it);
      } else {
        ++it;
      }
    }
  }
}

}  // namespace agent::spf::endpointregistry
