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
// - bus/new process owns a name: a new process connects, owns a name and
//   reports it, against the same program started to report at once;
// - bus/RequestName to NameOwnerChanged, bus/ReleaseName to
//   NameOwnerChanged, bus/SIGKILL to NameOwnerChanged: from the step until a
//   second connection, subscribed to the signal, receives it (the watcher's
//   counterparts in watch_bench.cpp).
//
// This program is its own helper: started as
//   bus_bench --report                   it reports and ends;
//   bus_bench --own-one ADDRESS NAME     it connects, owns NAME, reports, ends.
#include <benchmark/benchmark.h>
#include <systemd/sd-bus.h>
#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_processes.hpp"
#include "bench_support.hpp"

namespace {

using erbench::Plan;
using erbench::Samples;

// A private session bus for this run: started on first use, stopped when
// the program ends.
class BusDaemon {
 public:
  BusDaemon() : socketPath("/tmp/" + erbench::uniqueName("erBenchBus") + ".socket") {
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 3);
    // Its complaints (it cannot raise its descriptor limit here) are not ours.
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::vector<std::string> words{"dbus-daemon",
                                   "--session",
                                   "--nofork",
                                   "--nopidfile",
                                   "--nosyslog",
                                   "--print-address=3",
                                   "--address=unix:path=" + socketPath};
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    const int result = posix_spawnp(&pid, "dbus-daemon", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    if (result != 0) {
      close(out[0]);
      throw std::runtime_error("dbus-daemon cannot be started");
    }
    // The daemon prints its address, then a newline, once it listens.
    while (address.empty() || address.back() != '\n') {
      pollfd pfd{out[0], POLLIN, 0};
      char byte = 0;
      if (poll(&pfd, 1, 10000) <= 0 || read(out[0], &byte, 1) != 1) break;
      address += byte;
    }
    close(out[0]);
    if (address.empty() || address.back() != '\n') {
      stop();
      throw std::runtime_error("dbus-daemon did not print its address");
    }
    address.pop_back();
  }
  ~BusDaemon() { stop(); }
  BusDaemon(const BusDaemon&) = delete;
  BusDaemon& operator=(const BusDaemon&) = delete;

  const std::string& busAddress() const { return address; }

 private:
  void stop() {
    if (pid > 0) {
      kill(pid, SIGTERM);
      erbench::reap(pid);
      pid = -1;
    }
    unlink(socketPath.c_str());
  }

  pid_t pid = -1;
  std::string socketPath;
  std::string address;
};

std::unique_ptr<BusDaemon>& daemonSlot() {
  static std::unique_ptr<BusDaemon> slot;
  return slot;
}

const std::string& busAddress() {
  if (!daemonSlot()) daemonSlot() = std::make_unique<BusDaemon>();
  return daemonSlot()->busAddress();
}

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

// Each iteration also times a bare start (the floor), side by side.
void startAndOwnName(benchmark::State& state) {
  const std::string& address = busAddress();
  erbench::timeStartBesideBareStart(state, [&] {
    return std::vector<std::string>{"--own-one", address, busName("new")};
  });
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
  erbench::figure("bus/floor/process start", erbench::timeBareStart, plan.iterations(200));
  erbench::figure("bus/new process owns a name", startAndOwnName, plan.iterations(200));
}

bool runHelperMode(int argc, char** argv, int& code) {
  if (erbench::isBareStart(argc, argv)) {
    erbench::reportAndAwaitRelease();
    code = 0;
    return true;
  }
  if (argc == 4 && std::strcmp(argv[1], "--own-one") == 0) {
    Connection connection(argv[2]);
    connection.requestName(argv[3]);
    erbench::reportAndAwaitRelease();
    code = 0;
    return true;
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  int code = 0;
  if (runHelperMode(argc, argv, code)) return code;
  code = erbench::runBenchmarks(argc, argv, registerFigures);
  daemonSlot().reset();
  return code;
}
