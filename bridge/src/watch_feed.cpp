#include "watch_feed.hpp"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <system_error>

namespace agent::spf::endpointregistry::bridge {

WatchFeed::WatchFeed(const EtcdSettings& settings, std::string prefix) : client_(settings), prefix_(std::move(prefix)) {
  eventFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (eventFd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  thread_ = std::thread([this] { run(); });
}

WatchFeed::~WatchFeed() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  client_.interrupt();
  thread_.join();
  close(eventFd_);
}

void WatchFeed::post(FeedItem item) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    items_.push_back(std::move(item));
  }
  const std::uint64_t one = 1;
  (void)!write(eventFd_, &one, sizeof one);
}

std::vector<FeedItem> WatchFeed::take() {
  std::uint64_t count = 0;
  (void)!read(eventFd_, &count, sizeof count);
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<FeedItem> taken(std::make_move_iterator(items_.begin()), std::make_move_iterator(items_.end()));
  items_.clear();
  return taken;
}

void WatchFeed::run() {
  using namespace std::chrono_literals;
  std::chrono::milliseconds backOff = 100ms;
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_) return;
    }
    try {
      std::int64_t revision = 0;
      std::vector<KeyValue> keys = client_.rangePrefix(prefix_, revision);
      FeedItem snapshot{FeedItem::Snapshot, {}, {}};
      for (KeyValue& kv : keys) snapshot.changes.push_back({false, std::move(kv)});
      post(std::move(snapshot));
      backOff = 100ms;
      client_.watchPrefix(prefix_, revision + 1, [this](const std::vector<WatchEvent>& events, std::int64_t) {
        post({FeedItem::Changes, events, {}});
      });
      continue;  // interrupted: the loop's check ends it
    } catch (const EtcdCompacted& compacted) {
      post({FeedItem::Trouble, {}, std::string(compacted.what()) + "; reading everything again"});
      continue;
    } catch (const std::exception& error) {
      post({FeedItem::Trouble, {}, error.what()});
    }
    std::unique_lock<std::mutex> lock(mutex_);
    wake_.wait_for(lock, backOff, [this] { return stopping_; });
    backOff = std::min<std::chrono::milliseconds>(backOff * 2, 2000ms);
  }
}

}  // namespace agent::spf::endpointregistry::bridge
