#include "bridge.hpp"

#include <poll.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>

#include <endpointregistry/endpoint.hpp>
#include <endpointregistry/watcher.hpp>
#include <foundation/log/diagnostic_logger.hpp>
#include <foundation/log/log_message.hpp>

#include "export_keys.hpp"
#include "watch_feed.hpp"

namespace agent::spf::endpointregistry::bridge {
namespace {

using Clock = std::chrono::steady_clock;
using TaggedPair = std::pair<std::string, DataPair>;  // group tag, data

enum BridgeLevel : unsigned { Activity = 32, Trouble = 256, Failure = 512 };

foundation::log::diagnostic_logger& logger() {
  static foundation::log::diagnostic_logger channel("agent::spf::endpointregistry::bridge");
  return channel;
}

template <typename... Pieces>
void say(unsigned level, const Pieces&... pieces) {
  try {
    foundation::log::logMessage(logger(), level, pieces...);
  } catch (const std::exception&) {
    // A line that cannot be written is dropped.
  }
}

// The data pair for a log line: printable bytes as they are, others \xNN.
std::string shown(const TaggedPair& tagged) {
  const auto escape = [](const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
      if (c >= 0x20 && c < 0x7f && c != '\\') {
        out += static_cast<char>(c);
      } else {
        static constexpr char digits[] = "0123456789abcdef";
        out += "\\x";
        out += digits[c >> 4];
        out += digits[c & 15];
      }
    }
    return out;
  };
  return escape(tagged.second.first) + " " + escape(tagged.second.second) + " (group " + escape(tagged.first) + ")";
}

class BridgeLoop {
 public:
  explicit BridgeLoop(const BridgeOptions& options) : options_(options), client_(options.etcd) {
    for (const std::string& tag : options.tags) watchers_.emplace(tag, Watcher(tag, options.trustees));
    feed_ = std::make_unique<WatchFeed>(options.etcd, options.prefix);
  }

  int run(int stopFd);

 private:
  void readLocal(const std::string& tag, Watcher& watcher);
  void readFeed();
  void keepLease();
  void reconcileImports();
  void reconcileExports();
  void withdrawImport(std::map<TaggedPair, Endpoint>::iterator held);
  void shutDown();

  const BridgeOptions& options_;
  EtcdClient client_;
  std::map<std::string, Watcher> watchers_;
  std::unique_ptr<WatchFeed> feed_;

  std::map<std::string, std::set<DataPair>> local_;  // by tag: what the listings hold
  std::map<std::string, ExportedEndpoint> remote_;   // by key: other hosts' endpoints
  std::map<TaggedPair, Endpoint> imports_;           // published here by the bridge
  std::map<TaggedPair, std::string> exports_;        // in etcd, by key
  bool exportsStale_ = true;                         // every export to be put again

  std::int64_t lease_ = 0;
  Clock::time_point nextRenewal_ = Clock::now();
  Clock::time_point lastContact_ = Clock::now();
  std::chrono::milliseconds retry_{250};
  bool importsSuspended_ = false;
  bool awaitingSnapshot_ = true;                         // no full read of etcd since contact
  std::map<std::string, std::set<DataPair>> withdrawn_;  // by tag: imports withdrawn, not yet read back
  std::set<TaggedPair> refusedImports_;                  // failed: tried again at the next renewal
  std::set<std::string> localFailed_;                    // tags whose last local read failed
  Clock::time_point nextExportTry_ = Clock::now();
};

int BridgeLoop::run(int stopFd) {
  say(Activity, "bridging host ", options_.host, " through ", options_.etcd.urls.front(),
      options_.etcd.urls.size() > 1 ? " and other members" : "", " under ", options_.prefix);
  for (auto& [tag, watcher] : watchers_) readLocal(tag, watcher);
  for (;;) {
    std::vector<pollfd> waits{{stopFd, POLLIN, 0}, {feed_->fd(), POLLIN, 0}};
    for (auto& [tag, watcher] : watchers_) waits.push_back({watcher.fileDescriptor(), POLLIN, 0});
    const auto untilRenewal = std::chrono::ceil<std::chrono::milliseconds>(nextRenewal_ - Clock::now());
    const long long limit = localFailed_.empty() ? 60000 : 1000;
    const int timeout = static_cast<int>(std::max<long long>(0, std::min<long long>(untilRenewal.count(), limit)));
    if (poll(waits.data(), waits.size(), timeout) < 0 && errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "poll");
    }
    if ((waits[0].revents & POLLIN) != 0) break;
    std::size_t at = 2;
    for (auto& [tag, watcher] : watchers_) {
      if ((waits[at++].revents & POLLIN) != 0) readLocal(tag, watcher);
    }
    for (const std::string& tag : std::set<std::string>(localFailed_)) readLocal(tag, watchers_.at(tag));
    if ((waits[1].revents & POLLIN) != 0) readFeed();
    if (Clock::now() >= nextRenewal_) keepLease();
    reconcileImports();
    reconcileExports();
  }
  shutDown();
  return 0;
}

void BridgeLoop::readLocal(const std::string& tag, Watcher& watcher) {
  std::set<DataPair>& pairs = local_[tag];
  std::vector<EndpointChange> changes;
  try {
    changes = watcher.changes();
  } catch (const std::exception& error) {
    // Damaged shared memory, say: what was read stays, and the next
    // notification reads again.
    say(Failure, "cannot read the local endpoints of group ", tag, ": ", error.what());
    localFailed_.insert(tag);  // read again within a second
    return;
  }
  for (const EndpointChange& change : changes) {
    if (change.kind == EndpointChange::Appeared) {
      pairs.insert(change.data);
    } else {
      pairs.erase(change.data);
    }
  }
  withdrawn_.erase(tag);
  localFailed_.erase(tag);
}

void BridgeLoop::readFeed() {
  for (FeedItem& item : feed_->take()) {
    if (item.kind == FeedItem::Trouble) {
      say(Trouble, "etcd: ", item.message);
      continue;
    }
    if (item.kind == FeedItem::Snapshot) {
      remote_.clear();
      awaitingSnapshot_ = false;
    }
    for (const WatchEvent& event : item.changes) {
      if (event.deleted) {
        remote_.erase(event.kv.key);
        continue;
      }
      std::optional<ExportedEndpoint> endpoint = parseExport(options_.prefix, event.kv.key, event.kv.value);
      if (!endpoint || endpoint->host == options_.host || watchers_.count(endpoint->tag) == 0) {
        remote_.erase(event.kv.key);
        continue;
      }
      remote_[event.kv.key] = std::move(*endpoint);
    }
  }
}

void BridgeLoop::keepLease() {
  try {
    if (lease_ != 0 && client_.keepAlive(lease_) == 0) {
      say(Trouble, "lease ", lease_, " expired; granting a new one and exporting again");
      lease_ = 0;
    }
    if (lease_ == 0) {
      lease_ = client_.grantLease(options_.ttl);
      exportsStale_ = true;
      say(Activity, "lease ", lease_, " granted for ", options_.ttl, " s");
    }
    lastContact_ = Clock::now();
    nextRenewal_ = lastContact_ + std::chrono::milliseconds(options_.ttl * 1000 / 3);
    retry_ = std::chrono::milliseconds(250);
    refusedImports_.clear();
    if (importsSuspended_) {
      importsSuspended_ = false;
      say(Activity, "etcd answers again: importing again");
    }
  } catch (const EtcdError& error) {
    say(Trouble, "cannot renew the lease: ", error.what());
    nextRenewal_ = Clock::now() + retry_;
    retry_ = std::min<std::chrono::milliseconds>(retry_ * 2, std::chrono::milliseconds(2000));
    if (!importsSuspended_ && Clock::now() - lastContact_ > std::chrono::seconds(options_.ttl)) {
      importsSuspended_ = true;
      awaitingSnapshot_ = true;  // what was known before may be stale
      say(Trouble, "etcd unreachable for longer than the lease's ", options_.ttl,
          " s: withdrawing the imports, which may be stale");
    }
  }
}

void BridgeLoop::withdrawImport(std::map<TaggedPair, Endpoint>::iterator held) {
  held->second.reset();
  // Gone from the listings already, but its watcher has not said so yet:
  // until it has, the pair is not taken for a local endpoint to export. (A
  // local process that publishes the pair meanwhile leaves it listed, and
  // it is exported after that read.)
  withdrawn_[held->first.first].insert(held->first.second);
  say(Activity, "import withdrawn: ", shown(held->first));
  imports_.erase(held);
}

void BridgeLoop::reconcileImports() {
  std::set<TaggedPair> wanted;
  if (!importsSuspended_ && !awaitingSnapshot_) {
    for (const auto& [key, endpoint] : remote_) wanted.emplace(endpoint.tag, endpoint.data);
  }
  for (auto held = imports_.begin(); held != imports_.end();) {
    if (wanted.count(held->first) != 0) {
      ++held;
    } else {
      withdrawImport(held++);
    }
  }
  for (const TaggedPair& tagged : wanted) {
    if (imports_.count(tagged) != 0 || refusedImports_.count(tagged) != 0) continue;
    // A local process publishes it: taken up once that one goes.
    if (local_[tagged.first].count(tagged.second) != 0) continue;
    try {
      Endpoint endpoint = Endpoint::publish(tagged.second.first, tagged.second.second, tagged.first);
      std::set<std::string> groups = options_.trustees;
      groups.erase("");
      if (!groups.empty()) endpoint.setTrustees(groups);
      imports_.emplace(tagged, std::move(endpoint));
      say(Activity, "imported: ", shown(tagged));
    } catch (const Endpoint::DuplicateEndpointError&) {
      // Published here meanwhile: its watcher tells soon, and it is taken
      // up once that one goes.
    } catch (const std::exception& error) {
      say(Failure, "cannot import ", shown(tagged), ": ", error.what(), " (tried again with the next lease renewal)");
      refusedImports_.insert(tagged);
    }
  }
}

void BridgeLoop::reconcileExports() {
  if (lease_ == 0 || (exportsStale_ && Clock::now() < nextExportTry_)) return;
  std::map<TaggedPair, std::string> wanted;
  for (const auto& [tag, pairs] : local_) {
    for (const DataPair& pair : pairs) {
      TaggedPair tagged(tag, pair);
      if (imports_.count(tagged) != 0 || withdrawn_[tag].count(pair) != 0) continue;
      wanted.emplace(tagged, exportKey(options_.prefix, {tag, options_.host, pair}));
    }
  }
  try {
    for (auto exported = exports_.begin(); exported != exports_.end();) {
      if (wanted.count(exported->first) != 0) {
        ++exported;
        continue;
      }
      client_.remove(exported->second);
      say(Activity, "export deleted: ", shown(exported->first));
      exported = exports_.erase(exported);
    }
    for (const auto& [tagged, key] : wanted) {
      if (!exportsStale_ && exports_.count(tagged) != 0) continue;
      client_.put(key, exportValue({tagged.first, options_.host, tagged.second}), lease_);
      if (exports_.emplace(tagged, key).second) say(Activity, "exported: ", shown(tagged));
    }
    exportsStale_ = false;
  } catch (const EtcdError& error) {
    say(Trouble, "cannot export: ", error.what());
    exportsStale_ = true;
    nextExportTry_ = Clock::now() + retry_;
    nextRenewal_ = std::min(nextRenewal_, nextExportTry_);
  }
}

void BridgeLoop::shutDown() {
  if (lease_ != 0) {
    try {
      client_.revoke(lease_);
      say(Activity, "lease ", lease_, " revoked: this host's endpoints are gone from etcd");
    } catch (const EtcdError& error) {
      say(Trouble, "cannot revoke the lease (it expires in ", options_.ttl, " s): ", error.what());
    }
  }
  while (!imports_.empty()) withdrawImport(imports_.begin());
  feed_.reset();
  say(Activity, "bridge stopped");
}

}  // namespace

int runBridge(const BridgeOptions& options, int stopFd) {
  if (options.tags.empty()) throw std::invalid_argument("bridge: at least one group tag is needed");
  if (!isValidHostName(options.host)) throw std::invalid_argument("bridge: invalid host name '" + options.host + "'");
  if (options.ttl < 2) throw std::invalid_argument("bridge: the lease's TTL must be at least 2 seconds");
  if (options.prefix.empty() || options.prefix.back() != '/') {
    throw std::invalid_argument("bridge: the key prefix must end with '/' (so that it covers no other prefix)");
  }
  BridgeLoop loop(options);
  return loop.run(stopFd);
}

}  // namespace agent::spf::endpointregistry::bridge
