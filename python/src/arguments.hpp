// Python arguments turned into the library's: trustee sets and timeouts.
// Both need the GIL.
#pragma once

#include <pybind11/pybind11.h>

#include <chrono>
#include <optional>
#include <set>
#include <string>

namespace endpointregistry_python {

namespace py = pybind11;

// The group names of an iterable of str (a set, a list, ...); TypeError for
// a lone str or bytes (which would otherwise be taken letter by letter) and
// for items that are not str.
std::set<std::string> trusteesOf(py::handle iterable);

// The trustees argument of the listings and the watcher: None means the
// current user's own scope alone ({""}).
std::set<std::string> trusteesOrOwn(const std::optional<py::object>& trustees);

// Runs `call` without the GIL until it returns true or `timeout` (None: no
// end) passes, in slices short enough for Ctrl-C: between slices pending
// signals are handled, and their exception (KeyboardInterrupt) is raised.
// `call` gets the slice to wait and must not touch Python objects.
template <typename Call>
bool waitInSlices(const std::optional<double>& timeout, const Call& call);

}  // namespace endpointregistry_python

#include "arguments_inl.hpp"
