#include "tools/kesp/Progress.h"

#include <algorithm>
#include <cstdio>

#include "tools/kesp/System.h"

namespace kesp::tool {
namespace {

constexpr std::chrono::milliseconds kPatience{500};

}  // namespace

bool Progress::OnTerminal() noexcept { return IsTerminal(Stream::kErrors); }

Progress::Progress(std::uint64_t total, bool enabled) noexcept
    : m_total(total), m_enabled(enabled && total != 0), m_start(std::chrono::steady_clock::now()) {}

void Progress::Look(std::uint64_t done) {
  if (std::chrono::steady_clock::now() - m_start < kPatience) return;
  const double share = static_cast<double>(std::min(done, m_total)) / static_cast<double>(m_total);
  const int percent = static_cast<int>(100 * share);
  if (percent == m_shownPercent) return;
  m_shownPercent = percent;
  (void)std::fprintf(stderr, "\r%3d%%", percent);
  (void)std::fflush(stderr);
}

void Progress::Erase() noexcept {
  if (m_shownPercent < 0) return;
  m_shownPercent = -1;
  (void)std::fputs("\r    \r", stderr);
  (void)std::fflush(stderr);
}

}  // namespace kesp::tool
