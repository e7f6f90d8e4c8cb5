#include "agent/spf/sharedmemory/mapped_access.hpp"

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <mutex>

namespace agent::spf::sharedmemory {
namespace {

// Read by the signal handler: initial-exec, so that reading it never
// allocates, and set by this thread before any fault that it judges.
thread_local unsigned accessDepth __attribute__((tls_model("initial-exec"))) = 0;

std::atomic<std::uint64_t> repairs{0};
struct sigaction previousAction;
std::once_flag installOnce;

// Passes a fault that is not ours to the handler that was there before us.
void passOn(int signal, siginfo_t* info, void* context) {
  if ((previousAction.sa_flags & SA_SIGINFO) != 0 && previousAction.sa_sigaction != nullptr) {
    previousAction.sa_sigaction(signal, info, context);
    return;
  }
  if (previousAction.sa_handler != SIG_DFL && previousAction.sa_handler != SIG_IGN) {
    previousAction.sa_handler(signal);
    return;
  }
  // No handler of the application: the default action, taken when the
  // faulting instruction runs again (a fault cannot be ignored).
  struct sigaction fallback {};
  fallback.sa_handler = SIG_DFL;
  sigemptyset(&fallback.sa_mask);
  sigaction(SIGBUS, &fallback, nullptr);
}

void onSigbus(int signal, siginfo_t* info, void* context) {
  const int savedErrno = errno;
  // Only a fault on a page beyond the end of a mapped file (BUS_ADRERR) is
  // repaired; the page, and only it, becomes private zeros.
  if (accessDepth > 0 && info != nullptr && info->si_code == BUS_ADRERR && info->si_addr != nullptr) {
    const auto pageSize = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    void* page = reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(info->si_addr) & ~(pageSize - 1));
    if (mmap(page, pageSize, PROT_READ | PROT_WRITE, MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) != MAP_FAILED) {
      repairs.fetch_add(1, std::memory_order_relaxed);
      errno = savedErrno;
      return;
    }
  }
  errno = savedErrno;
  passOn(signal, info, context);
}

void installHandler() {
  struct sigaction action {};
  action.sa_sigaction = &onSigbus;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  sigaction(SIGBUS, &action, &previousAction);
}

}  // namespace

MappedAccess::MappedAccess() noexcept {
  try {
    std::call_once(installOnce, &installHandler);
  } catch (...) {
    // Without the handler a fault ends the process, as it did before.
  }
  ++accessDepth;
}

MappedAccess::~MappedAccess() { --accessDepth; }

std::uint64_t repairedFaults() noexcept { return repairs.load(std::memory_order_relaxed); }

}  // namespace agent::spf::sharedmemory
