// The libFuzzer entry point of one target; TSM_FUZZ_BODY names its body.
#include <cstdio>
#include <cstdlib>

#include "fuzz/fuzz_bodies.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string broken = tsm::fuzz::TSM_FUZZ_BODY(data, size);
  if (!broken.empty()) {
    std::fprintf(stderr, "check failed: %s\n", broken.c_str());
    std::abort();
  }
  return 0;
}
