// What does the library add to the cost of a record that is on the disk when the call returns?
//
// A version-2 point (122 bytes with its header) is appended. It is compared with a loop of the system calls that such
// an append needs: one pwrite, one fdatasync, one futimens.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

#include "bench/Measure.h"
#include "kesp/kesp.h"

namespace {

constexpr std::size_t kPointRecordSize = 122;
constexpr int kRun = 50;  // records in turn by each way, so that both meet the same conditions

class BareFile {
 public:
  explicit BareFile(const std::string& path) : m_fd(::open(path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0666)) {
    if (m_fd < 0) throw std::runtime_error("can't create " + path);
  }
  ~BareFile() { ::close(m_fd); }
  void Append() {
    constexpr std::array<char, kPointRecordSize> kRecord{};
    const timespec times[2] = {{0, UTIME_OMIT}, {0, UTIME_NOW}};
    if (::pwrite(m_fd, kRecord.data(), kRecord.size(), m_end) != static_cast<ssize_t>(kRecord.size()) ||
        ::fdatasync(m_fd) != 0 || ::futimens(m_fd, times) != 0) {
      throw std::runtime_error("a bare write failed");
    }
    m_end += static_cast<off_t>(kRecord.size());
  }

 private:
  int m_fd;
  off_t m_end = 0;
};

// "times_bare": the time of AppendRecord divided by that of the bare calls.
void Append(benchmark::State& state, const std::filesystem::path& parent, bool waitsForDevice) {
  const bench::ScratchFolder folder(parent);
  CKespDataFile file;
  if (!file.Create(CString(folder / "kesp"))) throw std::runtime_error("can't create a file");
  BareFile bare(folder / "bare");
  CKespPoint point;
  point.PointText = u"corner";
  const auto appendPoint = [&] {
    ++point.PointNumber;
    if (!file.AppendRecord(&point, 0)) throw std::runtime_error("a record is not appended");
  };
  appendPoint();  // the first append also syncs the directory
  bare.Append();

  std::vector<double> ratios;
  const auto run = [waitsForDevice](auto&& append) {
    const auto work = [&append] {
      for (int i = 0; i < kRun; ++i) append();
    };
    return waitsForDevice ? bench::Seconds(work) : bench::CpuSeconds(work);
  };
  for (auto _ : state) {
    const double bareTime = run([&] { bare.Append(); });
    const double time = run(appendPoint);
    ratios.push_back(time / bareTime);
    state.SetIterationTime(time / kRun);
  }
  state.counters["times_bare"] = bench::Median(ratios);
}
BENCHMARK_CAPTURE(Append, in_memory, "/dev/shm", false)
    ->Iterations(2000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(Append, on_disk, std::filesystem::temp_directory_path(), true)
    ->Iterations(40)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
