// The locks that all threads of the process share. Each is held only briefly: under one, no host code runs, nothing
// waits and no other lock is taken.
//
// fork() takes all of them first, so that the child finds them free and what they guard consistent, whatever the other
// threads were doing. Not installed.
#pragma once
#include <mutex>

namespace kesp {

// Needs no initialisation at run time: records may be made by the constructors of other static objects.
#ifdef _WIN32
class Mutex {
 public:
  constexpr Mutex() noexcept = default;
  void lock() noexcept;    // NOLINT(readability-identifier-naming): as the standard library's
  void unlock() noexcept;  // NOLINT(readability-identifier-naming)

 private:
  void* m_lock = nullptr;  // an SRWLOCK
};
#else
using Mutex = std::mutex;
#endif

extern constinit Mutex g_openReadersLock;
extern constinit Mutex g_poolLock;
extern constinit Mutex g_regionsLock;

}  // namespace kesp
