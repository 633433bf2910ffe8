// What the benchmarks share: a folder for their files, three clocks, and the median that they report.
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

// A folder of this process's own, removed with all that is in it.
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

// Seconds that the processor spends on `work` in this thread, inside the system too: for work that waits for no
// device, this is its time on a machine that has nothing else to do.
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

// The same for `work` in a process of its own, which begins with no memory in use; with it another program is measured
// like our own code. True from `work` when all went well.
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

// Becomes another program, which says nothing; returns when there is none.
template <class... Words>
bool Become(const char* program, const Words&... words) {
  if (::freopen("/dev/null", "w", stdout) == nullptr) return false;
  ::execlp(program, program, static_cast<const char*>(words)..., static_cast<const char*>(nullptr));
  return false;
}

// Of at least one value. What else the machine does pulls at a mean, and hardly at the median of pairs taken at once.
inline double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace bench
