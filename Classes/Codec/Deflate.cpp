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

using Compressor = std::unique_ptr<libdeflate_compressor, CompressorDeleter>;

// The calling thread's compressor for `size` input bytes, made on first use; null when
// memory runs out.
libdeflate_compressor* threadCompressor(std::size_t size) {
  const bool store = size <= Deflate::kMaxStoredSize;
  thread_local Compressor compressors[2];  // [store]
  Compressor& compressor = compressors[store];
  if (!compressor) compressor.reset(libdeflate_alloc_compressor(store ? 0 : Deflate::kCompressionLevel));
  return compressor.get();
}

libdeflate_decompressor* threadDecompressor() {
  thread_local std::unique_ptr<libdeflate_decompressor, DecompressorDeleter> decompressor;
  if (!decompressor) decompressor.reset(libdeflate_alloc_decompressor());
  return decompressor.get();
}

// Output is written to an uninitialised scratch buffer and copied out at its exact size:
// room that is never written costs neither memory traffic nor, for large buffers, pages.
using Scratch = std::unique_ptr<std::uint8_t[]>;

// The first guess of the data's size is generous (untouched room is cheap), so that most
// payloads need one pass: libdeflate cannot resume, a pass that runs out of room is lost.
constexpr std::size_t kMinFirstGuess = 64 * 1024;
constexpr std::size_t kFirstGuessRatio = 16;
constexpr std::size_t kGrowthFactor = 4;

}  // namespace

namespace Deflate {

std::optional<Bytes> compress(std::span<const std::uint8_t> bytes) {
  if (bytes.empty()) return std::nullopt;
  libdeflate_compressor* compressor = threadCompressor(bytes.size());
  if (compressor == nullptr) return std::nullopt;
  const std::size_t bound = libdeflate_zlib_compress_bound(compressor, bytes.size());
  const Scratch out = std::make_unique_for_overwrite<std::uint8_t[]>(bound);
  const std::size_t size = libdeflate_zlib_compress(compressor, bytes.data(), bytes.size(), out.get(), bound);
  if (size == 0) return std::nullopt;
  return Bytes(out.get(), out.get() + size);
}

std::optional<Bytes> decompress(std::span<const std::uint8_t> bytes, std::size_t limit, bool* overLimit) {
  if (overLimit != nullptr) *overLimit = false;
  if (bytes.empty()) return std::nullopt;
  libdeflate_decompressor* decompressor = threadDecompressor();
  if (decompressor == nullptr) return std::nullopt;
  // The zlib format does not record the data's length: guess, and on running out of
  // room start over with more, up to the limit.
  const std::size_t guess = std::min(limit / kFirstGuessRatio, bytes.size()) * kFirstGuessRatio;
  std::size_t room = std::min(std::max(guess, kMinFirstGuess), limit);
  for (;;) {
    const Scratch out = std::make_unique_for_overwrite<std::uint8_t[]>(room);
    std::size_t consumed = 0;
    std::size_t produced = 0;
    const libdeflate_result result = libdeflate_zlib_decompress_ex(decompressor, bytes.data(), bytes.size(),
                                                                   out.get(), room, &consumed, &produced);
    if (result == LIBDEFLATE_SUCCESS) {
      if (consumed != bytes.size()) return std::nullopt;
      return Bytes(out.get(), out.get() + produced);
    }
    if (result != LIBDEFLATE_INSUFFICIENT_SPACE) return std::nullopt;
    if (room == limit) {
      if (overLimit != nullptr) *overLimit = true;
      return std::nullopt;
    }
    room = std::min(room, limit / kGrowthFactor) * kGrowthFactor;
    room = std::min(room, limit);
  }
}

}  // namespace Deflate
