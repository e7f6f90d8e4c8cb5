// The other hosts' endpoints, as etcd holds them: a thread that reads every
// key under the prefix, then watches from the next revision, and does both
// again after any failure (with back-off: 0.1 s doubling to 2 s) or after a
// compaction, so that no change is missed. What it learns is queued for the
// bridge's loop, which an eventfd wakes.
//
// Threads: the feed's own; take() and fd() from one other thread.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "etcd_client.hpp"

namespace agent::spf::endpointregistry::bridge {

struct FeedItem {
  enum Kind {
    Snapshot,  // every key under the prefix: `changes` holds them, as puts
    Changes,   // puts and deletions since the last item
    Trouble,   // reading or watching failed: `message` says why
  };
  Kind kind = Changes;
  std::vector<WatchEvent> changes;
  std::string message;
};

class WatchFeed {
 public:
  // Starts the thread. Throws EtcdError or std::system_error.
  WatchFeed(const EtcdSettings& settings, std::string prefix);
  // Stops and joins the thread (a watch under way is interrupted at once).
  ~WatchFeed();
  WatchFeed(const WatchFeed&) = delete;
  WatchFeed& operator=(const WatchFeed&) = delete;

  // Readable while items wait.
  int fd() const noexcept { return eventFd_; }
  // The waiting items, in order; empties the descriptor.
  std::vector<FeedItem> take();

 private:
  void run();
  void post(FeedItem item);

  EtcdClient client_;
  std::string prefix_;
  int eventFd_ = -1;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::deque<FeedItem> items_;
  std::thread thread_;
};

}  // namespace agent::spf::endpointregistry::bridge
