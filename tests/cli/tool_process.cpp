#include "tool_process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <stdexcept>

#include "support/system_accounts.hpp"

namespace er::test {
namespace {

char toolPath[] = ENDPOINTREGISTRY_TOOL_PATH;

// The argument vector of the tool; built before fork(), since the child may
// not allocate.
std::vector<char*> toolArgv(const std::vector<std::string>& arguments) {
  std::vector<char*> argv{toolPath};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  return argv;
}

}  // namespace

ToolProcess::ToolProcess(const std::vector<std::string>& arguments, const std::optional<Identity>& identity) {
  int out[2];
  int err[2];
  std::vector<char*> argv = toolArgv(arguments);
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  std::fflush(nullptr);
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    const int devNull = open("/dev/null", O_RDONLY);
    if (devNull < 0 || dup2(devNull, 0) < 0 || dup2(out[1], 1) < 0 || dup2(err[1], 2) < 0) _exit(125);
    if (identity && !becomeUser(identity->uid, identity->gid, identity->groups)) _exit(126);
    execv(toolPath, argv.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  outFd_ = out[0];
  errFd_ = err[0];
}

ToolProcess::~ToolProcess() {
  if (!reaped_) reap(true);
  for (int fd : {outFd_, errFd_}) {
    if (fd >= 0) close(fd);
  }
}

void ToolProcess::closeOutput() {
  if (outFd_ >= 0) close(outFd_);
  outFd_ = -1;
}

bool ToolProcess::pump(std::chrono::steady_clock::time_point deadline) {
  for (;;) {
    pollfd fds[2];
    nfds_t count = 0;
    for (int fd : {outFd_, errFd_}) {
      if (fd >= 0) fds[count++] = {fd, POLLIN, 0};
    }
    if (count == 0) return false;
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    const int ready = poll(fds, count, static_cast<int>(std::max<long>(left.count(), 0)));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    for (nfds_t i = 0; i < count; ++i) {
      if (fds[i].revents == 0) continue;
      int& fd = fds[i].fd == outFd_ ? outFd_ : errFd_;
      std::string& buffer = fds[i].fd == outFd_ ? out_ : err_;
      char chunk[4096];
      const ssize_t n = read(fd, chunk, sizeof chunk);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        close(fd);
        fd = -1;
      } else {
        buffer.append(chunk, static_cast<std::size_t>(n));
      }
    }
    return true;
  }
}

std::optional<std::string> ToolProcess::readLine(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    const auto newline = out_.find('\n');
    if (newline != std::string::npos) {
      std::string line = out_.substr(0, newline);
      out_.erase(0, newline + 1);
      return line;
    }
    if (outFd_ < 0 || !pump(deadline)) return std::nullopt;
  }
}

bool ToolProcess::waitForLine(const std::string& line, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    const std::optional<std::string> next = readLine(left);
    if (!next) return false;
    if (*next == line) return true;
  }
}

void ToolProcess::signal(int signal) {
  if (!reaped_) ::kill(pid_, signal);
}

std::optional<int> ToolProcess::wait(std::chrono::milliseconds timeout) {
  if (reaped_) return std::nullopt;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  // The pipes close when the tool ends; until then, keep them drained.
  while (outFd_ >= 0 || errFd_ >= 0) {
    if (!pump(deadline) && std::chrono::steady_clock::now() >= deadline) {
      reap(true);
      return std::nullopt;
    }
  }
  reap(false);
  if (WIFEXITED(status_)) return WEXITSTATUS(status_);
  if (WIFSIGNALED(status_)) return 128 + WTERMSIG(status_);
  return std::nullopt;
}

void ToolProcess::reap(bool kill) {
  if (kill) ::kill(pid_, SIGKILL);
  while (waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
  }
  reaped_ = true;
}

ToolRun runTool(const std::vector<std::string>& arguments, const std::optional<Identity>& identity,
                std::chrono::milliseconds timeout) {
  ToolProcess tool(arguments, identity);
  const std::optional<int> code = tool.wait(timeout);
  return {code.value_or(-1), tool.output(), tool.errors()};
}

}  // namespace er::test
