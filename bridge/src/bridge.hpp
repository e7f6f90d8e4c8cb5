// A bridge: mirrors this host's registry through etcd, both ways.
//
// Export: the live local endpoints of the chosen group tags under the chosen
// trustees, except the bridge's own imports, are keys (export_keys.hpp)
// bound to the bridge's lease, put when they appear and deleted when they
// are withdrawn or their publisher dies (the library's Watcher tells). The
// lease is renewed every third of its TTL; a lease found expired is granted
// again and every export put again.
//
// Import: every endpoint that another host exported under a chosen tag is
// published here by the bridge (and under the chosen trustees), and withdrawn
// when its key goes. A pair that a local process publishes already is not
// imported while that one lives; nothing is imported twice (one pair from
// several hosts is one endpoint) or exported back.
//
// Faults: a call that fails is tried on the next member; the watch is begun
// again from a fresh read (watch_feed.hpp). When the lease cannot be renewed
// for longer than its TTL, the imports are withdrawn (they may be stale) and
// come back once etcd answers again.
//
// Logging: on the channel "agent::spf::endpointregistry::bridge", level 32
// for what it does (leases, exports, imports), 256 for trouble it rides out,
// 512 for errors.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "etcd_client.hpp"

namespace agent::spf::endpointregistry::bridge {

struct BridgeOptions {
  EtcdSettings etcd;
  std::string prefix = "/endpointregistry/";
  std::string host;               // this host's name in the keys
  std::vector<std::string> tags;  // the group tags bridged (at least one)
  // The trustees whose directories are exported and under which imports are
  // also published; "" is the user's own scope, which imports always use.
  std::set<std::string> trustees{""};
  std::int64_t ttl = 10;  // seconds
};

// Runs the bridge until `stopFd` (a signalfd, say) becomes readable; then
// revokes the lease, so that other hosts drop this host's endpoints at once,
// and withdraws the imports. Returns 0. Throws std::invalid_argument for bad
// options and what the library throws when the registry cannot be watched;
// etcd's failures are ridden out, never thrown.
int runBridge(const BridgeOptions& options, int stopFd);

}  // namespace agent::spf::endpointregistry::bridge
