#include "support/pid_namespace.hpp"

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdio>

namespace er::test {

bool canMakePidNamespaces() {
  static const bool can = [] {
    if (geteuid() != 0) return false;
    return runInChild([](ChildProcess&) { return unshare(CLONE_NEWPID) == 0 ? 0 : 1; }) == 0;
  }();
  return can;
}

NamespacedChild::NamespacedChild(ChildProcess::Body body)
    : process_([body = std::move(body)](ChildProcess& self) -> int {
        if (unshare(CLONE_NEWPID) != 0) return 90;
        // The inner process starts only once its pid has been reported, so
        // that this is the first line the test reads.
        int gate[2];
        if (pipe(gate) != 0) return 91;
        std::fflush(nullptr);
        const pid_t inner = fork();
        if (inner < 0) return 92;
        if (inner == 0) {
          close(gate[1]);
          char go = 0;
          while (read(gate[0], &go, 1) < 0 && errno == EINTR) {
          }
          close(gate[0]);
          int code = 101;
          try {
            code = body(self);
          } catch (...) {
            code = 101;
          }
          std::fflush(nullptr);
          _exit(code);
        }
        close(gate[0]);
        self.tellParent(std::to_string(inner));
        (void)write(gate[1], "g", 1);
        close(gate[1]);
        int status = 0;
        while (waitpid(inner, &status, 0) < 0) {
          if (errno != EINTR) return 93;
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }) {
  if (const std::optional<std::string> line = process_.readFromChild()) outerPid_ = std::stoi(*line);
}

void NamespacedChild::kill(int signal) {
  if (outerPid_ > 0) ::kill(outerPid_, signal);
}

}  // namespace er::test
