// The targets for hostile bytes. Each takes a whole input, and aborts when a check fails.
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

// The input of the first six is a file, that of the last the body of a tag.
void Walk(Input input);       // the container's walks compared with an independent reader; edits in place
void Columns(Input input);    // columns, compared with objects
void Dataset(Input input);    // reading, queries, summary, deleting, header upkeep
void Rebuild(Input input);    // Copy and CopyVerify
void Salvage(Input input);    // the rebuild that goes on after damage
void RoundTrip(Input input);  // reads and writes, twice
void Tag(Input input);        // every getter and setter
void Ogr(Input input);        // a file; only in builds with the plugin for GDAL
void OgrEdit(Input input);    // the same, whose last bytes also say what is changed in it

// A check in all builds, NDEBUG included.
inline void Require(bool holds, const char* what, const char* file, int line) {
  if (holds) return;
  std::fprintf(stderr, "%s:%d: %s does not hold\n", file, line, what);
  std::abort();
}
#define KESP_REQUIRE(...) ::kesp::fuzz::Require(static_cast<bool>(__VA_ARGS__), #__VA_ARGS__, __FILE__, __LINE__)

}  // namespace kesp::fuzz
