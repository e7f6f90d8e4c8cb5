#include "watcher_binding.hpp"

#include <pybind11/stl.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <endpointregistry/watcher.hpp>

#include "arguments.hpp"
#include "data_text.hpp"

namespace endpointregistry_python {
namespace {

namespace registry = agent::spf::endpointregistry;
using registry::EndpointChange;
using registry::RecordChange;
using namespace pybind11::literals;

const char* kindOf(EndpointChange::Kind kind) { return kind == EndpointChange::Appeared ? "appeared" : "disappeared"; }

py::list tuplesOf(const std::vector<EndpointChange>& changes, bool asBytes) {
  py::list result;
  for (const EndpointChange& change : changes) {
    const py::tuple data = pairOf(change.data, asBytes);
    result.append(py::make_tuple(kindOf(change.kind), data[0], data[1]));
  }
  return result;
}

py::list tuplesOf(const std::vector<RecordChange>& changes, bool asBytes) {
  py::list result;
  for (const RecordChange& change : changes) {
    const py::tuple data = pairOf(change.data, asBytes);
    const double appearedAt = std::chrono::duration<double>(change.appearedAt.time_since_epoch()).count();
    result.append(py::make_tuple(kindOf(change.kind), data[0], data[1], change.trustee, change.recordName,
                                 change.groupTagHash, change.publisherPid, appearedAt));
  }
  return result;
}

// A registry::Watcher that can be closed before the Python object goes,
// also from another thread while a call waits in it: a call holds the
// watcher while it runs, and a wait ends at its next slice once closed.
class PyWatcher {
 public:
  PyWatcher(const std::string& groupTag, std::set<std::string> trustees)
      : watcher(std::make_shared<registry::Watcher>(groupTag, std::move(trustees))) {}
  explicit PyWatcher(registry::Watcher&& made) : watcher(std::make_shared<registry::Watcher>(std::move(made))) {}

  std::shared_ptr<registry::Watcher> open() {
    if (!watcher) throw py::value_error("I/O operation on a closed Watcher");
    return watcher;
  }
  // With the GIL held, as every method: the last call that holds the
  // watcher destroys it.
  void close() noexcept {
    closing->store(true);
    watcher.reset();
  }
  bool closed() const noexcept { return !watcher; }

  // The changes of `read` (a call of the watcher without the GIL), waiting
  // for some up to `timeout` seconds (None: for ever) with `wait`.
  template <typename Changes, typename Read, typename Wait>
  Changes await(const std::optional<double>& timeout, const Read& read, const Wait& wait) {
    const std::shared_ptr<registry::Watcher> watching = open();
    const std::shared_ptr<std::atomic<bool>> closedMeanwhile = closing;
    Changes found;
    {
      py::gil_scoped_release release;
      found = read(*watching);
    }
    if (!found.empty() || (timeout && *timeout == 0)) return found;
    waitInSlices(timeout, [&](std::chrono::milliseconds slice) {
      if (closedMeanwhile->load()) return true;
      found = wait(*watching, slice);
      return !found.empty() || closedMeanwhile->load();
    });
    return found;
  }

 private:
  std::shared_ptr<registry::Watcher> watcher;
  std::shared_ptr<std::atomic<bool>> closing = std::make_shared<std::atomic<bool>>(false);
};

}  // namespace

void bindWatcher(py::module_& m) {
  py::class_<PyWatcher>(m, "Watcher", R"(Tells when endpoints appear, are withdrawn or die, without polling.

Watcher(group="", trustees=None) follows the group tag `group` ("" for every
tag) under `trustees` as filter(group, trustees) reads them (None: the user's
own scope alone). fileno() becomes readable when something may have changed
(for selectors and asyncio's add_reader); changes() then returns what changed
since its previous call, the first call every live endpoint as "appeared".
Applying the changes in order to an empty set gives exactly the listing of
the moment of the last call. Use from one thread at a time. A watcher
inherited by a forked child belongs to the parent: the child makes its own.
RuntimeError "System error: ..." when the kernel refuses its descriptors.)")
      .def(py::init([](py::handle group, const std::optional<py::object>& trustees, bool allTrustees) {
             const std::string tag = bytesOf(group, "group");
             if (allTrustees && trustees && !trustees->is_none()) {
               throw py::value_error("trustees and all_trustees=True exclude each other");
             }
             std::set<std::string> scopes = trusteesOrOwn(trustees);
             py::gil_scoped_release release;
             if (allTrustees) return std::make_unique<PyWatcher>(registry::Watcher::forAllTrustees(tag));
             return std::make_unique<PyWatcher>(tag, std::move(scopes));
           }),
           "group"_a = "", "trustees"_a = py::none(), py::kw_only(), "all_trustees"_a = false,
           "all_trustees=True watches the user's own scope and every group it belongs to now.")
      .def(
          "fileno", [](PyWatcher& self) { return self.open()->fileDescriptor(); },
          "The descriptor that becomes readable when something may have changed; it stays readable until "
          "changes() or record_changes() is called. Owned by the watcher: do not read or close it. "
          "ValueError once closed.")
      .def(
          "changes",
          [](PyWatcher& self, bool asBytes) {
            auto found = self.await<std::vector<EndpointChange>>(
                0.0, [](registry::Watcher& w) { return w.changes(); },
                [](registry::Watcher& w, std::chrono::milliseconds slice) { return w.waitForChanges(slice); });
            return tuplesOf(found, asBytes);
          },
          py::kw_only(), "as_bytes"_a = false,
          "The pairs that appeared or disappeared since the previous call, sorted; empty when nothing "
          "changed. Does not wait for a change (only, as a listing, for directory locks).")
      .def(
          "wait",
          [](PyWatcher& self, const std::optional<double>& timeout, bool asBytes) {
            auto found = self.await<std::vector<EndpointChange>>(
                timeout, [](registry::Watcher& w) { return w.changes(); },
                [](registry::Watcher& w, std::chrono::milliseconds slice) { return w.waitForChanges(slice); });
            return tuplesOf(found, asBytes);
          },
          "timeout"_a = py::none(), py::kw_only(), "as_bytes"_a = false,
          "changes(), waiting up to `timeout` seconds (None: until there are some) when there are none "
          "yet; empty after the timeout. Ctrl-C ends the wait (KeyboardInterrupt).")
      .def(
          "record_changes",
          [](PyWatcher& self, bool asBytes) {
            auto found = self.await<std::vector<RecordChange>>(
                0.0, [](registry::Watcher& w) { return w.recordChanges(); },
                [](registry::Watcher& w, std::chrono::milliseconds slice) { return w.waitForRecordChanges(slice); });
            return tuplesOf(found, asBytes);
          },
          py::kw_only(), "as_bytes"_a = false,
          "The records that appeared or disappeared since the previous call of record_changes(): one per "
          "publication under one trustee and tag.")
      .def(
          "wait_records",
          [](PyWatcher& self, const std::optional<double>& timeout, bool asBytes) {
            auto found = self.await<std::vector<RecordChange>>(
                timeout, [](registry::Watcher& w) { return w.recordChanges(); },
                [](registry::Watcher& w, std::chrono::milliseconds slice) { return w.waitForRecordChanges(slice); });
            return tuplesOf(found, asBytes);
          },
          "timeout"_a = py::none(), py::kw_only(), "as_bytes"_a = false, "record_changes(), waiting as wait() does.")
      .def("close", &PyWatcher::close, "Stops the watcher's threads and closes its descriptors. Idempotent.")
      .def_property_readonly("closed", &PyWatcher::closed, "True once close() was called.");
}

}  // namespace endpointregistry_python
