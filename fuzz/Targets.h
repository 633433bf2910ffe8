// What is run over hostile bytes. Each target takes a whole input, and aborts when something is not as it must be.
#pragma once
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>

#include "tests/support/MemorySystem.h"

namespace kesp::fuzz {

using Input = std::span<const std::uint8_t>;
using Bytes = test::ByteVector;
using test::MemorySystem;

// Inputs of the first five are files, those of the last are the bodies of tags.
void Walk(Input input);       // the container, beside a walk written anew from the format; edits in place
void Dataset(Input input);    // reading, queries, summary, deleting, header upkeep
void Rebuild(Input input);    // Copy and CopyVerify
void Salvage(Input input);    // the rebuild beyond damage
void RoundTrip(Input input);  // read, written, read and written again
void Tag(Input input);        // every getter and setter

// A check that stays in every build.
inline void Require(bool holds, const char* what, const char* file, int line) {
  if (holds) return;
  std::fprintf(stderr, "%s:%d: %s does not hold\n", file, line, what);
  std::abort();
}
#define KESP_REQUIRE(...) ::kesp::fuzz::Require(static_cast<bool>(__VA_ARGS__), #__VA_ARGS__, __FILE__, __LINE__)

}  // namespace kesp::fuzz
