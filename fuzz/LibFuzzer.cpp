#include "Fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ondaro::fuzz::Run(ondaro::fuzz::Input({reinterpret_cast<const char*>(data), size}));
  return 0;
}
