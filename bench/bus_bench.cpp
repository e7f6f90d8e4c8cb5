// The system-bus peer, measured in the same run: a private
// `dbus-daemon --session` started by this program, with sd-bus as client.
// A process owning a well-known name while its connection lives is the
// bus's counterpart of a published endpoint.
//
// - bus/RequestName+ReleaseName: one round trip each, a new name each time;
// - bus/ListNames:N with N names owned by another connection;
// - bus/connection set-up: connect, authenticate, Hello;
// - bus/SIGKILL to name gone: a child owning a name is killed; this process
//   asks NameHasOwner until the answer is no;
// - bus/RequestName to NameOwnerChanged, bus/ReleaseName to
//   NameOwnerChanged, bus/SIGKILL to NameOwnerChanged: from the step until a
//   second connection, subscribed to the signal, receives it (the watcher's
//   counterparts in watch_bench.cpp).
// (A new process owning a name is timed by startup_bench.cpp.)
#include <benchmark/benchmark.h>
#include <systemd/sd-bus.h>
#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_bus.hpp"
#include "bench_processes.hpp"
#include "bench_support.hpp"

namespace {

using erbench::busAddress;
using erbench::daemonSlot;
using erbench::Plan;
using erbench::Samples;

// One client connection, ready (Hello answered) once constructed.
class Connection {
 public:
  explicit Connection(const std::string& address) {
    if (sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, address.c_str()) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
        sd_bus_start(bus) < 0) {
      sd_bus_unref(bus);
      throw std::runtime_error("cannot connect to the bus");
    }
    const char* unique = nullptr;
    if (sd_bus_get_unique_name(bus, &unique) < 0) {  // waits for the Hello reply
      sd_bus_flush_close_unref(bus);
      throw std::runtime_error("the bus did not answer Hello");
    }
  }
  ~Connection() { sd_bus_flush_close_unref(bus); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  sd_bus* get() const { return bus; }

  void requestName(const std::string& name) {
    if (sd_bus_request_name(bus, name.c_str(), 0) < 0) throw std::runtime_error("RequestName failed");
  }
  void releaseName(const std::string& name) {
    if (sd_bus_release_name(bus, name.c_str()) < 0) throw std::runtime_error("ReleaseName failed");
  }
  bool nameHasOwner(const std::string& name) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int has = 0;
    const int result = sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                          "NameHasOwner", &error, &reply, "s", name.c_str());
    if (result >= 0) sd_bus_message_read(reply, "b", &has);
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    if (result < 0) throw std::runtime_error("NameHasOwner failed");
    return has != 0;
  }
  // The number of names ListNames returns.
  std::size_t listNames() {
    char** names = nullptr;
    if (sd_bus_list_names(bus, &names, nullptr) < 0) throw std::runtime_error("ListNames failed");
    std::size_t count = 0;
    for (char** name = names; name != nullptr && *name != nullptr; ++name) ++count;
    for (char** name = names; name != nullptr && *name != nullptr; ++name) free(*name);
    free(static_cast<void*>(names));
    return count;
  }

 private:
  sd_bus* bus = nullptr;
};

// A connection subscribed to NameOwnerChanged: waits for the signal that
// tells that a name got an owner, or lost it.
class OwnerChangeListener {
 public:
  explicit OwnerChangeListener(const std::string& address) : connection(address) {
    if (sd_bus_match_signal(connection.get(), &slot, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                            "org.freedesktop.DBus", "NameOwnerChanged", &OwnerChangeListener::onSignal, this) < 0) {
      throw std::runtime_error("AddMatch failed");
    }
  }
  ~OwnerChangeListener() { sd_bus_slot_unref(slot); }
  OwnerChangeListener(const OwnerChangeListener&) = delete;
  OwnerChangeListener& operator=(const OwnerChangeListener&) = delete;

  // Waits until `name` got an owner (`owned`) or lost it; false after 10 s.
  bool await(const std::string& name, bool owned) {
    wantedName = name;
    wantOwned = owned;
    seen = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!seen && std::chrono::steady_clock::now() < deadline) {
      const int processed = sd_bus_process(connection.get(), nullptr);
      if (processed < 0) return false;
      if (processed == 0 && !seen) sd_bus_wait(connection.get(), 10'000'000);
    }
    return seen;
  }

 private:
  static int onSignal(sd_bus_message* message, void* self, sd_bus_error*) {
    auto* listener = static_cast<OwnerChangeListener*>(self);
    const char* name = nullptr;
    const char* oldOwner = nullptr;
    const char* newOwner = nullptr;
    if (sd_bus_message_read(message, "sss", &name, &oldOwner, &newOwner) < 0) return 0;
    if (name != nullptr && listener->wantedName == name &&
        (newOwner != nullptr && *newOwner != 0) == listener->wantOwned) {
      listener->seen = true;
    }
    return 0;
  }

  Connection connection;
  sd_bus_slot* slot = nullptr;
  std::string wantedName;
  bool wantOwned = false;
  bool seen = false;
};

std::string busName(const std::string& what) {
  static long serial = 0;
  return "org.erbench." + what + ".p" + std::to_string(getpid()) + ".n" + std::to_string(serial++);
}

void requestRelease(benchmark::State& state) {
  Connection connection(busAddress());
  Samples samples;
  for (auto _ : state) {
    const std::string name = busName("cycle");
    samples.time(state, [&] {
      connection.requestName(name);
      connection.releaseName(name);
    });
  }
  samples.report(state);
}

void listNames(benchmark::State& state, long n) {
  Connection owner(busAddress());
  for (long i = 0; i < n; ++i) owner.requestName(busName("owned"));
  Connection lister(busAddress());
  Samples samples;
  std::size_t listed = 0;
  for (auto _ : state) {
    samples.time(state, [&] { listed = lister.listNames(); });
  }
  if (static_cast<long>(listed) < n) state.SkipWithError("ListNames returned fewer names than are owned");
  samples.report(state, static_cast<double>(n));
}

void connectionSetUp(benchmark::State& state) {
  const std::string& address = busAddress();
  Samples samples;
  for (auto _ : state) {
    std::unique_ptr<Connection> connection;
    samples.time(state, [&] { connection = std::make_unique<Connection>(address); });
  }
  samples.report(state);
}

void killToNameGone(benchmark::State& state) {
  const std::string& address = busAddress();
  Connection watcher(address);
  Samples samples;
  long calls = 0;
  for (auto _ : state) {
    const std::string name = busName("killed");
    erbench::ChildHolding child([&] {
      auto connection = std::make_shared<Connection>(address);
      connection->requestName(name);
      return [connection] {};
    });
    samples.time(state, [&] {
      child.kill();
      do {
        ++calls;
      } while (watcher.nameHasOwner(name));
    });
  }
  samples.report(state);
  state.counters["listings"] = static_cast<double>(calls) / static_cast<double>(samples.size());
}

void ownerChange(benchmark::State& state, bool timeRelease) {
  const std::string& address = busAddress();
  Connection owner(address);
  OwnerChangeListener listener(address);
  Samples samples;
  for (auto _ : state) {
    const std::string name = busName("watched");
    bool seen = false;
    const auto request = [&] {
      owner.requestName(name);
      return listener.await(name, true);
    };
    const auto release = [&] {
      owner.releaseName(name);
      return listener.await(name, false);
    };
    if (timeRelease) {
      seen = request();
      samples.time(state, [&] { seen = release() && seen; });
    } else {
      samples.time(state, [&] { seen = request(); });
      seen = release() && seen;
    }
    if (!seen) {
      state.SkipWithError("NameOwnerChanged did not come");
      break;
    }
  }
  samples.report(state);
}

void killToOwnerChange(benchmark::State& state) {
  const std::string& address = busAddress();
  OwnerChangeListener listener(address);
  Samples samples;
  for (auto _ : state) {
    const std::string name = busName("killedWatched");
    erbench::ChildHolding child([&] {
      auto connection = std::make_shared<Connection>(address);
      connection->requestName(name);
      return [connection] {};
    });
    if (!listener.await(name, true)) {
      state.SkipWithError("the child's name did not appear");
      break;
    }
    bool seen = false;
    samples.time(state, [&] {
      child.kill();
      seen = listener.await(name, false);
    });
    child.letGo();
    if (!seen) {
      state.SkipWithError("NameOwnerChanged did not come");
      break;
    }
  }
  samples.report(state);
}

void registerFigures(const Plan& plan) {
  erbench::figure("bus/RequestName+ReleaseName", requestRelease, plan.iterations(2000));
  for (long n : plan.sizes()) {
    erbench::figure(
        "bus/ListNames:" + std::to_string(n), [n](auto& s) { listNames(s, n); }, plan.sweepIterations(n, 400));
  }
  erbench::figure("bus/connection set-up", connectionSetUp, plan.iterations(1000));
  erbench::figure("bus/SIGKILL to name gone", killToNameGone, plan.iterations(200));
  erbench::figure(
      "bus/RequestName to NameOwnerChanged", [](auto& s) { ownerChange(s, false); }, plan.iterations(500));
  erbench::figure(
      "bus/ReleaseName to NameOwnerChanged", [](auto& s) { ownerChange(s, true); }, plan.iterations(500));
  erbench::figure("bus/SIGKILL to NameOwnerChanged", killToOwnerChange, plan.iterations(200));
}

}  // namespace

int main(int argc, char** argv) {
  const int code = erbench::runBenchmarks(argc, argv, registerFigures);
  daemonSlot().reset();
  return code;
}
