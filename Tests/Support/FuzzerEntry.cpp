// libFuzzer entry for one fuzz body, named at build time (VKQ_FUZZ_HEADER declares
// VKQ_FUZZ_BODY); see vkq_fuzzer() in Tests/CMakeLists.txt.
#include <cstddef>
#include <cstdint>
#include <span>

#include VKQ_FUZZ_HEADER

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  VKQ_FUZZ_BODY(std::span<const std::uint8_t>(data, size));
  return 0;
}
