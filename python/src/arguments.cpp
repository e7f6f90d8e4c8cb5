#include "arguments.hpp"

namespace endpointregistry_python {

std::set<std::string> trusteesOf(py::handle iterable) {
  if (PyUnicode_Check(iterable.ptr()) || PyBytes_Check(iterable.ptr())) {
    throw py::type_error("trustees must be an iterable of group names, not a single string");
  }
  std::set<std::string> trustees;
  for (py::handle item : py::iter(iterable)) {
    if (!PyUnicode_Check(item.ptr())) {
      throw py::type_error("a trustee must be a group name (str), not " +
                           std::string(py::str(py::type::handle_of(item).attr("__name__"))));
    }
    trustees.insert(item.cast<std::string>());
  }
  return trustees;
}

std::set<std::string> trusteesOrOwn(const std::optional<py::object>& trustees) {
  if (!trustees || trustees->is_none()) return {""};
  return trusteesOf(*trustees);
}

}  // namespace endpointregistry_python
