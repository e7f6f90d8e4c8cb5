// A child process that runs a function as the first process (pid 1) of a
// pid namespace of its own, as a container's processes run: it shares the
// machine's /dev/shm and user, but none of its process ids mean anything to
// the test, nor the test's to it. Needs root (CAP_SYS_ADMIN).
#pragma once

#include <sys/types.h>
#include <chrono>
#include <optional>
#include <string>

#include "support/child_process.hpp"

namespace er::test {

// True when this process may make pid namespaces.
bool canMakePidNamespaces();

class NamespacedChild {
 public:
  // Forks a child that makes a new pid namespace and forks `body`'s process
  // into it (as pid 1); the child waits for it and passes on its exit code.
  // `body` talks to the test through the ChildProcess line channel.
  explicit NamespacedChild(ChildProcess::Body body);
  NamespacedChild(const NamespacedChild&) = delete;
  NamespacedChild& operator=(const NamespacedChild&) = delete;

  // The pid of `body`'s process in the test's namespace (0 if unknown).
  pid_t outerPid() const noexcept { return outerPid_; }

  void tellChild(const std::string& line) { process_.tellChild(line); }
  std::optional<std::string> readFromChild(std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    return process_.readFromChild(timeout);
  }
  // Sends `signal` to `body`'s process. SIGKILL ends the whole namespace.
  void kill(int signal = 9);
  // Waits for the child: `body`'s exit code, 128 + the signal that ended
  // it, or nothing on time-out (then everything is killed).
  std::optional<int> wait(std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    return process_.wait(timeout);
  }

 private:
  ChildProcess process_;
  pid_t outerPid_ = 0;
};

}  // namespace er::test
