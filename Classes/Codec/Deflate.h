// Deflate: compression of the binary protocol's payloads, in the zlib format of RFC 1950
// (a two-byte header, a deflate stream, the Adler-32 of the data): the format the server
// on the other side reads and writes, and what zlib's compress()/uncompress() produce.
//
// Both operations report failure only by an absent result. They are safe from any
// thread: each thread keeps its own compressor and decompressor objects.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "Platform/Base/Bytes.h"

namespace Deflate {

// zlib's default level: the best trade of speed and size, and what peers using zlib with
// default settings produce.
inline constexpr int kCompressionLevel = 6;

// Inputs of at most this many bytes are stored (deflate's uncompressed blocks in a zlib
// stream, which any inflater reads) rather than compressed. Compressing them saves a
// few bytes at most: 64 bytes of JSON-like records give 69 bytes compressed against 75
// stored, binary data does not shrink at all. But every compression at
// kCompressionLevel costs about 40,000 instructions (10 us) whatever the size, mostly to
// clear the compressor's match-finder tables: more than half of a small HTTP exchange.
// (libdeflate itself stores inputs of up to 31 bytes at this level.)
inline constexpr std::size_t kMaxStoredSize = 64;

// The most bytes decompress produces unless told otherwise (64 MiB), so that a small
// hostile stream cannot exhaust memory.
inline constexpr std::size_t kMaxDecompressedSize = std::size_t{64} << 20;

// The zlib stream of `bytes` at kCompressionLevel, or stored up to kMaxStoredSize bytes.
// Absent for empty input (the framing sends no frame for an empty payload) and when
// memory for the compressor runs out.
std::optional<vkq::platform::Bytes> compress(std::span<const std::uint8_t> bytes);

// The data of one complete zlib stream. Absent when `bytes` is not exactly one valid
// stream (empty, truncated, corrupt, failed Adler-32, bytes after its end), or when the
// data would exceed `limit` bytes; `overLimit` (when given) says which.
std::optional<vkq::platform::Bytes> decompress(std::span<const std::uint8_t> bytes,
                                               std::size_t limit = kMaxDecompressedSize, bool* overLimit = nullptr);

}  // namespace Deflate
