// The locks that all threads of the process share. Each is held only briefly: under one, no host code runs, nothing
// waits and no other lock is taken.
//
// fork() takes all of them first, so that the child finds them free and what they guard consistent, whatever the other
// threads were doing. Not installed.
#pragma once
#include <mutex>

namespace kesp {

extern constinit std::mutex g_openReadersLock;
extern constinit std::mutex g_poolLock;
extern constinit std::mutex g_regionsLock;

}  // namespace kesp
