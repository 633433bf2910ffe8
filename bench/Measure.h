// Shared by the benchmarks: a folder for their files, three clocks, and the median that they report.
#pragma once
#include <malloc.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
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

// How many MiB a forked child grows to at most while it does `work`.
template <class Work>
double GrowthInChild(Work&& work) {
  const auto kibibytes = [](const char* key) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with(key)) return std::stod(line.substr(line.find_first_of("0123456789")));
    }
    throw std::runtime_error("no /proc/self/status");
  };
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) throw std::runtime_error("no pipe");
  const pid_t child = ::fork();
  if (child == 0) {
    ::malloc_trim(0);                               // else the work would use again what the parent has freed
    std::ofstream("/proc/self/clear_refs") << "5";  // the peak starts again here
    const double before = kibibytes("VmRSS:");
    double grown = -1;
    try {
      work();
      grown = (kibibytes("VmHWM:") - before) / 1024;
    } catch (const std::exception&) {
    }
    ::_exit(::write(ends[1], &grown, sizeof grown) == sizeof grown ? 0 : 1);
  }
  double grown = -1;
  const bool isRead = ::read(ends[0], &grown, sizeof grown) == sizeof grown;
  ::close(ends[0]);
  ::close(ends[1]);
  if (::waitpid(child, nullptr, 0) != child || !isRead || grown < 0) throw std::runtime_error("the work went wrong");
  return grown;
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
