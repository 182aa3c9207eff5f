// Speed of the byte codec against the alternatives it replaces: the byte-table CRC-32
// loop and zlib's crc32, a plain copy (the floor for the mask, which also returns a copy),
// and zlib's compress2/uncompress at the same level as Deflate.
//
// Payloads are JSON-like records with random fields: compressible, but not trivially.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <random>
#include <string>

#include <libdeflate.h>
#include <zlib.h>

#include "Benchmarks/RecordsData.h"
#include "Classes/Codec/Deflate.h"
#include "Classes/Codec/Encrypt.h"
#include "Benchmarks/ReferenceCrc32.h"

namespace {

using vkq::platform::Bytes;
using vkq::benchmarks::records;

constexpr std::int64_t kSmall = 64 << 10;
constexpr std::int64_t kLarge = 16 << 20;

const Bytes& payload(std::int64_t size) {
  static const Bytes small = records(kSmall);
  static const Bytes large = records(kLarge);
  return size == kSmall ? small : large;
}

void setBytes(benchmark::State& state, std::size_t perIteration) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(perIteration));
}

void BM_Crc32_Encrypt(benchmark::State& state) {
  const Bytes& data = payload(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(Encrypt::crc32(data));
  setBytes(state, data.size());
}

void BM_Crc32_Zlib(benchmark::State& state) {
  const Bytes& data = payload(state.range(0));
  for (auto _ : state) {
    benchmark::DoNotOptimize(::crc32_z(::crc32_z(0, nullptr, 0), data.data(), data.size()));
  }
  setBytes(state, data.size());
}

void BM_Crc32_ByteTable(benchmark::State& state) {
  const Bytes& data = payload(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(codec_reference::crc32(data));
  setBytes(state, data.size());
}

void BM_Xor_Encrypt(benchmark::State& state) {
  Bytes data = payload(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(Encrypt::xorWithKey(data, 0x5A));
  setBytes(state, data.size());
}

// What the mask cannot beat: it reads and writes the receiver and makes one copy.
void BM_Xor_CopyOnlyBaseline(benchmark::State& state) {
  const Bytes& data = payload(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(Bytes(data));
  setBytes(state, data.size());
}

void setRatio(benchmark::State& state, std::size_t plain, std::size_t compressed) {
  state.counters["ratio"] = static_cast<double>(plain) / static_cast<double>(compressed);
}

Bytes zlibCompress(const Bytes& input) {
  uLongf size = compressBound(static_cast<uLong>(input.size()));
  Bytes out(size);
  const int level = Deflate::kCompressionLevel;
  if (compress2(out.data(), &size, input.data(), static_cast<uLong>(input.size()), level) != Z_OK) {
    return {};
  }
  out.resize(size);
  return out;
}

void BM_Compress_Libdeflate(benchmark::State& state) {
  const Bytes& data = payload(state.range(0));
  std::size_t compressed = 0;
  for (auto _ : state) {
    auto out = Deflate::compress(data);
    compressed = out->size();
    benchmark::DoNotOptimize(out);
  }
  setBytes(state, data.size());
  setRatio(state, data.size(), compressed);
}

void BM_Compress_Zlib(benchmark::State& state) {
  const Bytes& data = payload(state.range(0));
  std::size_t compressed = 0;
  for (auto _ : state) {
    auto out = zlibCompress(data);
    compressed = out.size();
    benchmark::DoNotOptimize(out);
  }
  setBytes(state, data.size());
  setRatio(state, data.size(), compressed);
}

// Deflate::decompress has to guess the output size; zlib is given the exact size, its
// best case.
void BM_Decompress_Libdeflate(benchmark::State& state) {
  const Bytes& data = payload(state.range(0));
  const Bytes compressed = zlibCompress(data);
  for (auto _ : state) {
    auto out = Deflate::decompress(compressed);
    if (!out || out->size() != data.size()) state.SkipWithError("decompress failed");
    benchmark::DoNotOptimize(out);
  }
  setBytes(state, data.size());
  setRatio(state, data.size(), compressed.size());
}

// The libraries on equal terms: libdeflate, like zlib below, told the exact size.
void BM_Decompress_LibdeflateKnownSize(benchmark::State& state) {
  const Bytes& data = payload(state.range(0));
  const Bytes compressed = zlibCompress(data);
  libdeflate_decompressor* decompressor = libdeflate_alloc_decompressor();
  for (auto _ : state) {
    Bytes out(data.size());
    if (libdeflate_zlib_decompress(decompressor, compressed.data(), compressed.size(), out.data(), out.size(),
                                   nullptr) != LIBDEFLATE_SUCCESS) {
      state.SkipWithError("decompress failed");
    }
    benchmark::DoNotOptimize(out);
  }
  libdeflate_free_decompressor(decompressor);
  setBytes(state, data.size());
  setRatio(state, data.size(), compressed.size());
}

void BM_Decompress_Zlib(benchmark::State& state) {
  const Bytes& data = payload(state.range(0));
  const Bytes compressed = zlibCompress(data);
  for (auto _ : state) {
    Bytes out(data.size());
    uLongf size = static_cast<uLongf>(out.size());
    if (uncompress(out.data(), &size, compressed.data(), static_cast<uLong>(compressed.size())) != Z_OK) {
      state.SkipWithError("uncompress failed");
    }
    benchmark::DoNotOptimize(out);
  }
  setBytes(state, data.size());
  setRatio(state, data.size(), compressed.size());
}

}  // namespace

BENCHMARK(BM_Crc32_Encrypt)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(BM_Crc32_Zlib)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(BM_Crc32_ByteTable)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(BM_Xor_Encrypt)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(BM_Xor_CopyOnlyBaseline)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(BM_Compress_Libdeflate)->Arg(kSmall)->Arg(kLarge)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Compress_Zlib)->Arg(kSmall)->Arg(kLarge)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Decompress_Libdeflate)->Arg(kSmall)->Arg(kLarge)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Decompress_LibdeflateKnownSize)->Arg(kSmall)->Arg(kLarge)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Decompress_Zlib)->Arg(kSmall)->Arg(kLarge)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
