#include "Classes/Codec/Deflate.h"

#include <algorithm>
#include <memory>

#include <libdeflate.h>

using vkq::platform::Bytes;

namespace {

struct CompressorDeleter {
  void operator()(libdeflate_compressor* compressor) const { libdeflate_free_compressor(compressor); }
};
struct DecompressorDeleter {
  void operator()(libdeflate_decompressor* decompressor) const { libdeflate_free_decompressor(decompressor); }
};

// The calling thread's compressor, made on first use; null when memory runs out.
libdeflate_compressor* threadCompressor() {
  thread_local std::unique_ptr<libdeflate_compressor, CompressorDeleter> compressor;
  if (!compressor) compressor.reset(libdeflate_alloc_compressor(Deflate::kCompressionLevel));
  return compressor.get();
}

libdeflate_decompressor* threadDecompressor() {
  thread_local std::unique_ptr<libdeflate_decompressor, DecompressorDeleter> decompressor;
  if (!decompressor) decompressor.reset(libdeflate_alloc_decompressor());
  return decompressor.get();
}

// The first output buffer: room for a typical ratio, so most payloads need one pass.
constexpr std::size_t kMinFirstGuess = 64 * 1024;
constexpr std::size_t kFirstGuessRatio = 4;

}  // namespace

namespace Deflate {

std::optional<Bytes> compress(std::span<const std::uint8_t> bytes) {
  if (bytes.empty()) return std::nullopt;
  libdeflate_compressor* compressor = threadCompressor();
  if (compressor == nullptr) return std::nullopt;
  Bytes out(libdeflate_zlib_compress_bound(compressor, bytes.size()));
  const std::size_t size = libdeflate_zlib_compress(compressor, bytes.data(), bytes.size(), out.data(), out.size());
  if (size == 0) return std::nullopt;
  out.resize(size);
  return out;
}

std::optional<Bytes> decompress(std::span<const std::uint8_t> bytes) {
  if (bytes.empty()) return std::nullopt;
  libdeflate_decompressor* decompressor = threadDecompressor();
  if (decompressor == nullptr) return std::nullopt;
  // The zlib format does not record the data's length: guess, and on running out of
  // room start over with twice the room, up to the limit.
  std::size_t room = std::min(kMaxDecompressedSize / kFirstGuessRatio, bytes.size()) * kFirstGuessRatio;
  room = std::clamp(room, kMinFirstGuess, kMaxDecompressedSize);
  Bytes out;
  for (;;) {
    out.assign(room, 0);  // no copy of the failed attempt's bytes
    std::size_t consumed = 0;
    std::size_t produced = 0;
    const libdeflate_result result = libdeflate_zlib_decompress_ex(decompressor, bytes.data(), bytes.size(),
                                                                   out.data(), out.size(), &consumed, &produced);
    if (result == LIBDEFLATE_SUCCESS) {
      if (consumed != bytes.size()) return std::nullopt;
      out.resize(produced);
      // Give back a first guess that was far too generous.
      if (out.capacity() > 2 * produced) out.shrink_to_fit();
      return out;
    }
    if (result != LIBDEFLATE_INSUFFICIENT_SPACE || room == kMaxDecompressedSize) return std::nullopt;
    room = std::min(room * 2, kMaxDecompressedSize);
  }
}

}  // namespace Deflate
