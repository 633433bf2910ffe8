#include "python/src/Errors.h"

#include <cerrno>
#include <system_error>

#include "python/src/Text.h"

namespace kesp::python {
namespace {

py::object Class(const char* name) { return py::module_::import("kesp._errors").attr(name); }

[[noreturn]] void RaiseAs(const char* name, KESP_ERROR_TYPE code, const std::string& text, const CString& path,
                          const py::object& offset) {
  const py::object type = Class(name);
  const py::object error = type(ToStr(std::string_view{text}), static_cast<int>(code), PathToStr(path), offset);
  PyErr_SetObject(type.ptr(), error.ptr());
  throw py::error_already_set();
}

}  // namespace

void RaiseOs(int osError, const CString& path) {
  if (osError == ENOMEM) {
    PyErr_NoMemory();
    throw py::error_already_set();
  }
  const std::string text =
      osError == EWOULDBLOCK ? "In use by another program" : std::generic_category().message(osError);
  const auto type = py::reinterpret_borrow<py::object>(PyExc_OSError);
  const py::object error = type(osError, text, PathToStr(path));
  PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.ptr())), error.ptr());
  throw py::error_already_set();
}

void RaiseError(KESP_ERROR_TYPE code, const std::string& text, const CString& path,
                std::optional<std::uint64_t> offset) {
  RaiseAs("Error", code, text, path, offset ? py::object(py::int_(*offset)) : py::none());
}

void RaiseDoesNotFit(const std::string& text, const CString& path) {
  RaiseAs("FitError", KESP_ERROR_NONE, text, path, py::none());
}

void Raise(const tool::Verdict& verdict, const CString& path) {
  if (verdict.cause == tool::Verdict::Cause::kUnreadable) RaiseOs(verdict.systemError, path);
  const bool hasPlace = verdict.IsDamaged();
  RaiseError(verdict.error, verdict.Describe(), path,
             hasPlace ? std::optional<std::uint64_t>(verdict.offset) : std::nullopt);
}

void RaiseWriteFailure(const CKespDataFile& file, const CString& path) {
  const int osError = file.GetSystemError() != 0 ? file.GetSystemError() : file.m_file.LastSystemError();
  if (osError != 0 && osError != EINVAL) RaiseOs(osError, path);
  RaiseError(file.GetError(), "a record can't be written", path);
}

py::object DamageOf(const tool::Verdict& verdict) {
  if (verdict.IsWhole()) return py::none();
  return Class("Damage")(verdict.offset, static_cast<int>(verdict.error), ToStr(std::string_view{verdict.Describe()}));
}

}  // namespace kesp::python
