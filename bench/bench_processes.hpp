// Other processes for the benchmarks: forked publishers that keep endpoints
// alive until told to go (or killed), and the supplementary groups used as
// trustees.
//
// Every wait is bounded; a child that does not answer in time is killed.
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench_support.hpp"

extern char** environ;

namespace erbench {

// Reads one byte from `fd`, waiting at most `timeout`: true if one came.
inline bool awaitByte(int fd, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() < 0) return false;
    pollfd pfd{fd, POLLIN, 0};
    const int ready = poll(&pfd, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    char byte = 0;
    const ssize_t n = read(fd, &byte, 1);
    if (n < 0 && errno == EINTR) continue;
    return n == 1;
  }
}

// In a forked child: closes every descriptor above standard error except
// `a` and `b`, so that the child holds no end of another child's pipe (which
// would keep that child from seeing its pipe closed).
inline void closeAllBut(int a, int b) {
  const unsigned low = static_cast<unsigned>(std::min(a, b));
  const unsigned high = static_cast<unsigned>(std::max(a, b));
  if (low > 3) close_range(3, low - 1, 0);
  if (high > low + 1) close_range(low + 1, high - 1, 0);
  close_range(high + 1, ~0U, 0);
}

inline void reap(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
}

// A forked child that runs `body`, tells the parent it is ready (one byte)
// and then lives until the parent lets it go (closes the pipe), or kills it.
// `body` returns what must stay alive meanwhile (held by a std::function so
// that its destructor runs when the child is let go).
class ChildHolding {
 public:
  using Body = std::function<std::function<void()>()>;

  explicit ChildHolding(const Body& body, std::chrono::milliseconds patience = std::chrono::seconds(300)) {
    int down[2];
    int up[2];
    if (pipe2(down, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    if (pipe2(up, O_CLOEXEC) != 0) {
      close(down[0]);
      close(down[1]);
      throw std::runtime_error("pipe failed");
    }
    std::fflush(nullptr);
    pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
      close(down[1]);
      close(up[0]);
      closeAllBut(down[0], up[1]);
      int code = 0;
      try {
        std::function<void()> held = body();
        const char ready = 'r';
        if (write(up[1], &ready, 1) != 1) code = 2;
        char byte = 0;
        while (read(down[0], &byte, 1) < 0 && errno == EINTR) {
        }
        held = nullptr;
      } catch (...) {
        code = 1;
      }
      _exit(code);
    }
    close(down[0]);
    close(up[1]);
    toChild = down[1];
    fromChild = up[0];
    if (!awaitByte(fromChild, patience)) {
      kill();
      letGo();
      throw std::runtime_error("a child process did not get ready");
    }
  }

  ~ChildHolding() { letGo(); }
  ChildHolding(const ChildHolding&) = delete;
  ChildHolding& operator=(const ChildHolding&) = delete;

  pid_t processId() const noexcept { return pid; }

  // Lets the child release what it holds and end; waits for it.
  void letGo() {
    if (pid <= 0) return;
    close(toChild);
    reap(pid);
    close(fromChild);
    pid = -1;
  }

  // SIGKILL now; letGo() (or the destructor) reaps the child.
  void kill() {
    if (pid > 0) ::kill(pid, SIGKILL);
  }

 private:
  pid_t pid = -1;
  int toChild = -1;
  int fromChild = -1;
};

// Sets the process's supplementary groups for its lifetime (root only) and
// restores the previous ones afterwards. The trustee groups of the
// benchmarks are the two existing groups of lowest non-zero id.
class SupplementaryGroups {
 public:
  explicit SupplementaryGroups(const std::vector<gid_t>& groups) {
    const int count = getgroups(0, nullptr);
    previous.resize(static_cast<std::size_t>(std::max(count, 0)));
    if (count > 0 && getgroups(count, previous.data()) < 0) previous.clear();
    ok = setgroups(groups.size(), groups.data()) == 0;
  }
  ~SupplementaryGroups() {
    if (ok) (void)setgroups(previous.size(), previous.data());
  }
  SupplementaryGroups(const SupplementaryGroups&) = delete;
  SupplementaryGroups& operator=(const SupplementaryGroups&) = delete;

  bool applied() const noexcept { return ok; }

  // Two groups of the group database, by id: (gid, name) pairs.
  static std::vector<std::pair<gid_t, std::string>> twoTrusteeGroups() {
    std::vector<std::pair<gid_t, std::string>> found;
    setgrent();
    while (group* entry = getgrent()) {
      if (entry->gr_gid != 0 && entry->gr_gid < 65534) found.emplace_back(entry->gr_gid, entry->gr_name);
    }
    endgrent();
    std::sort(found.begin(), found.end());
    if (found.size() > 2) found.resize(2);
    return found;
  }

 private:
  std::vector<gid_t> previous;
  bool ok = false;
};

}  // namespace erbench
