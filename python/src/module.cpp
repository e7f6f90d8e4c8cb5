// The extension module endpointregistry._core: publication, listing and
// garbage collection (the Watcher is bound in watcher_binding.cpp). The
// package endpointregistry (python/endpointregistry) re-exports it with the
// watcher's Python conveniences. Every call that may wait (publication,
// withdrawal, trustee changes, listing, collection) runs without the GIL.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include <endpointregistry/endpoint.hpp>
#include <endpointregistry/garbage_collection.hpp>

#include "arguments.hpp"
#include "data_text.hpp"
#include "watcher_binding.hpp"

namespace endpointregistry_python {
namespace {

namespace registry = agent::spf::endpointregistry;
using registry::Endpoint;
using namespace pybind11::literals;
using Pairs = std::vector<std::pair<std::string, std::string>>;

py::list pairsOf(const Pairs& pairs, bool asBytes) {
  py::list result;
  for (const auto& pair : pairs) result.append(pairOf(pair, asBytes));
  return result;
}

// Runs a listing without the GIL and converts its pairs with it.
template <typename Listing>
py::list listed(bool asBytes, const Listing& listing) {
  Pairs pairs;
  {
    py::gil_scoped_release release;
    pairs = listing();
  }
  return pairsOf(pairs, asBytes);
}

py::dict reportOf(const registry::GarbageReport& report) {
  return py::dict("stale_records"_a = report.staleRecords, "unnamed_segments"_a = report.unnamedSegments,
                  "dangling_names"_a = report.danglingNames, "leftover_containers"_a = report.leftoverContainers,
                  "rebuilt_directories"_a = report.rebuiltDirectories, "restored_names"_a = report.restoredNames);
}

// Calls a trustee operation of `endpoint` with the trustees of `iterable`,
// without the GIL.
template <typename Operation>
void changeTrustees(Endpoint& endpoint, py::handle iterable, const Operation& operation) {
  std::set<std::string> trustees = trusteesOf(iterable);
  py::gil_scoped_release release;
  (endpoint.*operation)(std::move(trustees));
}

// Withdraws without the GIL when Python lets go of an Endpoint: withdrawal
// may wait for directory locks.
struct WithdrawWithoutGil {
  void operator()(Endpoint* endpoint) const {
    if (endpoint == nullptr) return;
    py::gil_scoped_release release;
    delete endpoint;
  }
};

void bindEndpoint(py::module_& m) {
  py::class_<Endpoint, std::unique_ptr<Endpoint, WithdrawWithoutGil>>(
      m, "Endpoint", R"(A published endpoint: a pair of data strings under a group tag.

Made by publish(). It stays published while the object lives, until reset()
or the end of a `with` block, or until the process dies. An empty Endpoint()
is published nowhere. One object must not be used from two threads at once.
A child forked from the publishing process cannot withdraw it; only the
parent can.)")
      .def(py::init<>(), "An empty endpoint: false, published nowhere.")
      .def(
          "__bool__", [](const Endpoint& endpoint) { return static_cast<bool>(endpoint); },
          "True while the endpoint is published.")
      .def("reset", &Endpoint::reset, py::call_guard<py::gil_scoped_release>(),
           "Withdraws the endpoint under every trustee and returns once it is no longer listed; "
           "it becomes empty. No effect on an empty endpoint. Never raises.")
      .def("__enter__", [](py::object self) { return self; })
      .def(
          "__exit__",
          [](Endpoint& endpoint, const py::args&) {
            py::gil_scoped_release release;
            endpoint.reset();
            return false;
          },
          "Withdraws the endpoint (reset()).")
      .def_property(
          "trustees",
          [](Endpoint& endpoint) {
            std::set<std::string> trustees;
            {
              py::gil_scoped_release release;
              trustees = endpoint.getTrustees();
            }
            return trustees;
          },
          [](Endpoint& endpoint, py::handle trustees) { changeTrustees(endpoint, trustees, &Endpoint::setTrustees); },
          "The groups under which the endpoint is also published (a set of str). Assigning calls "
          "set_trustees(). ValueError on an empty endpoint.")
      .def(
          "add_trustees",
          [](Endpoint& endpoint, py::handle trustees) { changeTrustees(endpoint, trustees, &Endpoint::addTrustees); },
          "trustees"_a,
          "Publishes under each new group, in ascending order. ValueError \"Trustees can only be groups of "
          "the current user\" for another name (the ones before it stay); DuplicateEndpointError when a "
          "synonym is published under a group.")
      .def(
          "remove_trustees",
          [](Endpoint& endpoint, py::handle trustees) {
            changeTrustees(endpoint, trustees, &Endpoint::removeTrustees);
          },
          "trustees"_a, "Withdraws the publications under the given groups; others are ignored.")
      .def(
          "set_trustees",
          [](Endpoint& endpoint, py::handle trustees) { changeTrustees(endpoint, trustees, &Endpoint::setTrustees); },
          "trustees"_a, "Adds the missing groups first, then removes those no longer wanted.")
      .def("clear_trustees", &Endpoint::clearTrustees, py::call_guard<py::gil_scoped_release>(),
           "Withdraws every group publication; the endpoint stays published for the current user.")
      .def("__repr__", [](const Endpoint& endpoint) {
        return std::string(endpoint ? "<endpointregistry.Endpoint published>" : "<endpointregistry.Endpoint empty>");
      });

  m.def(
      "publish",
      [](py::handle first, py::handle second, py::handle group) {
        const std::string firstBytes = bytesOf(first, "first");
        const std::string secondBytes = bytesOf(second, "second");
        const std::string groupBytes = bytesOf(group, "group");
        py::gil_scoped_release release;
        return Endpoint::publish(firstBytes, secondBytes, groupBytes);
      },
      "first"_a, "second"_a, "group"_a,
      R"(Publishes (first, second) under the group tag `group` for the current user
and returns the Endpoint once it is listed. Each argument is str or bytes.

Raises ValueError "Endpoint data strings cannot be both empty" or "Endpoint
group tag cannot be both empty"; DuplicateEndpointError when the same data
(the two strings joined together) is published under the same tag;
RuntimeError "System error: ..." when shared memory cannot be set up.)");
}

void bindListings(py::module_& m) {
  m.def(
      "list",
      [](const std::optional<py::object>& trustees, bool asBytes) {
        std::set<std::string> scopes = trusteesOrOwn(trustees);
        return listed(asBytes, [&scopes] { return Endpoint::list(std::move(scopes)); });
      },
      "trustees"_a = py::none(), py::kw_only(), "as_bytes"_a = false,
      R"(The live endpoints of every group tag, as (first, second) tuples, each pair once,
sorted. `trustees`: the group names whose directories are read, "" for the
user's own; None reads the user's own alone. Strings come back as str
(surrogateescape) or, with as_bytes=True, as bytes. Clears away the records
of dead publishers that it meets. RuntimeError when shared memory fails.)");
  m.def(
      "filter",
      [](py::handle group, const std::optional<py::object>& trustees, bool asBytes) {
        const std::string tag = bytesOf(group, "group");
        std::set<std::string> scopes = trusteesOrOwn(trustees);
        return listed(asBytes, [&] { return Endpoint::filter(tag, std::move(scopes)); });
      },
      "group"_a, "trustees"_a = py::none(), py::kw_only(), "as_bytes"_a = false,
      "list() for the group tag `group` alone (\"\" matches every tag).");
  m.def(
      "list_from_all_trustees",
      [](bool asBytes) { return listed(asBytes, [] { return Endpoint::listFromAllTrustees(); }); }, py::kw_only(),
      "as_bytes"_a = false,
      "list() of the user's own directory and those of all of its groups. RuntimeError \"System error: "
      "Failed to get current user groups\" when the groups cannot be read.");
  m.def(
      "filter_from_all_trustees",
      [](py::handle group, bool asBytes) {
        const std::string tag = bytesOf(group, "group");
        return listed(asBytes, [&tag] { return Endpoint::filterFromAllTrustees(tag); });
      },
      "group"_a, py::kw_only(), "as_bytes"_a = false, "filter() of the user's own directory and all of its groups'.");
}

void bindGarbageCollection(py::module_& m) {
  m.def(
      "collect_garbage",
      [](const std::optional<py::object>& trustees) {
        std::set<std::string> scopes = trusteesOrOwn(trustees);
        registry::GarbageReport report;
        {
          py::gil_scoped_release release;
          report = registry::collectGarbage(std::move(scopes));
        }
        return reportOf(report);
      },
      "trustees"_a = py::none(),
      R"(Clears away what listings leave: records of dead publishers (named or not),
names whose segment is gone, unused directory containers; rebuilds damaged
directories and names live records again. Never touches a live endpoint.
Returns the counts as a dict (stale_records, unnamed_segments,
dangling_names, leftover_containers, rebuilt_directories, restored_names).
`trustees` as for list(). RuntimeError when shared memory fails.)");
  m.def(
      "collect_garbage_from_all_trustees",
      [] {
        registry::GarbageReport report;
        {
          py::gil_scoped_release release;
          report = registry::collectGarbageFromAllTrustees();
        }
        return reportOf(report);
      },
      "collect_garbage() for the user's own directory and those of all of its groups.");
}

void bindExceptions(py::module_& m) {
  static py::exception<Endpoint::DuplicateEndpointError> duplicate(m, "DuplicateEndpointError", PyExc_RuntimeError);
  duplicate.doc() =
      "Raised by publish() and add_trustees() when a synonym (same group tag, same two strings joined "
      "together) is live or being published. A RuntimeError.";
  py::register_exception_translator([](std::exception_ptr raised) {
    try {
      if (raised) std::rethrow_exception(raised);
    } catch (const py::builtin_exception&) {
      throw;  // this module's own TypeError and ValueError
    } catch (const py::error_already_set&) {
      throw;
    } catch (const Endpoint::DuplicateEndpointError& error) {
      PyErr_SetString(duplicate.ptr(), error.what());
    } catch (const std::invalid_argument& error) {
      PyErr_SetString(PyExc_ValueError, error.what());
    } catch (const std::logic_error& error) {
      // Misuse that is no bad argument: a watcher used in a forked child.
      PyErr_SetString(PyExc_RuntimeError, error.what());
    } catch (const std::runtime_error& error) {
      PyErr_SetString(PyExc_RuntimeError, error.what());
    }
  });
}

}  // namespace
}  // namespace endpointregistry_python

PYBIND11_MODULE(_core, m) {
  using namespace endpointregistry_python;
  m.doc() = "Serverless publication and discovery of endpoints in shared memory (the compiled part).";
  bindExceptions(m);
  bindEndpoint(m);
  bindListings(m);
  bindGarbageCollection(m);
  bindWatcher(m);
}
