// How far long work has come, as one line on standard error that goes away again.
//
//   Progress progress(bytes, Progress::OnTerminal());
//   for (...) progress.Update(position);
//   progress.Erase();  // before anything else is written; the destructor does it too
//
// Nothing is shown in the first half second, nor when not enabled. Update is cheap enough to be called for every
// record.
#pragma once
#include <chrono>
#include <cstdint>

namespace kesp::tool {

class Progress {
 public:
  // Whether standard error is a terminal.
  static bool OnTerminal() noexcept;

  Progress(std::uint64_t total, bool enabled) noexcept;
  ~Progress() { Erase(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Update(std::uint64_t done) {
    if (m_enabled && ++m_calls % kCallsPerLook == 0) Look(done);
  }
  void Erase() noexcept;

 private:
  static constexpr unsigned kCallsPerLook = 64;  // a look at the clock costs more than a small record
  void Look(std::uint64_t done);

  std::uint64_t m_total;
  bool m_enabled;
  unsigned m_calls = 0;
  int m_shownPercent = -1;  // -1 while nothing is shown
  std::chrono::steady_clock::time_point m_start;
};

}  // namespace kesp::tool
