#include "kesp/platform/Threads.h"

#include <windows.h>

#include <bit>

namespace kesp {

bool StartThread(pthread_t& thread, void* (*run)(void*), void* argument) noexcept {
  return ::pthread_create(&thread, nullptr, run, argument) == 0;
}

bool HasSecondProcessor() noexcept {
  DWORD_PTR mine = 0;
  DWORD_PTR all = 0;
  if (::GetProcessAffinityMask(::GetCurrentProcess(), &mine, &all) == 0) return true;
  return mine == 0 || std::popcount(mine) > 1;  // 0: in several groups of processors
}

}  // namespace kesp
