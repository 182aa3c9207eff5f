// libFuzzer entry: arbitrary answers and settings through VKQKXPResponseSerializer.
#include <cstddef>
#include <cstdint>

#include "Tests/Classes/Fuzz/KXPResponseFuzzing.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kxp_fuzzing::decodeOneInput({data, size});
  return 0;
}
