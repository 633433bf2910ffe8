// A piece of work that either of two threads may do: the owner offers it to the other one, and does it itself if that
// has not begun when the result is needed. Not installed.
//
// The owner prepares the task, hands it over (BlockReader::Offer) and later calls Finish. It must not be destroyed
// while the other thread may still look at it, and not be prepared again before Finish has returned.
#pragma once
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <thread>

namespace kesp {

class Task {
 public:
  Task() = default;
  virtual ~Task() = default;
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  bool IsDone() const noexcept { return m_state.load(std::memory_order_acquire) == kDone; }
  void Prepare() noexcept { m_state.store(kWaiting, std::memory_order_release); }
  // Does the work unless it is done or another thread is doing it.
  void TryRun() noexcept {
    std::uint32_t waiting = kWaiting;
    if (!m_state.compare_exchange_strong(waiting, kRunning, std::memory_order_acq_rel)) return;
    Run();
    m_state.store(kDone, std::memory_order_release);
  }
  // Returns when the work is done. The other thread needs microseconds for it.
  void Finish() noexcept {
    TryRun();
    while (!IsDone()) {
      if (::getpid() != m_process) return Run();  // a forked child: the other thread does not exist here
      std::this_thread::yield();
    }
  }

 protected:
  virtual void Run() noexcept = 0;

 private:
  enum State : std::uint32_t { kWaiting, kRunning, kDone };
  std::atomic<std::uint32_t> m_state{kDone};
  const pid_t m_process = ::getpid();
};

}  // namespace kesp
