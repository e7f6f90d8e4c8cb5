#include "stop_signals.hpp"

#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <cerrno>
#include <ctime>
#include <stdexcept>
#include <system_error>

namespace agent::spf::endpointregistry::tool {
namespace {

sigset_t stopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGHUP);
  return set;
}

}  // namespace

void blockStopSignals() {
  const sigset_t set = stopSignals();
  if (const int error = pthread_sigmask(SIG_BLOCK, &set, nullptr); error != 0) {
    throw std::system_error(error, std::generic_category(), "cannot block SIGINT, SIGTERM and SIGHUP");
  }
}

std::optional<int> waitForStopSignal(std::optional<std::chrono::milliseconds> timeout) {
  const sigset_t set = stopSignals();
  if (!timeout) {
    int signal = 0;
    if (const int error = sigwait(&set, &signal); error != 0) {
      throw std::system_error(error, std::generic_category(), "sigwait");
    }
    return signal;
  }
  const auto deadline = std::chrono::steady_clock::now() + *timeout;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    timespec wait{};
    wait.tv_sec = static_cast<time_t>(left.count() / 1'000'000'000);
    wait.tv_nsec = static_cast<long>(left.count() % 1'000'000'000);
    const int signal = sigtimedwait(&set, nullptr, &wait);
    if (signal > 0) return signal;
    if (errno == EAGAIN) return std::nullopt;
    if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "sigtimedwait");
  }
}

int stopSignalDescriptor() {
  const sigset_t set = stopSignals();
  const int fd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
  return fd;
}

}  // namespace agent::spf::endpointregistry::tool
