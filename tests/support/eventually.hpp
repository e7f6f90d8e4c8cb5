// Waiting, bounded, for a condition that another process brings about.
#pragma once

#include <chrono>
#include <thread>

namespace er::test {

// Polls `done` every millisecond until it holds (true) or `limit` passed (false).
template <class Condition>
bool eventually(Condition done, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace er::test
