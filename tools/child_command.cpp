#include "child_command.hpp"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace agent::spf::endpointregistry::tool {

int runCommand(const std::vector<std::string>& command) {
  // What the child needs is made before fork(): after it, only
  // async-signal-safe calls until exec.
  std::vector<char*> argv;
  for (const std::string& word : command) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  sigset_t waited;
  sigemptyset(&waited);
  for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) sigaddset(&waited, signal);
  sigset_t before;
  if (const int error = pthread_sigmask(SIG_BLOCK, &waited, &before); error != 0) {
    throw std::system_error(error, std::generic_category(), "pthread_sigmask");
  }
  const std::string notFound = "endpointregistry: cannot run '" + command.front() + "': ";
  const pid_t child = fork();
  if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (child == 0) {
    // The command starts as from a shell: no signal blocked, SIGPIPE as default.
    signal(SIGPIPE, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execvp(argv[0], argv.data());
    const int error = errno;
    const char* reason = strerror(error);
    (void)!write(STDERR_FILENO, notFound.data(), notFound.size());
    (void)!write(STDERR_FILENO, reason, strlen(reason));
    (void)!write(STDERR_FILENO, "\n", 1);
    _exit(127);
  }
  int status = 0;
  for (;;) {
    int signal = 0;
    sigwait(&waited, &signal);
    if (signal != SIGCHLD) {
      kill(child, signal);
      continue;
    }
    const pid_t ended = waitpid(child, &status, WNOHANG);
    if (ended == child) break;
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return 1;
}

}  // namespace agent::spf::endpointregistry::tool
