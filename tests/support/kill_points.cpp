#include "support/kill_points.hpp"

#include <csignal>
#include <mutex>

#include "diagnostics/test_hooks.hpp"

namespace er::test {
namespace {

// State of the installed hook; the hook runs on the threads of the library's
// callers, so it is guarded.
std::mutex hookMutex;
std::map<std::string, unsigned> counts;
std::string target;
long remaining = -1;  // reaches of `target` left before the signal; -1: none
int signalToRaise = SIGKILL;

[[maybe_unused]] void onPoint(const char* point) {
  int raising = 0;
  {
    std::lock_guard<std::mutex> lock(hookMutex);
    ++counts[point];
    if (remaining >= 0 && target == point && remaining-- == 0) raising = signalToRaise;
  }
  // Raised outside the lock, so that a stopped process holds none.
  if (raising != 0) std::raise(raising);
}

void reset(const std::string& point, long skip, int signal = SIGKILL) {
  std::lock_guard<std::mutex> lock(hookMutex);
  counts.clear();
  target = point;
  remaining = skip;
  signalToRaise = signal;
}

}  // namespace

bool testPointsCompiledIn() {
#if defined(ENDPOINTREGISTRY_TEST_HOOKS)
  return true;
#else
  return false;
#endif
}

const std::vector<std::string>& libraryTestPoints() {
  static const std::vector<std::string> points{
      "record.created",         "record.locked",
      "record.published",       "record.withdrawing",
      "record.probing",         "record.reclaiming",
      "directory.entry.erased", "directory.initialize.claimed",
      "directory.row.written",  "directory.reorganize.created",
      "record.opening",
  };
  return points;
}

void killAtPoint(const std::string& point, unsigned skip) {
  reset(point, static_cast<long>(skip));
#if defined(ENDPOINTREGISTRY_TEST_HOOKS)
  agent::spf::endpointregistry::testhooks::install(&onPoint);
#endif
}

void stopAtPoint(const std::string& point) {
  reset(point, 0, SIGSTOP);
#if defined(ENDPOINTREGISTRY_TEST_HOOKS)
  agent::spf::endpointregistry::testhooks::install(&onPoint);
#endif
}

void countPoints() {
  reset("", -1);
#if defined(ENDPOINTREGISTRY_TEST_HOOKS)
  agent::spf::endpointregistry::testhooks::install(&onPoint);
#endif
}

std::map<std::string, unsigned> pointCounts() {
  std::lock_guard<std::mutex> lock(hookMutex);
  return counts;
}

}  // namespace er::test
