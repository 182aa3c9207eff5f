// KXP framing (VKQKXPRequestSerializer::createDataWithParameters) and parsing
// (VKQKXPResponseSerializer::deserialize) against the codec pieces alone on the same
// data: CRC-32, the XOR mask and, when on, compression or decompression. The difference
// is what the framing itself costs (header, copies, allocations).
//
// Arguments: payload size, compression (0 off, 1 on). Every case masks with a key.
// Payloads are JSON-like records: compressible, but not trivially. BM_FrameBuffer shows
// the cost of the frame's own buffer beside a payload-sized one.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <random>

#include "Benchmarks/RecordsData.h"
#include "Classes/Codec/Deflate.h"
#include "Classes/Codec/Encrypt.h"
#include "Classes/Codec/VKQKXPFrame.h"
#include "Classes/Serialization/Request/VKQKXPRequestSerializer.h"
#include "Classes/Serialization/Response/VKQKXPResponseSerializer.h"
#include "Classes/Serialization/VKQKXPRequestSettings.h"
#include "Classes/VKQVesk.h"
#include "Classes/VKQVeskResult.h"

namespace {

using vkq::platform::Bytes;
using vkq::benchmarks::records;
using vkq::platform::Object;

constexpr std::uint8_t kKey = 0x5A;

const Bytes& payload(std::int64_t size) {
  static std::map<std::int64_t, Bytes> cache;
  auto found = cache.find(size);
  if (found == cache.end()) found = cache.emplace(size, records(static_cast<std::size_t>(size))).first;
  return found->second;
}

// A request with the defaults (begin marker, OS type), the key, and compression as asked.
std::shared_ptr<VKQVesk> requestFor(const benchmark::State& state) {
  auto vesk = VKQVesk::initWithKXPUrl("http://localhost/kxp", nullptr);
  vesk->xorkeyPromise()(kKey)->compressPromise()(state.range(1) != 0);
  return vesk;
}

void finish(benchmark::State& state) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}

void BM_Frame(benchmark::State& state) {
  const auto serializer = VKQKXPRequestSerializer::serializerWithRequest(requestFor(state));
  // Without compression the mask works on the argument in place: each pass toggles it.
  const Object argument(payload(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(serializer->createDataWithParameters(argument));
  finish(state);
}

void BM_FramePieces(benchmark::State& state) {
  Bytes data = payload(state.range(0));
  const bool compress = state.range(1) != 0;
  for (auto _ : state) {
    std::optional<Bytes> packed;
    if (compress) packed = Deflate::compress(data);
    Bytes& wire = compress ? *packed : data;
    benchmark::DoNotOptimize(Encrypt::xorWithKey(wire, kKey));
    benchmark::DoNotOptimize(Encrypt::crc32(wire));
  }
  finish(state);
}

void BM_Parse(benchmark::State& state) {
  const auto request = requestFor(state);
  const auto settings = VKQKXPFrameSettingsOf(*request);
  const auto serializer = VKQKXPResponseSerializer::serializer();
  Bytes argument = payload(state.range(0));
  request->setResponseData(Object(*VKQKXPFrame::packResponse(argument, settings)));
  const vkq::platform::ErrorPtr noError;
  for (auto _ : state) {
    const auto result = serializer->deserialize(request, &noError);
    if (result->responseCode()->code() != 0) state.SkipWithError("decoding failed");
    benchmark::DoNotOptimize(result);
  }
  finish(state);
}

void BM_ParsePieces(benchmark::State& state) {
  const bool compress = state.range(1) != 0;
  const Bytes original = payload(state.range(0));
  const Bytes packed = compress ? *Deflate::compress(original) : original;
  Bytes scratch = packed;  // masked in place: each pass toggles it, at the same cost
  for (auto _ : state) {
    benchmark::DoNotOptimize(Encrypt::crc32(packed));
    benchmark::DoNotOptimize(Encrypt::xorWithKey(scratch, kKey));
    if (compress) benchmark::DoNotOptimize(Deflate::decompress(packed));
  }
  finish(state);
}

// The one allocation a frame cannot do without: a buffer of the payload's size (as the
// mask piece's copy) beside one of the payload plus the 11-byte default header. Around
// 1 KiB the two can fall on either side of the C library's per-thread cache limit.
void BM_FrameBuffer(benchmark::State& state) {
  const Bytes& data = payload(state.range(0));
  const auto size = static_cast<std::size_t>(state.range(0) + state.range(1));
  for (auto _ : state) {
    Bytes buffer;
    buffer.reserve(size);
    buffer.insert(buffer.end(), data.begin(), data.end());
    benchmark::DoNotOptimize(buffer.data());
  }
  finish(state);
}

void sizesAndCompression(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"bytes", "compress"});
  for (std::int64_t compress : {0, 1}) {
    for (std::int64_t size : {std::int64_t{1} << 10, std::int64_t{64} << 10, std::int64_t{4} << 20}) {
      benchmark->Args({size, compress});
    }
  }
}

BENCHMARK(BM_Frame)->Apply(sizesAndCompression);
BENCHMARK(BM_FramePieces)->Apply(sizesAndCompression);
BENCHMARK(BM_Parse)->Apply(sizesAndCompression);
BENCHMARK(BM_ParsePieces)->Apply(sizesAndCompression);
BENCHMARK(BM_FrameBuffer)->ArgNames({"bytes", "header"})->Args({1024, 0})->Args({1024, 11});

}  // namespace

BENCHMARK_MAIN();
