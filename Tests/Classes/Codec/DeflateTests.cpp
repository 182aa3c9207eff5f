#include "Classes/Codec/Deflate.h"

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <string>
#include <vector>

#include <zlib.h>

#include "Tests/Classes/Codec/RandomBytes.h"

namespace {

using vkq::platform::Bytes;

Bytes textLike(std::size_t size) {
  const std::string line = "{\"id\":12345,\"name\":\"item\",\"tags\":[\"a\",\"b\"]}\n";
  Bytes bytes(size);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(line[i % line.size()]);
  return bytes;
}

// zlib's own one-shot functions, the reference for the format.
Bytes zlibCompress(const Bytes& input, int level) {
  uLongf size = compressBound(static_cast<uLong>(input.size()));
  Bytes out(size);
  EXPECT_EQ(compress2(out.data(), &size, input.data(), static_cast<uLong>(input.size()), level), Z_OK);
  out.resize(size);
  return out;
}
Bytes zlibUncompress(const Bytes& stream, std::size_t size) {
  Bytes out(size);
  uLongf length = static_cast<uLongf>(size);
  EXPECT_EQ(uncompress(out.data(), &length, stream.data(), static_cast<uLong>(stream.size())), Z_OK);
  return out;
}

TEST(Deflate, RoundTripsAndInteroperatesWithZlibAtEveryLevel) {
  const struct {
    const char* name;
    Bytes input;
    int zlibLevel;
  } inputs[] = {
      {"one byte", {0x42}, 6},
      {"random 1 MiB", codec_reference::randomBytes(1 << 20, 4), 0},  // level 0: stored blocks
      {"text 300 kB", textLike(300 * 1000), 1},
      {"text 5 MiB", textLike(5 << 20), 9},
      {"zeros 8 MiB", Bytes(8 << 20, 0), 6},  // the output grows far beyond the input
  };
  for (const auto& [name, input, zlibLevel] : inputs) {
    SCOPED_TRACE(name);
    const auto ours = Deflate::compress(input);
    ASSERT_TRUE(ours.has_value());
    EXPECT_EQ(Deflate::decompress(*ours), input);
    EXPECT_EQ(zlibUncompress(*ours, input.size()), input);
    EXPECT_EQ(Deflate::decompress(zlibCompress(input, zlibLevel)), input);
  }
  EXPECT_EQ(Deflate::compress(Bytes{}), std::nullopt) << "no frame for an empty payload";
  EXPECT_EQ(Deflate::decompress(Bytes{}), std::nullopt) << "not a stream";
  EXPECT_EQ(Deflate::decompress(zlibCompress({}, 6)), Bytes{}) << "a real stream of no data";
}

TEST(Deflate, TruncatedDamagedAndForeignStreamsAreRejected) {
  const auto good = *Deflate::compress(textLike(2000));
  for (std::size_t length = 0; length < good.size(); ++length) {
    ASSERT_EQ(Deflate::decompress(std::span(good).first(length)), std::nullopt) << "length " << length;
  }
  const std::pair<const char*, std::function<void(Bytes&)>> damages[] = {
      {"header check bits not a multiple of 31", [](Bytes& b) { b[1] ^= 0x01; }},
      {"compression method other than deflate", [](Bytes& b) { b[0] = 0x79; }},
      {"wrong Adler-32", [](Bytes& b) { b.back() ^= 0x01; }},
      {"bytes after the end of the stream", [](Bytes& b) { b.push_back(0); }},
      {"raw deflate without the zlib wrapper", [](Bytes& b) { b.erase(b.begin(), b.begin() + 2); }},
      {"random bytes", [](Bytes& b) { b = codec_reference::randomBytes(1000, 5); }},
  };
  for (const auto& [why, damage] : damages) {
    Bytes bytes = good;
    damage(bytes);
    EXPECT_EQ(Deflate::decompress(bytes), std::nullopt) << why;
  }
}

TEST(Deflate, OutputUpToTheLimitIsAcceptedAndASmallBombBeyondItRefused) {
  Bytes data(Deflate::kMaxDecompressedSize, 'a');
  const auto fits = Deflate::decompress(*Deflate::compress(data));
  ASSERT_TRUE(fits.has_value());
  EXPECT_EQ(fits->size(), Deflate::kMaxDecompressedSize);

  data.push_back('a');
  const auto bomb = *Deflate::compress(data);
  EXPECT_LT(bomb.size(), 128u * 1024);
  EXPECT_EQ(Deflate::decompress(bomb), std::nullopt);
}

// Each thread keeps its own compressor and decompressor.
TEST(Deflate, ConcurrentCallsGiveCorrectResults) {
  std::vector<std::future<bool>> results;
  for (std::uint32_t seed = 0; seed < 4; ++seed) {
    results.push_back(std::async(std::launch::async, [seed] {
      const Bytes input = codec_reference::randomBytes(20000 + seed, seed);
      bool ok = true;
      for (int round = 0; round < 20; ++round) ok = ok && Deflate::decompress(*Deflate::compress(input)) == input;
      return ok;
    }));
  }
  for (auto& result : results) EXPECT_TRUE(result.get());
}

}  // namespace
