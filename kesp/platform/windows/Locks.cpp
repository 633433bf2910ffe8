#include "kesp/platform/Locks.h"

#include <windows.h>

namespace kesp {

static_assert(sizeof(SRWLOCK) == sizeof(Mutex));

void Mutex::lock() noexcept { ::AcquireSRWLockExclusive(reinterpret_cast<SRWLOCK*>(&m_lock)); }
void Mutex::unlock() noexcept { ::ReleaseSRWLockExclusive(reinterpret_cast<SRWLOCK*>(&m_lock)); }

// No process is forked here.
constinit Mutex g_openReadersLock;
constinit Mutex g_poolLock;
constinit Mutex g_regionsLock;

}  // namespace kesp
