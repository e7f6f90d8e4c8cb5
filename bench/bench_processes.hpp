// Other processes for the benchmarks: forked publishers that keep endpoints
// alive until told to go (or killed), programs started afresh with
// posix_spawn, and the supplementary groups used as trustees.
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

// Starts `program` with `arguments` (posix_spawn), its standard output and
// standard input on pipes. awaitReport() waits for its first output byte;
// awaitEnd() closes its input, which lets a helper that waits for that (see
// awaitRelease) end, and waits for it.
class SpawnedProgram {
 public:
  SpawnedProgram(const std::string& program, const std::vector<std::string>& arguments) {
    int out[2];
    int in[2];
    if (pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    if (pipe2(in, O_CLOEXEC) != 0) {
      close(out[0]);
      close(out[1]);
      throw std::runtime_error("pipe failed");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    std::vector<std::string> words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    const int result = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    close(in[0]);
    output = out[0];
    input = in[1];
    if (result != 0) {
      close(output);
      close(input);
      throw std::runtime_error("posix_spawn failed");
    }
  }
  ~SpawnedProgram() {
    if (pid > 0) {
      ::kill(pid, SIGKILL);
      reap(pid);
    }
    close(output);
    if (input >= 0) close(input);
  }
  SpawnedProgram(const SpawnedProgram&) = delete;
  SpawnedProgram& operator=(const SpawnedProgram&) = delete;

  bool awaitReport(std::chrono::milliseconds timeout = std::chrono::seconds(30)) { return awaitByte(output, timeout); }
  // Lets the program go on past its report and waits for it to end.
  void awaitEnd() {
    if (input >= 0) close(input);
    input = -1;
    if (pid > 0) reap(pid);
    pid = -1;
  }

 private:
  pid_t pid = -1;
  int output = -1;
  int input = -1;
};

// This program's own path, for starting it again in a helper mode.
inline const std::string& selfPath() {
  static const std::string path = [] {
    std::vector<char> buffer(4096);
    const ssize_t n = readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
    return n > 0 ? std::string(buffer.data(), static_cast<std::size_t>(n)) : std::string();
  }();
  return path;
}

// In a helper process: writes its report (one byte on standard output),
// then waits until the starting process closes its standard input. What the
// helper does after its report (ending, withdrawing its endpoint) then does
// not compete with the starting process for a core while it takes the report.
inline void reportAndAwaitRelease() {
  const char report = '1';
  while (write(1, &report, 1) < 0 && errno == EINTR) {
  }
  char byte = 0;
  for (;;) {
    const ssize_t n = read(0, &byte, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n != 1) return;  // closed, or unreadable
  }
}

// The helper mode in which a program started afresh only reports: the floor
// of every figure that starts a program.
inline constexpr const char* bareStartMode = "--report";

// True when `argv` asks for the bare start mode.
inline bool isBareStart(int argc, char** argv) { return argc == 2 && std::strcmp(argv[1], bareStartMode) == 0; }

// Starts this program with `arguments` and times it until its report
// arrives; its end is awaited outside the timing. Empty if it did not report.
inline std::optional<Clock::duration> startToReport(const std::vector<std::string>& arguments) {
  const std::string& self = selfPath();
  const auto start = Clock::now();
  SpawnedProgram program(self, arguments);
  if (!program.awaitReport()) return std::nullopt;
  const auto elapsed = Clock::now() - start;
  program.awaitEnd();
  return elapsed;
}

// Starts this program in the bare start mode once per iteration and times
// it until its report arrives.
inline void timeBareStart(benchmark::State& state) {
  Samples samples;
  for (auto _ : state) {
    const std::optional<Clock::duration> elapsed = startToReport({bareStartMode});
    if (!elapsed) {
      state.SkipWithError("the started program did not report");
      break;
    }
    samples.add(state, *elapsed);
  }
  samples.report(state);
}

// Starts this program once per iteration with the arguments that
// `arguments` gives, and times it until its report arrives. Each iteration
// also times a bare start (first and second in turn), so that the figure and
// its floor are measured side by side on a machine whose speed drifts; the
// floor is reported as the counters start_median_ns and start_p99_ns.
inline void timeStartBesideBareStart(benchmark::State& state,
                                     const std::function<std::vector<std::string>()>& arguments) {
  Samples samples;
  Samples floor;
  bool floorFirst = true;
  for (auto _ : state) {
    const std::vector<std::string> these = arguments();
    std::optional<Clock::duration> floorElapsed;
    if (floorFirst) floorElapsed = startToReport({bareStartMode});
    const std::optional<Clock::duration> elapsed = startToReport(these);
    if (!floorFirst) floorElapsed = startToReport({bareStartMode});
    floorFirst = !floorFirst;
    if (!elapsed || !floorElapsed) {
      state.SkipWithError("the started program did not report");
      break;
    }
    samples.add(state, *elapsed);
    floor.addSide(*floorElapsed);
  }
  samples.report(state);
  floor.report(state, 1, "start_");
}

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
