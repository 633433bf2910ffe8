// Lets a long call see Ctrl-C and report how far it has come: the call runs without the GIL and ticks now and then.
//
//   Watch watch(progress);  // None, or a callable of (done, total) in bytes
//   {
//     const py::gil_scoped_release released;
//     while (...) if (!watch.Tick(position, length)) break;
//   }
//   watch.Rethrow();
//
// A tick takes the GIL at most 20 times a second. If a signal handler or the callable raises, Tick returns false from
// then on, and Rethrow raises it.
#pragma once
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

#include <pybind11/pybind11.h>

#include "kesp/recordfile/KespDataFile.h"

namespace kesp::python {

namespace py = pybind11;

class Watch {
 public:
  explicit Watch(py::object progress) : m_progress(std::move(progress)) {}

  bool Tick(std::uint64_t done, std::uint64_t total);  // without the GIL
  void Rethrow();                                      // with the GIL
  bool HasCallback() const { return !m_progress.is_none(); }

 private:
  bool Look(std::uint64_t done, std::uint64_t total);

  py::object m_progress;
  std::chrono::steady_clock::time_point m_last{};
  std::optional<py::error_already_set> m_error;
};

// Opens the file read-only. A long one, and any with a callback, is read through a ByteSource that ticks; then the
// watch must outlive the open file. Raises what makes the file unreadable. Needs the GIL, and releases it meanwhile.
void OpenWatched(CKespDataFile& file, const CString& path, Watch& watch);
// A source that ticks, for other readers; null if the file can't be opened.
std::unique_ptr<ByteSource> WatchedSource(const CString& path, Watch& watch);
// Whether a file of that length is read with a watch.
bool NeedsWatch(std::uint64_t length, const Watch& watch);

}  // namespace kesp::python
