#include "diagnostics/test_hooks.hpp"

#if defined(ENDPOINTREGISTRY_TEST_HOOKS)

#include <atomic>

namespace agent::spf::endpointregistry::testhooks {
namespace {
std::atomic<Hook> installed{nullptr};
}

void install(Hook hook) noexcept { installed.store(hook); }

void reach(const char* point) {
  if (Hook hook = installed.load(std::memory_order_relaxed)) hook(point);
}

}  // namespace agent::spf::endpointregistry::testhooks

#endif
