// Template definitions of arguments.hpp.
#pragma once

#include <algorithm>
#include <cmath>

namespace endpointregistry_python {

template <typename Call>
bool waitInSlices(const std::optional<double>& timeout, const Call& call) {
  using namespace std::chrono;
  constexpr milliseconds slice{200};
  if (timeout && (std::isnan(*timeout) || *timeout < 0)) throw py::value_error("timeout must not be negative");
  const auto deadline =
      timeout ? steady_clock::now() + duration_cast<steady_clock::duration>(duration<double>(std::min(*timeout, 1e9)))
              : steady_clock::time_point::max();
  for (;;) {
    const auto left = deadline - steady_clock::now();
    const milliseconds wait = std::max(milliseconds(0), std::min<milliseconds>(slice, ceil<milliseconds>(left)));
    bool done = false;
    {
      py::gil_scoped_release release;
      done = call(wait);
    }
    if (done) return true;
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
    if (steady_clock::now() >= deadline) return false;
  }
}

}  // namespace endpointregistry_python
