// The system-bus peer's daemon: a private `dbus-daemon --session` that a
// benchmark program starts for its run and stops at its end.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <unistd.h>
#include <csignal>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_processes.hpp"

namespace erbench {

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

// The run's daemon, started on first use; reset() it before the program ends.
inline std::unique_ptr<BusDaemon>& daemonSlot() {
  static std::unique_ptr<BusDaemon> slot;
  return slot;
}

inline const std::string& busAddress() {
  if (!daemonSlot()) daemonSlot() = std::make_unique<BusDaemon>();
  return daemonSlot()->busAddress();
}

}  // namespace erbench
