#include "kesp/platform/Locks.h"

#include <pthread.h>

namespace kesp {

constinit Mutex g_openReadersLock;
constinit Mutex g_poolLock;
constinit Mutex g_regionsLock;

namespace {

void LockAll() {
  g_openReadersLock.lock();
  g_poolLock.lock();
  g_regionsLock.lock();
}

void UnlockAll() {
  g_regionsLock.unlock();
  g_poolLock.unlock();
  g_openReadersLock.unlock();
}

// Registered when the library is loaded, before any of its threads can hold a lock. If there is no memory for it,
// forking is as unsafe as with any other library that has locks.
[[maybe_unused]] const int g_registered = ::pthread_atfork(LockAll, UnlockAll, UnlockAll);

}  // namespace
}  // namespace kesp
