#include "support/child_process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <thread>

namespace er::test {

ChildProcess::ChildProcess(Body body) {
  // A line to a child that has died fails instead of ending the test.
  static const bool pipeSignalIgnored = std::signal(SIGPIPE, SIG_IGN) != SIG_ERR;
  (void)pipeSignalIgnored;
  int down[2];
  int up[2];
  if (pipe2(down, O_CLOEXEC) != 0 || pipe2(up, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  std::fflush(nullptr);
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    // A test that dies leaves no child behind (one blocked on a lock, say).
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    close(down[1]);
    close(up[0]);
    fromParent_ = down[0];
    toParent_ = up[1];
    int code = 101;
    try {
      code = body(*this);
    } catch (...) {
      code = 101;
    }
    std::fflush(nullptr);
    _exit(code);
  }
  close(down[0]);
  close(up[1]);
  toChild_ = down[1];
  fromChild_ = up[0];
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !reaped_) {
    ::kill(pid_, SIGKILL);
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
  }
  for (int fd : {toChild_, fromChild_}) {
    if (fd >= 0) close(fd);
  }
}

void ChildProcess::writeLine(int fd, const std::string& line) {
  std::string text = line + "\n";
  const char* p = text.data();
  std::size_t left = text.size();
  while (left > 0) {
    ssize_t n = write(fd, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    p += n;
    left -= static_cast<std::size_t>(n);
  }
}

std::optional<std::string> ChildProcess::readLine(int fd, std::string& buffer, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    auto newline = buffer.find('\n');
    if (newline != std::string::npos) {
      std::string line = buffer.substr(0, newline);
      buffer.erase(0, newline + 1);
      return line;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    // A time-out of 0 still takes a line that is there already.
    if (left.count() < 0) return std::nullopt;
    pollfd pfd{fd, POLLIN, 0};
    int r = poll(&pfd, 1, static_cast<int>(left.count()));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return std::nullopt;
    char chunk[256];
    ssize_t n = read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return std::nullopt;
    buffer.append(chunk, static_cast<std::size_t>(n));
  }
}

void ChildProcess::tellParent(const std::string& line) { writeLine(toParent_, line); }
std::optional<std::string> ChildProcess::readFromParent(std::chrono::milliseconds timeout) {
  return readLine(fromParent_, buffer_, timeout);
}
void ChildProcess::tellChild(const std::string& line) { writeLine(toChild_, line); }
std::optional<std::string> ChildProcess::readFromChild(std::chrono::milliseconds timeout) {
  return readLine(fromChild_, buffer_, timeout);
}

void ChildProcess::kill(int signal) {
  if (pid_ > 0 && !reaped_) ::kill(pid_, signal);
}

bool ChildProcess::waitUntilStopped(std::chrono::milliseconds timeout) {
  if (reaped_) return false;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    int status = 0;
    const pid_t r = waitpid(pid_, &status, WNOHANG | WUNTRACED);
    if (r == pid_) {
      if (WIFSTOPPED(status)) return true;
      reaped_ = true;  // it ended
      return false;
    }
    if ((r < 0 && errno != EINTR) || std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

std::optional<int> reapWithin(pid_t pid, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    int status = 0;
    const pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) {
      if (WIFEXITED(status)) return WEXITSTATUS(status);
      if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
      return std::nullopt;
    }
    if (r < 0 && errno != EINTR) return std::nullopt;
    if (std::chrono::steady_clock::now() >= deadline) {
      ::kill(pid, SIGKILL);
      while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
      }
      return std::nullopt;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
  if (reaped_) return std::nullopt;
  reaped_ = true;
  return reapWithin(pid_, timeout);
}

std::optional<int> runInChild(const ChildProcess::Body& body, std::chrono::milliseconds timeout) {
  ChildProcess child(body);
  return child.wait(timeout);
}

}  // namespace er::test
