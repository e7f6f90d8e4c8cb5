#include "data_text.hpp"

namespace endpointregistry_python {

std::string bytesOf(py::handle value, const char* what) {
  if (PyBytes_Check(value.ptr())) return std::string(py::reinterpret_borrow<py::bytes>(value));
  if (PyUnicode_Check(value.ptr())) {
    const auto encoded =
        py::reinterpret_steal<py::object>(PyUnicode_AsEncodedString(value.ptr(), "utf-8", "surrogateescape"));
    if (!encoded) throw py::error_already_set();
    return std::string(py::reinterpret_borrow<py::bytes>(encoded));
  }
  throw py::type_error(std::string(what) + " must be str or bytes, not " +
                       std::string(py::str(py::type::handle_of(value).attr("__name__"))));
}

py::str textOf(const std::string& bytes) {
  const auto text = py::reinterpret_steal<py::str>(
      PyUnicode_DecodeUTF8(bytes.data(), static_cast<Py_ssize_t>(bytes.size()), "surrogateescape"));
  if (!text) throw py::error_already_set();
  return text;
}

py::tuple pairOf(const std::pair<std::string, std::string>& data, bool asBytes) {
  if (asBytes) return py::make_tuple(py::bytes(data.first), py::bytes(data.second));
  return py::make_tuple(textOf(data.first), textOf(data.second));
}

}  // namespace endpointregistry_python
