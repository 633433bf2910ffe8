#include "kesp/platform/SystemCalls.h"

#include <chrono>
#include <thread>

namespace kesp {
namespace {

SystemCalls g_real;
SystemCalls* g_calls = &g_real;

}  // namespace

void SystemCalls::SleepMs(unsigned milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

SystemCalls& System() noexcept { return *g_calls; }
void SetSystemCalls(SystemCalls* calls) noexcept { g_calls = calls != nullptr ? calls : &g_real; }

}  // namespace kesp
