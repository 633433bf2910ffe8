#include "kesp/platform/Pages.h"

#include <windows.h>

#include <cstdint>

namespace kesp {

void* MapPages(std::size_t size, std::size_t alignment) noexcept {
  // A part of a reservation can't be given back. So an aligned place is found by reserving more, and reserved again by
  // itself; another thread may take it in between.
  constexpr int kTries = 16;
  for (int i = 0; i < kTries; ++i) {
    void* const raw = ::VirtualAlloc(nullptr, size + alignment, MEM_RESERVE, PAGE_NOACCESS);
    if (raw == nullptr) return nullptr;
    const std::uintptr_t place = (reinterpret_cast<std::uintptr_t>(raw) + alignment - 1) & ~(alignment - 1);
    ::VirtualFree(raw, 0, MEM_RELEASE);
    void* const wanted = reinterpret_cast<void*>(place);  // NOLINT(performance-no-int-to-ptr): rounded up
    void* const pages = ::VirtualAlloc(wanted, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    if (pages != nullptr) return pages;
    if (::GetLastError() != ERROR_INVALID_ADDRESS) return nullptr;
  }
  return nullptr;
}

void UnmapPages(void* pages, std::size_t /*size*/) noexcept { ::VirtualFree(pages, 0, MEM_RELEASE); }

bool FillPages(void* /*pages*/, std::size_t /*size*/, bool /*huge*/) noexcept { return false; }

void LetGoPages(void* pages, std::size_t size) noexcept { ::VirtualAlloc(pages, size, MEM_RESET, PAGE_READWRITE); }

void StayLoaded() noexcept {
  HMODULE self = nullptr;
  ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                       reinterpret_cast<LPCWSTR>(&StayLoaded), &self);
}

}  // namespace kesp
