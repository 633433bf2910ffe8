// Texts and paths between Python and the library. All functions need the GIL and raise Python exceptions.
#pragma once
#include <string>
#include <string_view>

#include <pybind11/pybind11.h>

#include "kesp/platform/String.h"

namespace kesp::python {

namespace py = pybind11;

// Any sequence of units: half a surrogate pair becomes a lone surrogate in the str, and the other way round.
py::str ToStr(std::u16string_view units);
inline py::str ToStr(const CString& text) { return ToStr(text.View()); }
py::str ToStr(std::string_view utf8);
inline py::str ToStr(const std::string& utf8) { return ToStr(std::string_view(utf8.data(), utf8.size())); }
CString FromStr(const py::handle& text);  // TypeError for anything but a str

// A str, bytes or os.PathLike, as the bytes that the system takes.
CString ToPath(const py::handle& path);
py::str PathToStr(const CString& path);

}  // namespace kesp::python
