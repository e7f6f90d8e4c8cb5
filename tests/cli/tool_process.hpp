// The endpointregistry tool run as a real process by tests: its standard
// output and error captured through pipes, read line by line with deadlines,
// signalled, and killed (SIGKILL) and reaped on scope exit.
#pragma once

#include <sys/types.h>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace er::test {

// Who the tool runs as (set in the child before exec); needs root.
struct Identity {
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;
};

// Generous: other processes may hold a directory lock for a while on a busy machine.
inline constexpr std::chrono::milliseconds toolTimeout = std::chrono::seconds(60);

class ToolProcess {
 public:
  // Starts the tool with `arguments` (not including the program name), stdin
  // from /dev/null.
  explicit ToolProcess(const std::vector<std::string>& arguments, const std::optional<Identity>& identity = {});
  // Kills (SIGKILL) and reaps the tool if it is still running.
  ~ToolProcess();
  ToolProcess(const ToolProcess&) = delete;
  ToolProcess& operator=(const ToolProcess&) = delete;

  pid_t pid() const noexcept { return pid_; }

  // The next whole line of standard output, without its newline; nothing on
  // time-out or when the output ended.
  std::optional<std::string> readLine(std::chrono::milliseconds timeout = toolTimeout);
  // Reads lines until one equals `line`; false on time-out or end of output.
  bool waitForLine(const std::string& line, std::chrono::milliseconds timeout = toolTimeout);

  void signal(int signal);
  // Closes this end of the tool's standard output, as a reader that goes
  // (`| head -1`) does: the tool's next write fails with EPIPE.
  void closeOutput();
  // Waits for the tool to end, collecting the rest of its output: its exit
  // code, 128 + the signal that killed it, or nothing on time-out (it is then
  // killed).
  std::optional<int> wait(std::chrono::milliseconds timeout = toolTimeout);

  // Standard output not yet returned by readLine(), and all of standard error.
  const std::string& output() const noexcept { return out_; }
  const std::string& errors() const noexcept { return err_; }

 private:
  // Reads what is available from both pipes, waiting until `deadline` for
  // something to arrive; false when the deadline passed with nothing read.
  bool pump(std::chrono::steady_clock::time_point deadline);
  void reap(bool kill);

  pid_t pid_ = -1;
  bool reaped_ = false;
  int status_ = 0;
  int outFd_ = -1;
  int errFd_ = -1;
  std::string out_;
  std::string err_;
};

// A finished run of the tool.
struct ToolRun {
  int exitCode = -1;  // -1 when it did not end in time
  std::string out;
  std::string err;
};

ToolRun runTool(const std::vector<std::string>& arguments, const std::optional<Identity>& identity = {},
                std::chrono::milliseconds timeout = toolTimeout);

// The line `gc` prints for these counts of what it cleared.
inline std::string gcLine(unsigned stale, unsigned unnamed = 0, unsigned dangling = 0, unsigned containers = 0,
                          unsigned rebuilt = 0, unsigned restored = 0) {
  return "cleared " + std::to_string(stale) + " stale record(s), " + std::to_string(unnamed) + " unnamed segment(s), " +
         std::to_string(dangling) + " dangling name(s), " + std::to_string(containers) +
         " leftover container(s); rebuilt " + std::to_string(rebuilt) + " directory(ies), restored " +
         std::to_string(restored) + " name(s)\n";
}

}  // namespace er::test
