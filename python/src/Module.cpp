// The extension module kesp._kesp. What users see is in python/kesp/*.py.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "kesp/platform/Exception.h"
#include "python/src/Errors.h"
#include "python/src/Reading.h"

namespace kesp::python {
namespace {

// What the library throws where a call has no result for it.
void TranslateFileException(std::exception_ptr thrown) {
  try {
    if (thrown) std::rethrow_exception(std::move(thrown));
  } catch (const CFileException& e) {
    try {
      if (e.m_lOsError != 0) RaiseOs(e.m_lOsError, e.m_strFileName);
      RaiseError(KESP_ERROR_EOF, e.what(), e.m_strFileName);
    } catch (py::error_already_set& raised) {
      raised.restore();
    }
  }
}

}  // namespace
}  // namespace kesp::python

PYBIND11_MODULE(_kesp, module) {
  namespace kp = kesp::python;
  pybind11::register_exception_translator(&kp::TranslateFileException);
  kp::BindReading(module);
  kp::BindBatches(module);
  kp::BindAssembly(module);
  kp::BindParts(module);
  kp::BindStore(module);
  kp::BindChecking(module);
}
