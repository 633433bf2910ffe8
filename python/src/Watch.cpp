#include "python/src/Watch.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

#include "kesp/platform/ByteSource.h"
#include "python/src/Errors.h"
#include "tools/kesp/Opening.h"

namespace kesp::python {
namespace {

constexpr std::chrono::milliseconds kBetweenLooks{50};
// A shorter file is read in less time than a person notices. The library's own way of reading, which has a second
// thread, is faster than a source.
constexpr std::uint64_t kLongFile = std::uint64_t{64} << 20;

class FileSource : public ByteSource {
 public:
  FileSource(int descriptor, Watch& watch) : m_descriptor(descriptor), m_watch(watch) {
    struct stat status {};
    if (::fstat(m_descriptor, &status) == 0) m_length = static_cast<std::uint64_t>(status.st_size);
  }
  ~FileSource() override { ::close(m_descriptor); }
  FileSource(const FileSource&) = delete;
  FileSource& operator=(const FileSource&) = delete;

  std::uint64_t Length() override { return m_length; }
  std::size_t ReadAt(std::uint64_t offset, void* to, std::size_t count) override {
    if (!m_watch.Tick(offset, m_length)) throw std::system_error(ECANCELED, std::generic_category());
    ssize_t done = 0;
    do {
      done = ::pread(m_descriptor, to, count, static_cast<off_t>(offset));
    } while (done < 0 && errno == EINTR);
    if (done < 0) throw std::system_error(errno, std::generic_category());
    return static_cast<std::size_t>(done);
  }

 private:
  int m_descriptor;
  Watch& m_watch;
  std::uint64_t m_length = 0;
};

}  // namespace

bool Watch::Tick(std::uint64_t done, std::uint64_t total) {
  if (m_error) return false;
  const auto now = std::chrono::steady_clock::now();
  if (now - m_last < kBetweenLooks) return true;
  m_last = now;
  return Look(done, total);
}

bool Watch::Look(std::uint64_t done, std::uint64_t total) {
  const py::gil_scoped_acquire held;
  try {
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
    if (HasCallback()) m_progress(done, total);
    return true;
  } catch (py::error_already_set& error) {
    m_error.emplace(std::move(error));
    return false;
  }
}

void Watch::Rethrow() {
  if (PyErr_CheckSignals() != 0) throw py::error_already_set();
  if (!m_error) return;
  py::error_already_set error(std::move(*m_error));
  m_error.reset();
  throw error;  // NOLINT(misc-throw-by-value-catch-by-reference): moved, since a copy would need the GIL
}

bool NeedsWatch(std::uint64_t length, const Watch& watch) { return length >= kLongFile || watch.HasCallback(); }

std::unique_ptr<ByteSource> WatchedSource(const CString& path, Watch& watch) {
  const int descriptor = ::open(path.ToPathBytes().c_str(), O_RDONLY | O_CLOEXEC);  // NOLINT(*-vararg)
  if (descriptor < 0) return nullptr;
  return std::make_unique<FileSource>(descriptor, watch);
}

void OpenWatched(CKespDataFile& file, const CString& path, Watch& watch) {
  std::optional<tool::Verdict> refused;
  {
    const py::gil_scoped_release released;
    refused = tool::OpenForReading(file, path.ToPathBytes());
    if (!refused && NeedsWatch(file.m_file.KnownLength(), watch)) {
      if (auto source = WatchedSource(path, watch)) {
        file.Close();
        (void)file.OpenReadOnly(std::move(source), path);
      }
    }
  }
  watch.Rethrow();
  if (refused && file.GetSystemError() != 0) RaiseOs(file.GetSystemError(), path);
  if (refused) Raise(*refused, path);
  if (!file.IsOpen()) RaiseOs(file.GetSystemError() != 0 ? file.GetSystemError() : EIO, path);
}

}  // namespace kesp::python
