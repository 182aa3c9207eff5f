// The body shared by the KXP response fuzzer and its deterministic GoogleTest: decodes
// an arbitrary answer under settings chosen by the input's first bytes and checks the
// decoder's promises.
#pragma once

#include <cstdint>
#include <span>

namespace kxp_fuzzing {

// Input layout: a settings prefix, then the answer.
//   byte 0  flags: 0x01 compress, 0x02 begin marker, 0x04 version, 0x08 transport error,
//           0x30 both set: nonProtocol, 0x40 the answer is the payload of a frame with
//           matching length and CRC (so that inputs reach unmasking and decompression)
//   byte 1  xorKey
//   byte 2  version (0 becomes 1 when the version flag is set)
//   byte 3-4  begin marker, big-endian (0 becomes 1 when the marker flag is set)
// Missing prefix bytes count as 0.
inline constexpr std::size_t kPrefixSize = 5;

// Decodes one input and returns the result code. Aborts the process when the decoder
// breaks a promise: a null result, an unknown code, a success without bytes (or, for
// nonProtocol, other bytes than the answer), a failure with data, a result carrying
// the wrong request, or a changed raw answer.
std::int64_t decodeOneInput(std::span<const std::uint8_t> input);

}  // namespace kxp_fuzzing
