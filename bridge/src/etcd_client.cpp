#include "etcd_client.hpp"

#include <curl/curl.h>

#include <charconv>
#include <exception>
#include <mutex>
#include <nlohmann/json.hpp>

#include "base64.hpp"

namespace agent::spf::endpointregistry::bridge {

using nlohmann::json;

namespace {

// gRPC status codes that the gateway passes on.
constexpr int unavailableCode = 14;
constexpr int unauthenticatedCode = 16;

// etcd writes 64-bit numbers as JSON strings, and leaves out zeros.
std::int64_t int64Of(const json& object, const char* name) {
  const auto found = object.find(name);
  if (found == object.end() || found->is_null()) return 0;
  if (found->is_number_integer()) return found->get<std::int64_t>();
  if (found->is_string()) {
    const std::string& text = found->get_ref<const std::string&>();
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error == std::errc() && end == text.data() + text.size()) return value;
  }
  throw EtcdError(std::string("etcd sent a ") + name + " that is not a number", false);
}

std::string bytesOf(const json& object, const char* name) {
  const auto found = object.find(name);
  if (found == object.end() || !found->is_string()) return {};
  std::optional<std::string> bytes = base64Decode(found->get<std::string>());
  if (!bytes) throw EtcdError(std::string("etcd sent a ") + name + " that is not base64", false);
  return *bytes;
}

KeyValue keyValueOf(const json& kv) { return {bytesOf(kv, "key"), bytesOf(kv, "value"), int64Of(kv, "mod_revision")}; }

// The error an answer carries, if any: its message and gRPC code.
bool errorOf(const json& answer, std::string& message, int& code) {
  const json* error = &answer;
  if (answer.contains("error") && answer["error"].is_object()) error = &answer["error"];
  const bool failed = answer.contains("error") || (answer.contains("code") && int64Of(answer, "code") != 0);
  if (!failed) return false;
  code = static_cast<int>(error->contains("grpc_code") ? int64Of(*error, "grpc_code") : int64Of(*error, "code"));
  if (error->contains("message") && (*error)["message"].is_string()) {
    message = (*error)["message"].get<std::string>();
  } else if (answer.contains("error") && answer["error"].is_string()) {
    message = answer["error"].get<std::string>();
  } else {
    message = answer.dump();
  }
  return true;
}

bool isUnavailable(const std::string& message, int code) {
  return code == unavailableCode || message.find("leader changed") != std::string::npos ||
         message.find("no leader") != std::string::npos || message.find("stopped") != std::string::npos ||
         message.find("timed out") != std::string::npos;
}

bool isUnauthenticated(const std::string& message, int code) {
  return code == unauthenticatedCode || message.find("invalid auth token") != std::string::npos ||
         message.find("revision of auth store is old") != std::string::npos;
}

size_t appendTo(char* data, size_t size, size_t count, void* target) {
  static_cast<std::string*>(target)->append(data, size * count);
  return size * count;
}

void initialiseCurl() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

// Splits a stream of JSON objects written back to back (with or without
// newlines between them) into whole objects.
class ObjectSplitter {
 public:
  template <typename Each>
  void feed(const char* data, std::size_t size, const Each& each) {
    for (std::size_t i = 0; i < size; ++i) {
      const char c = data[i];
      if (depth_ == 0 && c != '{') continue;
      pending_ += c;
      if (inString_) {
        if (escaped_) {
          escaped_ = false;
        } else if (c == '\\') {
          escaped_ = true;
        } else if (c == '"') {
          inString_ = false;
        }
        continue;
      }
      if (c == '"') inString_ = true;
      if (c == '{') ++depth_;
      if (c == '}' && --depth_ == 0) {
        each(pending_);
        pending_.clear();
      }
    }
  }

 private:
  std::string pending_;
  int depth_ = 0;
  bool inString_ = false;
  bool escaped_ = false;
};

}  // namespace

struct EtcdClient::Curl {
  CURL* easy = nullptr;
  CURLM* multi = nullptr;
  ~Curl() {
    if (multi) curl_multi_cleanup(multi);
    if (easy) curl_easy_cleanup(easy);
  }
};

std::string prefixEnd(std::string prefix) {
  while (!prefix.empty()) {
    if (static_cast<unsigned char>(prefix.back()) < 0xff) {
      prefix.back() = static_cast<char>(static_cast<unsigned char>(prefix.back()) + 1);
      return prefix;
    }
    prefix.pop_back();
  }
  return std::string(1, '\0');  // every key
}

EtcdClient::EtcdClient(EtcdSettings settings) : settings_(std::move(settings)), curl_(std::make_unique<Curl>()) {
  if (settings_.urls.empty()) throw EtcdError("no etcd URL given", false);
  for (std::string& url : settings_.urls) {
    while (!url.empty() && url.back() == '/') url.pop_back();
  }
  initialiseCurl();
  curl_->easy = curl_easy_init();
  curl_->multi = curl_multi_init();
  if (!curl_->easy || !curl_->multi) throw EtcdError("libcurl cannot be set up", false);
}

EtcdClient::~EtcdClient() = default;

void EtcdClient::interrupt() noexcept {
  interrupted_ = true;
  if (curl_ && curl_->multi) curl_multi_wakeup(curl_->multi);
}

void EtcdClient::prepare(const std::string& target, curl_slist* headers, const std::string& body) {
  CURL* easy = curl_->easy;
  curl_easy_reset(easy);
  curl_easy_setopt(easy, CURLOPT_URL, target.c_str());
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.c_str());
  curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(settings_.callTimeout.count()));
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  if (!settings_.caFile.empty()) curl_easy_setopt(easy, CURLOPT_CAINFO, settings_.caFile.c_str());
  if (!settings_.certFile.empty()) curl_easy_setopt(easy, CURLOPT_SSLCERT, settings_.certFile.c_str());
  if (!settings_.keyFile.empty()) curl_easy_setopt(easy, CURLOPT_SSLKEY, settings_.keyFile.c_str());
}

json EtcdClient::callOnce(const std::string& url, const std::string& path, const std::string& body, bool& moveOn) {
  CURL* easy = curl_->easy;
  std::string answer;
  const std::string target = url + path;
  curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
  if (!token_.empty()) headers = curl_slist_append(headers, ("Authorization: " + token_).c_str());
  prepare(target, headers, body);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, appendTo);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &answer);
  curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(settings_.callTimeout.count()));
  const CURLcode result = curl_easy_perform(easy);
  curl_slist_free_all(headers);
  if (result != CURLE_OK) {
    moveOn = true;
    throw EtcdError(std::string("etcd at ") + url + ": " + curl_easy_strerror(result), true);
  }
  json parsed = json::parse(answer, nullptr, false);
  if (parsed.is_discarded()) {
    moveOn = true;
    throw EtcdError("etcd at " + url + " answered " + path + " with no JSON: " + answer.substr(0, 200), true);
  }
  return parsed;
}

void EtcdClient::authenticate(const std::string& url) {
  token_.clear();
  bool moveOn = false;
  const json answer = callOnce(url, "/v3/auth/authenticate",
                               json{{"name", settings_.user}, {"password", settings_.password}}.dump(), moveOn);
  std::string message;
  int code = 0;
  if (errorOf(answer, message, code)) throw EtcdError("etcd refused user " + settings_.user + ": " + message, false);
  token_ = answer.contains("token") && answer["token"].is_string() ? answer["token"].get<std::string>() : "";
  if (token_.empty()) throw EtcdError("etcd gave user " + settings_.user + " no token", false);
}

json EtcdClient::call(const std::string& path, const json& body) {
  const std::string text = body.dump();
  std::string failures;
  for (std::size_t attempt = 0; attempt < settings_.urls.size(); ++attempt) {
    const std::string& url = settings_.urls[(member_ + attempt) % settings_.urls.size()];
    bool moveOn = false;
    try {
      if (!settings_.user.empty() && token_.empty()) authenticate(url);
      json answer = callOnce(url, path, text, moveOn);
      std::string message;
      int code = 0;
      if (errorOf(answer, message, code) && isUnauthenticated(message, code) && !settings_.user.empty()) {
        authenticate(url);
        answer = callOnce(url, path, text, moveOn);
      }
      if (errorOf(answer, message, code)) {
        if (!isUnavailable(message, code)) throw EtcdError("etcd: " + path + ": " + message, false);
        moveOn = true;
        throw EtcdError("etcd at " + url + ": " + message, true);
      }
      member_ = (member_ + attempt) % settings_.urls.size();
      return answer;
    } catch (const EtcdError& error) {
      // A member that cannot be reached (while authenticating too) is
      // passed over; a refusal is the answer.
      if (!moveOn && !error.unreachable()) throw;
      failures += (failures.empty() ? "" : "; ") + std::string(error.what());
    } catch (const nlohmann::json::exception& error) {
      throw EtcdError("etcd: " + path + ": an answer that cannot be read: " + error.what(), false);
    }
  }
  throw EtcdError("no etcd member answered: " + failures, true);
}

std::int64_t EtcdClient::grantLease(std::int64_t ttl) {
  const json answer = call("/v3/lease/grant", json{{"TTL", ttl}});
  const std::int64_t id = int64Of(answer, "ID");
  if (id == 0) throw EtcdError("etcd granted no lease: " + answer.dump(), false);
  return id;
}

std::int64_t EtcdClient::keepAlive(std::int64_t lease) {
  try {
    const json answer = call("/v3/lease/keepalive", json{{"ID", lease}});
    const json& result = answer.contains("result") ? answer["result"] : answer;
    return int64Of(result, "TTL");
  } catch (const EtcdError& error) {
    if (!error.unreachable() && std::string(error.what()).find("lease not found") != std::string::npos) return 0;
    throw;
  }
}

void EtcdClient::revoke(std::int64_t lease) {
  try {
    call("/v3/lease/revoke", json{{"ID", lease}});
  } catch (const EtcdError& error) {
    if (error.unreachable() || std::string(error.what()).find("lease not found") == std::string::npos) throw;
  }
}

void EtcdClient::put(const std::string& key, const std::string& value, std::int64_t lease) {
  call("/v3/kv/put", json{{"key", base64Encode(key)}, {"value", base64Encode(value)}, {"lease", lease}});
}

void EtcdClient::remove(const std::string& key) { call("/v3/kv/deleterange", json{{"key", base64Encode(key)}}); }

std::vector<KeyValue> EtcdClient::rangePrefix(const std::string& prefix, std::int64_t& revision) {
  const json answer =
      call("/v3/kv/range", json{{"key", base64Encode(prefix)}, {"range_end", base64Encode(prefixEnd(prefix))}});
  revision = answer.contains("header") ? int64Of(answer["header"], "revision") : 0;
  std::vector<KeyValue> found;
  if (answer.contains("kvs")) {
    for (const json& kv : answer["kvs"]) found.push_back(keyValueOf(kv));
  }
  return found;
}

void EtcdClient::watchPrefix(
    const std::string& prefix, std::int64_t startRevision,
    const std::function<void(const std::vector<WatchEvent>&, std::int64_t revision)>& onEvents) {
  const json request = {{"create_request",
                         {{"key", base64Encode(prefix)},
                          {"range_end", base64Encode(prefixEnd(prefix))},
                          {"start_revision", startRevision}}}};
  const std::string body = request.dump();
  std::string failures;
  for (std::size_t attempt = 0; attempt < settings_.urls.size(); ++attempt) {
    if (interrupted_) return;
    const std::string& url = settings_.urls[(member_ + attempt) % settings_.urls.size()];
    if (!settings_.user.empty() && token_.empty()) {
      try {
        authenticate(url);
      } catch (const EtcdError& error) {
        if (!error.unreachable()) throw;
        failures += (failures.empty() ? "" : "; ") + std::string(error.what());
        continue;
      }
    }
    struct Stream {
      ObjectSplitter splitter;
      std::exception_ptr failure;
      bool created = false;
      const std::function<void(const std::vector<WatchEvent>&, std::int64_t)>* onEvents;
      std::string* token;
    } stream;
    stream.onEvents = &onEvents;
    stream.token = &token_;
    const auto write = +[](char* data, size_t size, size_t count, void* target) -> size_t {
      auto& state = *static_cast<Stream*>(target);
      try {
        state.splitter.feed(data, size * count, [&state](const std::string& text) {
          const json message = json::parse(text);
          std::string error;
          int code = 0;
          if (errorOf(message, error, code)) {
            if (isUnauthenticated(error, code)) state.token->clear();
            throw EtcdError("etcd watch: " + error, true);
          }
          const json& result = message.contains("result") ? message["result"] : message;
          if (result.value("canceled", false)) {
            const std::int64_t compacted = int64Of(result, "compact_revision");
            if (compacted != 0) throw EtcdCompacted(compacted);
            throw EtcdError("etcd cancelled the watch: " + result.value("cancel_reason", std::string()), true);
          }
          if (result.value("created", false)) state.created = true;
          std::vector<WatchEvent> events;
          if (result.contains("events")) {
            for (const json& event : result["events"]) {
              events.push_back({event.value("type", std::string()) == "DELETE", keyValueOf(event["kv"])});
            }
          }
          const std::int64_t revision = result.contains("header") ? int64Of(result["header"], "revision") : 0;
          if (!events.empty()) (*state.onEvents)(events, revision);
        });
      } catch (...) {
        state.failure = std::current_exception();
        return 0;
      }
      return size * count;
    };
    CURL* easy = curl_->easy;
    const std::string target = url + "/v3/watch";
    curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
    // A member cut off from the leader ends the watch instead of going quiet.
    headers = curl_slist_append(headers, "Grpc-Metadata-hasleader: true");
    if (!token_.empty()) headers = curl_slist_append(headers, ("Authorization: " + token_).c_str());
    prepare(target, headers, body);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, write);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &stream);
    // A member that dies without closing the connection is noticed by TCP.
    curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(easy, CURLOPT_TCP_KEEPIDLE, 2L);
    curl_easy_setopt(easy, CURLOPT_TCP_KEEPINTVL, 1L);
    curl_multi_add_handle(curl_->multi, easy);
    CURLcode result = CURLE_OK;
    bool done = false;
    while (!done && !interrupted_) {
      int running = 0;
      curl_multi_perform(curl_->multi, &running);
      int left = 0;
      while (CURLMsg* message = curl_multi_info_read(curl_->multi, &left)) {
        if (message->msg == CURLMSG_DONE) {
          result = message->data.result;
          done = true;
        }
      }
      if (!done) curl_multi_poll(curl_->multi, nullptr, 0, 1000, nullptr);
    }
    curl_multi_remove_handle(curl_->multi, easy);
    curl_slist_free_all(headers);
    if (interrupted_) return;
    if (stream.failure) {
      try {
        std::rethrow_exception(stream.failure);
      } catch (const EtcdCompacted&) {
        throw;
      } catch (const EtcdError& error) {
        if (!error.unreachable()) throw;
        failures += (failures.empty() ? "" : "; ") + std::string(error.what());
      }
      if (stream.created) {
        // It had begun: the caller reads again, from the next member first.
        member_ = (member_ + attempt + 1) % settings_.urls.size();
        break;
      }
      continue;
    }
    const std::string reason =
        result != CURLE_OK ? curl_easy_strerror(result) : std::string("the member closed the watch");
    failures += (failures.empty() ? "" : "; ") + ("etcd at " + url + ": " + reason);
    if (stream.created) {
      member_ = (member_ + attempt + 1) % settings_.urls.size();
      break;
    }
  }
  throw EtcdError("etcd watch ended: " + failures, true);
}

}  // namespace agent::spf::endpointregistry::bridge
