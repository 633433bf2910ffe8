// Shared by the benchmarks: a folder for their files, three clocks, and the median that they report.
#pragma once
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace bench {

// A new folder, removed with its content by the destructor.
class ScratchFolder {
 public:
  explicit ScratchFolder(const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
    std::string name = (parent / "kesp-bench-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) throw std::system_error(errno, std::generic_category(), name);
    m_path = name;
  }
  ~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  std::string operator/(const std::string& name) const { return (m_path / name).string(); }

 private:
  std::filesystem::path m_path;
};

// Seconds that `work` takes, waiting included.
template <class Work>
double Seconds(Work&& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Processor seconds that this thread spends on `work`, in the system too. For work that waits for no device, this is
// the time that it takes on an idle machine.
template <class Work>
double CpuSeconds(Work&& work) {
  const auto now = [] {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
  };
  const double start = now();
  work();
  return now() - start;
}

// The same for `work` in its own process, where no memory is in use yet. Measures another program in the same way as
// our own code. `work` returns true on success.
template <class Work>
double ChildCpuSeconds(Work&& work) {
  const pid_t child = ::fork();
  if (child == 0) {
    bool good = false;
    try {
      good = work();
    } catch (...) {
    }
    ::_exit(good ? 0 : 1);
  }
  int status = -1;
  rusage usage{};
  if (::wait4(child, &status, 0, &usage) != child || status != 0) throw std::runtime_error("the work went wrong");
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Replaces this process by another program, without its output. Returns, with false, only if that fails.
template <class... Words>
bool Become(const char* program, const Words&... words) {
  if (::freopen("/dev/null", "w", stdout) == nullptr) return false;
  ::execlp(program, program, static_cast<const char*>(words)..., static_cast<const char*>(nullptr));
  return false;
}

// Of at least one value. Other work on the machine shifts a mean, but hardly the median of pairs run together.
inline double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace bench
