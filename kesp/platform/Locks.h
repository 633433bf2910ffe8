// The locks that all threads of the process share. Each is held for moments: no host code runs under one, nothing is
// waited for, and none is taken while another is held.
//
// A process that forks holds all of them for the moment of the fork, so that the child finds them free and what they
// guard whole, whatever its other threads were doing. Not installed.
#pragma once
#include <mutex>

namespace kesp {

extern constinit std::mutex g_openReadersLock;
extern constinit std::mutex g_poolLock;
extern constinit std::mutex g_regionsLock;

}  // namespace kesp
