// Makes the n-th allocation of the program fail. Included by one source of a test program, whose operator new it
// replaces.
//
//   for (int n = 1;; ++n) {
//     FaultyMemory memory(n);
//     ... run; check ...
//     if (!memory.Struck()) break;   // the run passed untouched
//   }
#pragma once
#include <cstdlib>
#include <new>

namespace kesp::test {

class FaultyMemory {
 public:
  explicit FaultyMemory(int at) { s_left = at; }
  ~FaultyMemory() { s_left = 0; }
  FaultyMemory(const FaultyMemory&) = delete;
  FaultyMemory& operator=(const FaultyMemory&) = delete;
  static bool Struck() { return s_left == 0; }
  static void* Allocate(std::size_t size) {
    if (s_left > 0 && --s_left == 0) throw std::bad_alloc();
    void* const block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
  }

 private:
  static inline int s_left = 0;  // until the one that fails; 0 when none is to
};

}  // namespace kesp::test

void* operator new(std::size_t size) { return kesp::test::FaultyMemory::Allocate(size); }
void* operator new[](std::size_t size) { return kesp::test::FaultyMemory::Allocate(size); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
