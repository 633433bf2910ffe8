// The thread that reads ahead, as the system starts it. Not installed.
#pragma once
#include <pthread.h>

namespace kesp {

// Starts a thread that never runs the host's signal handlers. Returns false when there is no thread to be had.
bool StartThread(pthread_t& thread, void* (*run)(void*), void* argument) noexcept;
// Whether the process may run on a second processor.
bool HasSecondProcessor() noexcept;

}  // namespace kesp
