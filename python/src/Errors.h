// Raises what went wrong as Python exceptions: OSError (and so FileNotFoundError, PermissionError, BlockingIOError ...)
// where the system refused, kesp.Error where the file is not what it should be. All functions need the GIL.
#pragma once
#include <cstdint>
#include <optional>
#include <string>

#include <pybind11/pybind11.h>

#include "kesp/recordfile/KespDataFile.h"
#include "tools/kesp/Verdict.h"

namespace kesp::python {

namespace py = pybind11;

[[noreturn]] void RaiseOs(int osError, const CString& path);
[[noreturn]] void RaiseError(KESP_ERROR_TYPE code, const std::string& text, const CString& path,
                             std::optional<std::uint64_t> offset = std::nullopt);
// A value that has no room in its field. `text` names the field.
[[noreturn]] void RaiseDoesNotFit(const std::string& text, const CString& path);
// For a verdict that is not whole.
[[noreturn]] void Raise(const tool::Verdict& verdict, const CString& path);
// After an operation that wrote and failed.
[[noreturn]] void RaiseWriteFailure(const CKespDataFile& file, const CString& path);

// None for a whole file, else a kesp.Damage.
py::object DamageOf(const tool::Verdict& verdict);

}  // namespace kesp::python
