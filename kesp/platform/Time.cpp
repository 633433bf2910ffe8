#include "kesp/platform/Time.h"

#include <ctime>

CTime CTime::GetCurrentTime() noexcept { return {static_cast<std::int64_t>(std::time(nullptr))}; }
