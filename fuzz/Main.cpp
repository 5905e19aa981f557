// The entry point of libFuzzer (https://llvm.org/docs/LibFuzzer.html), once for each target.

#include "fuzz/Targets.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  larkspan::fuzz::LARKSPAN_FUZZ_TARGET({reinterpret_cast<const char*>(data), size});
  return 0;
}
