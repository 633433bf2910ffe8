// Makes the n-th allocation of the program fail, counted from 1, in a program that is built with FaultyMemory.cpp. When
// it is not Struck() the run has passed untouched.
#pragma once
#include <new>

namespace kesp::test {

class FaultyMemory {
 public:
  explicit FaultyMemory(int at) { s_left = at; }
  ~FaultyMemory() { s_left = 0; }
  FaultyMemory(const FaultyMemory&) = delete;
  FaultyMemory& operator=(const FaultyMemory&) = delete;
  static bool Struck() { return s_left == 0; }
  // Called for every allocation.
  static void Count() {
    if (s_left > 0 && --s_left == 0) throw std::bad_alloc();
  }

 private:
  static inline int s_left = 0;  // until the one that fails; 0 when none is to
};

}  // namespace kesp::test
