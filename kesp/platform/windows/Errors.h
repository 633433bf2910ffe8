// The errno values that stand for the system's errors. Not installed.
#pragma once

namespace kesp {

// `error` is what GetLastError returns. EIO for an error that has no value of its own.
int ErrnoOf(unsigned long error) noexcept;

// Sets errno from GetLastError, and returns -1.
int FailWithLastError() noexcept;

}  // namespace kesp
