// Encrypt: the two cheap payload transforms of the binary protocol, the one-byte XOR
// mask and the CRC-32 checksum, as operations on byte strings.
//
// Both are free of shared state and may run on any thread. xorWithKey writes into its
// argument, which no other thread may use meanwhile.
#pragma once

#include <cstdint>
#include <span>

#include "Platform/Base/Bytes.h"

namespace Encrypt {

// Masks every byte of `receiver` IN PLACE with the low 8 bits of `key` (0x1FF masks with
// 0xFF) and returns a copy of the masked bytes: afterwards the receiver and the result
// hold the same bytes. The mask is its own inverse. Key 0 changes nothing.
vkq::platform::Bytes xorWithKey(std::span<std::uint8_t> receiver, std::uint64_t key);

// The mask of xorWithKey without the copy: masks `bytes` in place.
void xorInPlace(std::span<std::uint8_t> bytes, std::uint64_t key);

// The CRC-32 of ISO-HDLC / IEEE 802.3 (as in zlib and PNG: reflected, polynomial
// 0x04C11DB7, initial register and final XOR 0xFFFFFFFF) in the low 32 bits; the upper
// 32 bits are 0. "123456789" gives 0xCBF43926, no bytes give 0.
std::uint64_t crc32(std::span<const std::uint8_t> bytes);

}  // namespace Encrypt
