#include "kesp/platform/Threads.h"

#include <sched.h>

#include <csignal>
#include <thread>

namespace kesp {

bool StartThread(pthread_t& thread, void* (*run)(void*), void* argument) noexcept {
  // The new thread inherits the blocked signals.
  sigset_t all;
  sigset_t before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  const bool started = ::pthread_create(&thread, nullptr, run, argument) == 0;
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return started;
}

bool HasSecondProcessor() noexcept {
#if KESP_HAS_SCHED_AFFINITY
  cpu_set_t mine;
  if (::sched_getaffinity(0, sizeof mine, &mine) != 0) return true;  // too many processors for the set
  return CPU_COUNT(&mine) > 1;
#else
  return std::thread::hardware_concurrency() > 1;
#endif
}

}  // namespace kesp
