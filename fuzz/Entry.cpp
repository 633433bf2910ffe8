// The entry point of libFuzzer, for the target KESP_FUZZ_TARGET.
#include "fuzz/Targets.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kesp::fuzz::KESP_FUZZ_TARGET({data, size});
  return 0;
}
