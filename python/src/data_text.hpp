// Data strings between Python and the library. The library's strings are
// bytes; Python hands in str or bytes and gets str back:
//   - in: bytes as they are; str encoded as UTF-8 with "surrogateescape",
//     so that a str that came out of this module goes back as the very
//     bytes it came from;
//   - out: UTF-8 decoded with "surrogateescape": every byte string
//     survives the round trip (bytes that are not UTF-8 become lone
//     surrogates U+DC80..U+DCFF), and s.encode("utf-8", "surrogateescape")
//     gives the bytes again.
// Both need the GIL.
#pragma once

#include <pybind11/pybind11.h>

#include <string>
#include <utility>

namespace endpointregistry_python {

namespace py = pybind11;

// The bytes of a str or bytes argument; TypeError (naming `what`) for
// anything else.
std::string bytesOf(py::handle value, const char* what);

// A str decoded from `bytes` as described above.
py::str textOf(const std::string& bytes);

// A (first, second) tuple of str, or of bytes when `asBytes`.
py::tuple pairOf(const std::pair<std::string, std::string>& data, bool asBytes);

}  // namespace endpointregistry_python
