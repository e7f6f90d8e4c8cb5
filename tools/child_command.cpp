#include "child_command.hpp"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
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
  if (child < 0) {
    const int error = errno;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    throw std::system_error(error, std::generic_category(), "fork");
  }
  if (child == 0) {
    // The command starts as from a shell: no signal blocked, SIGPIPE as default.
    signal(SIGPIPE, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execvp(argv[0], argv.data());
    const char* reason = strerrordesc_np(errno);  // a constant text: safe after fork()
    if (reason == nullptr) reason = "cannot be started";
    (void)!write(STDERR_FILENO, notFound.data(), notFound.size());
    (void)!write(STDERR_FILENO, reason, strlen(reason));
    (void)!write(STDERR_FILENO, "\n", 1);
    _exit(127);
  }
  // SIGCHLD is blocked in the threads started before (blockStopSignals()),
  // so it waits here; the child's end is also looked for every second, in
  // case a thread that does not block it took the signal.
  int status = 0;
  for (;;) {
    if (waitpid(child, &status, WNOHANG) == child) break;
    siginfo_t info{};
    const timespec second{1, 0};
    const int signal = sigtimedwait(&waited, &info, &second);
    // A signal from the terminal (Ctrl-C) reached the command already: it is
    // in the same process group.
    if (signal > 0 && signal != SIGCHLD && info.si_code != SI_KERNEL) kill(child, signal);
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return 1;
}

}  // namespace agent::spf::endpointregistry::tool
