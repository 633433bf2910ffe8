// Tables in batches. The library passes batches to a function; here a thread takes them and hands them over one by one,
// so that Python can ask for the next one.
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "python/src/Errors.h"
#include "python/src/Reading.h"
#include "python/src/Text.h"
#include "tools/kesp/Opening.h"

namespace kesp::python {
namespace {

constexpr std::chrono::milliseconds kBetweenLooks{50};

// The thread never takes the GIL, and touches only what the mutex guards and its own file.
class BatchReader {
 public:
  BatchReader(const CString& path, TableChoice choice) : m_choice(std::move(choice)) {
    const auto refused = tool::OpenForReading(m_file, path.ToPathBytes());
    if (!refused) {
      m_thread = std::jthread([this](const std::stop_token& stop) { Run(stop); });
    } else {
      m_end = *refused;
      m_hasEnded = true;
    }
  }
  ~BatchReader() { Stop(); }
  BatchReader(const BatchReader&) = delete;
  BatchReader& operator=(const BatchReader&) = delete;

  int OpenError() const { return m_file.GetSystemError(); }
  // Waits for the next batch, but not longer than `patience`. Null without one.
  TablePointer Take(std::chrono::milliseconds patience) {
    std::unique_lock lock(m_mutex);
    m_changed.wait_for(lock, patience, [this] { return m_batch != nullptr || m_hasEnded; });
    TablePointer batch = std::exchange(m_batch, nullptr);
    lock.unlock();
    m_changed.notify_all();
    return batch;
  }
  bool HasEnded() {
    const std::scoped_lock lock(m_mutex);
    return m_hasEnded && m_batch == nullptr;
  }
  // At the end.
  const tool::Verdict& End() const noexcept { return m_end; }
  void Stop() {
    {
      // Under the mutex, or the thread may miss it between its look and its wait.
      const std::scoped_lock lock(m_mutex);
      m_thread.request_stop();
    }
    m_changed.notify_all();
    if (m_thread.joinable()) m_thread.join();
  }

 private:
  void Run(const std::stop_token& stop) {
    tool::Verdict end;
    try {
      const bool isWhole = ReadColumns(m_file, m_choice.choice, [&](Columns& columns) { return Put(columns, stop); });
      if (!isWhole && !stop.stop_requested()) end = FindDamage(m_file);
    } catch (const CFileException&) {  // a feature of version 1 that is cut short
      end = FindDamage(m_file);
    } catch (const std::exception&) {
      end.cause = tool::Verdict::Cause::kUnreadable;
      end.systemError = ENOMEM;
    }
    const std::scoped_lock lock(m_mutex);
    m_end = end;
    m_hasEnded = true;
    m_changed.notify_all();
  }
  bool Put(Columns& columns, const std::stop_token& stop) {
    TablePointer table = TakeTable(columns, m_choice);
    if (table->rows == 0) return !stop.stop_requested();
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] { return m_batch == nullptr || stop.stop_requested(); });
    if (stop.stop_requested()) return false;
    m_batch = std::move(table);
    m_changed.notify_all();
    return true;
  }

  const TableChoice m_choice;
  CKespDataFile m_file;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  TablePointer m_batch;
  bool m_hasEnded = false;
  tool::Verdict m_end;
  std::jthread m_thread;
};

// A child of fork has no such thread, and would wait for it.
struct DeleteInThisProcess {
  void operator()(BatchReader* reader) const {
    if (getpid() == m_process) delete reader;
  }
  pid_t m_process = getpid();
};

class Batches {
 public:
  Batches(const std::string& kind, const py::object& path, const std::vector<std::string>& names, bool includeDeleted,
          std::size_t rows)
      : m_path(ToPath(path)), m_choice(ChooseTable(kind, names, includeDeleted)) {
    if (rows == 0) throw py::value_error("a batch needs at least one row");
    m_choice.choice.batchRows = rows;
    Columns none;
    m_shape = TakeShape(none);
    {
      const py::gil_scoped_release released;
      m_reader = std::shared_ptr<BatchReader>(new BatchReader(m_path, m_choice), DeleteInThisProcess{});
    }
    if (!m_reader->HasEnded()) return;
    if (m_reader->OpenError() != 0) RaiseOs(m_reader->OpenError(), m_path);
    if (!m_reader->End().IsWhole()) Raise(m_reader->End(), m_path);
  }

  // Raises what ended the file, if it is not whole. With the GIL. While it waits without, another thread may take the
  // last batch or close the reader.
  TablePointer Next() {
    if (m_reader && getpid() != m_process) throw std::runtime_error("a child of fork can't go on with batches");
    while (const std::shared_ptr<BatchReader> reader = m_reader) {
      TablePointer batch;
      {
        const py::gil_scoped_release released;
        batch = reader->Take(kBetweenLooks);
      }
      if (batch) return batch;
      if (PyErr_CheckSignals() != 0) throw py::error_already_set();
      if (!reader->HasEnded()) continue;
      const tool::Verdict end = reader->End();
      Close();
      if (!end.IsWhole()) Raise(end, m_path);
    }
    return nullptr;
  }
  void Close() {
    const std::shared_ptr<BatchReader> reader = std::exchange(m_reader, nullptr);
    const py::gil_scoped_release released;
    if (reader && getpid() == m_process) reader->Stop();
  }
  TablePointer Shape() const { return m_shape; }

 private:
  // A table without rows that has the columns: of a file without records, which the library makes in the same way.
  TablePointer TakeShape(Columns& none);

  CString m_path;
  TableChoice m_choice;
  TablePointer m_shape;
  std::shared_ptr<BatchReader> m_reader;
  pid_t m_process = getpid();
};

// The smallest file that can be opened.
class NoRecords : public ByteSource {
 public:
  std::uint64_t Length() override { return kBytes.size(); }
  std::size_t ReadAt(std::uint64_t offset, void* to, std::size_t count) override {
    return kBytes.copy(static_cast<char*>(to), count, static_cast<std::size_t>(offset));
  }

 private:
  static constexpr std::string_view kBytes{"Corvanthe Survey Devices -- Kesp Data File\3\0\2\0\0\0\0\0", 50};
};

TablePointer Batches::TakeShape(Columns& none) {
  CKespDataFile file;
  (void)file.OpenReadOnly(std::make_unique<NoRecords>(), CString("none"));
  (void)ReadColumns(file, m_choice.choice, none);
  return TakeTable(none, m_choice);
}

// Batches for a consumer of Arrow, which may have any thread and no GIL.
class BatchStream : public TableStream {
 public:
  explicit BatchStream(std::shared_ptr<Batches> batches) : m_batches(std::move(batches)) {}
  // NOLINTNEXTLINE(bugprone-exception-escape): without the interpreter nothing can be released
  ~BatchStream() override {
    const py::gil_scoped_acquire held;
    m_batches.reset();
  }
  BatchStream(const BatchStream&) = delete;
  BatchStream& operator=(const BatchStream&) = delete;

  TablePointer Next() override {
    const py::gil_scoped_acquire held;
    try {
      return m_batches->Next();
    } catch (const py::error_already_set& e) {
      throw std::runtime_error(e.what());  // the text only: an exception of Python can't pass through C
    }
  }
  TablePointer Shape() override { return m_batches->Shape(); }

 private:
  std::shared_ptr<Batches> m_batches;
};

}  // namespace

void BindBatches(py::module_& module) {
  py::class_<Batches, std::shared_ptr<Batches>>(module, "Batches")
      .def(py::init<const std::string&, const py::object&, const std::vector<std::string>&, bool, std::size_t>())
      .def("next", &Batches::Next)
      .def("close", &Batches::Close)
      .def("shape", &Batches::Shape)
      .def("arrow_stream", [](const std::shared_ptr<Batches>& batches) {
        return StreamCapsule(std::make_unique<BatchStream>(batches));
      });
}

}  // namespace kesp::python
