// The Watcher, bound as endpointregistry._core.Watcher. Its changes come as
// tuples that the package wraps in its Change and RecordChange types:
//   changes():        (kind, first, second)
//   record_changes(): (kind, first, second, trustee, record_name,
//                      group_tag_hash, publisher_pid, appeared_at)
// with kind "appeared" or "disappeared" and appeared_at in seconds since the
// epoch (float).
#pragma once

#include <pybind11/pybind11.h>

namespace endpointregistry_python {

void bindWatcher(pybind11::module_& m);

}  // namespace endpointregistry_python
