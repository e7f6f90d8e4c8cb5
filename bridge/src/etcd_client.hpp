// A client of etcd's v3 API through its JSON gateway (POST /v3/...), with
// libcurl: the key-value calls, leases and a streaming watch, over one or
// more members.
//
// Members: each call goes to the member that answered last, and on a
// transport failure (refused, reset, timed out) or an "unavailable" answer
// (no leader, leader changed, stopping) to the next one, once around the
// list. Authentication: with a user, the client authenticates once and again
// whenever the token is refused. TLS: the CA, client certificate and key are
// handed to libcurl.
//
// Errors: EtcdError for every failure; unreachable() tells a cluster that no
// member answered from one that refused the call. Threads: one thread per
// client at a time; the watch of another thread needs a client of its own
// (watchPrefix() is interrupted from any thread with interrupt()).
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

struct curl_slist;  // libcurl's header list

namespace agent::spf::endpointregistry::bridge {

struct EtcdSettings {
  std::vector<std::string> urls;  // the members' client URLs, http:// or https://
  std::string caFile;             // TLS: the CA that signed the members' certificates
  std::string certFile;           // TLS: this client's certificate and key
  std::string keyFile;
  std::string user;  // empty: no authentication
  std::string password;
  std::chrono::milliseconds callTimeout{3000};  // for each call to one member
};

class EtcdError : public std::runtime_error {
 public:
  EtcdError(const std::string& what, bool unreachable) : std::runtime_error(what), unreachable_(unreachable) {}
  bool unreachable() const noexcept { return unreachable_; }

 private:
  bool unreachable_;
};

// A watch asked for a revision that compaction removed.
class EtcdCompacted : public EtcdError {
 public:
  explicit EtcdCompacted(std::int64_t revision)
      : EtcdError("etcd compacted its history up to revision " + std::to_string(revision), false) {}
};

struct KeyValue {
  std::string key;
  std::string value;
  std::int64_t modRevision = 0;
};

struct WatchEvent {
  bool deleted = false;  // a deletion (or a lease's expiry); else a put
  KeyValue kv;
};

class EtcdClient {
 public:
  // Throws EtcdError when libcurl cannot be set up.
  explicit EtcdClient(EtcdSettings settings);
  ~EtcdClient();
  EtcdClient(const EtcdClient&) = delete;
  EtcdClient& operator=(const EtcdClient&) = delete;

  // A new lease of `ttl` seconds: its id.
  std::int64_t grantLease(std::int64_t ttl);
  // Renews the lease: its remaining time to live in seconds, 0 when the
  // lease no longer exists (it expired, or was revoked).
  std::int64_t keepAlive(std::int64_t lease);
  // Revokes the lease: its keys go at once. A lease that is gone is no error.
  void revoke(std::int64_t lease);

  void put(const std::string& key, const std::string& value, std::int64_t lease);
  void remove(const std::string& key);
  // Every key under `prefix`, and the store's revision they were read at.
  std::vector<KeyValue> rangePrefix(const std::string& prefix, std::int64_t& revision);

  // Streams the changes of the keys under `prefix` from `startRevision`,
  // calling `onEvents` with each batch and the revision it brings the reader
  // to, until interrupt() is called (then it returns) or the stream fails
  // (EtcdError; EtcdCompacted when `startRevision` was compacted away).
  void watchPrefix(const std::string& prefix, std::int64_t startRevision,
                   const std::function<void(const std::vector<WatchEvent>&, std::int64_t revision)>& onEvents);
  // Ends a watchPrefix() of this client under way in another thread, or the
  // next one. Any thread.
  void interrupt() noexcept;

 private:
  struct Curl;
  // Sets the easy handle up for a POST of `body` to `target`, with the
  // settings' timeouts and TLS files.
  void prepare(const std::string& target, ::curl_slist* headers, const std::string& body);
  nlohmann::json call(const std::string& path, const nlohmann::json& body);
  nlohmann::json callOnce(const std::string& url, const std::string& path, const std::string& body, bool& moveOn);
  void authenticate(const std::string& url);

  EtcdSettings settings_;
  std::unique_ptr<Curl> curl_;
  std::size_t member_ = 0;  // the member to ask first
  std::string token_;
  std::atomic<bool> interrupted_{false};
};

// The first key after every key that begins with `prefix` (etcd's range_end).
std::string prefixEnd(std::string prefix);

}  // namespace agent::spf::endpointregistry::bridge
