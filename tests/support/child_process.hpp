// A forked child process running a function, with a two-way line channel for
// explicit handshakes, bounded waits, and SIGKILL on scope exit.
#pragma once

#include <sys/types.h>
#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace er::test {

class ChildProcess {
 public:
  using Body = std::function<int(ChildProcess&)>;

  // Forks; the child runs `body` and leaves with _exit(its return value). An
  // exception escaping `body` ends the child with code 101. The child is
  // killed (SIGKILL) if the thread that made it ends first.
  explicit ChildProcess(Body body);
  // Kills (SIGKILL) and reaps the child if it is still running.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const noexcept { return pid_; }

  // Child side: one line to the parent / the next line from the parent.
  void tellParent(const std::string& line);
  std::optional<std::string> readFromParent(std::chrono::milliseconds timeout = std::chrono::seconds(30));

  // Parent side: one line to the child / the next line from the child
  // (nullopt on time-out or when the child closed its end).
  void tellChild(const std::string& line);
  std::optional<std::string> readFromChild(std::chrono::milliseconds timeout = std::chrono::seconds(30));

  void kill(int signal = 9);
  // Waits until the child is stopped (SIGSTOP); false on time-out or when
  // it ended instead.
  bool waitUntilStopped(std::chrono::milliseconds timeout = std::chrono::seconds(30));
  // Waits for the child to end: its exit code, 128 + signal when killed, or
  // nullopt on time-out (the child is then killed and reaped).
  std::optional<int> wait(std::chrono::milliseconds timeout = std::chrono::seconds(30));

 private:
  static std::optional<std::string> readLine(int fd, std::string& buffer, std::chrono::milliseconds timeout);
  static void writeLine(int fd, const std::string& line);

  pid_t pid_ = -1;
  bool reaped_ = false;
  int toChild_ = -1;     // parent writes
  int fromChild_ = -1;   // parent reads
  int toParent_ = -1;    // child writes
  int fromParent_ = -1;  // child reads
  std::string buffer_;
};

// Runs `body` in a child and returns its exit code (nullopt on time-out).
// Waits up to `timeout` for the child `pid` (of this process) to end and
// reaps it: its exit code, 128 + the signal that ended it, or nothing (a
// child still running then is killed and reaped).
std::optional<int> reapWithin(pid_t pid, std::chrono::milliseconds timeout = std::chrono::seconds(30));

std::optional<int> runInChild(const ChildProcess::Body& body,
                              std::chrono::milliseconds timeout = std::chrono::seconds(60));

}  // namespace er::test
