#include "python/src/Text.h"

namespace kesp::python {

py::str ToStr(std::u16string_view units) {
  int littleEndian = -1;
  PyObject* const text =
      PyUnicode_DecodeUTF16(reinterpret_cast<const char*>(units.data()), static_cast<Py_ssize_t>(2 * units.size()),
                            "surrogatepass", &littleEndian);
  if (text == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(text);
}

py::str ToStr(std::string_view utf8) {
  PyObject* const text = PyUnicode_DecodeUTF8(utf8.data(), static_cast<Py_ssize_t>(utf8.size()), "surrogatepass");
  if (text == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(text);
}

CString FromStr(const py::handle& text) {
  if (!PyUnicode_Check(text.ptr())) {
    throw py::type_error("a str is needed, not " + std::string(Py_TYPE(text.ptr())->tp_name));
  }
  const auto bytes =
      py::reinterpret_steal<py::object>(PyUnicode_AsEncodedString(text.ptr(), "utf-16-le", "surrogatepass"));
  if (!bytes) throw py::error_already_set();
  return {reinterpret_cast<const char16_t*>(PyBytes_AS_STRING(bytes.ptr())),
          static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.ptr())) / 2};
}

CString ToPath(const py::handle& path) {
  PyObject* encoded = nullptr;
  if (PyUnicode_FSConverter(path.ptr(), static_cast<void*>(&encoded)) == 0) throw py::error_already_set();
  const auto bytes = py::reinterpret_steal<py::bytes>(encoded);
  return CString::FromPathBytes(static_cast<std::string_view>(bytes));
}

py::str PathToStr(const CString& path) {
  const std::string bytes = path.ToPathBytes();
  PyObject* const text = PyUnicode_DecodeFSDefaultAndSize(bytes.data(), static_cast<Py_ssize_t>(bytes.size()));
  if (text == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(text);
}

}  // namespace kesp::python
