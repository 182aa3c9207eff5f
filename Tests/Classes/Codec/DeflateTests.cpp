#include "Classes/Codec/Deflate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include <zlib.h>

#include "Tests/Classes/Codec/RandomBytes.h"

namespace {

using vkq::platform::Bytes;

Bytes textLike(std::size_t size) {
  const std::string line = "{\"id\":12345,\"name\":\"item\",\"tags\":[\"a\",\"b\"]}\n";
  Bytes bytes;
  bytes.reserve(size);
  while (bytes.size() < size) bytes.push_back(static_cast<std::uint8_t>(line[bytes.size() % line.size()]));
  return bytes;
}

std::optional<Bytes> zlibCompress(const Bytes& input, int level) {
  uLongf size = compressBound(static_cast<uLong>(input.size()));
  Bytes out(size);
  if (compress2(out.data(), &size, input.data(), static_cast<uLong>(input.size()), level) != Z_OK) return std::nullopt;
  out.resize(size);
  return out;
}

std::optional<Bytes> zlibUncompress(const Bytes& input, std::size_t expectedSize) {
  uLongf size = static_cast<uLongf>(expectedSize);
  Bytes out(expectedSize);
  if (uncompress(out.data(), &size, input.data(), static_cast<uLong>(input.size())) != Z_OK) return std::nullopt;
  out.resize(size);
  return out;
}

TEST(DeflateRoundTrip, SmallLargeRandomAndHighlyCompressible) {
  const std::vector<std::pair<const char*, Bytes>> inputs = {
      {"one byte", {0x42}},
      {"short text", textLike(100)},
      {"random 1 MiB", codec_reference::randomBytes(1 << 20, 4)},
      {"text 5 MiB", textLike(5 << 20)},
      {"zeros 8 MiB", Bytes(8 << 20, 0)},
  };
  for (const auto& [name, input] : inputs) {
    SCOPED_TRACE(name);
    const auto compressed = Deflate::compress(input);
    ASSERT_TRUE(compressed.has_value());
    EXPECT_EQ(Deflate::decompress(*compressed), input);
  }
  EXPECT_LT(Deflate::compress(Bytes(8 << 20, 0))->size(), 20u * 1024) << "zeros compress well";
}

TEST(DeflateRoundTrip, EmptyInputCompressesToNothing) {
  EXPECT_EQ(Deflate::compress(Bytes{}), std::nullopt);
  EXPECT_EQ(Deflate::decompress(Bytes{}), std::nullopt) << "not a stream";
  // A real stream of no data is fine to read.
  EXPECT_EQ(Deflate::decompress(*zlibCompress({}, 6)), Bytes{});
}

TEST(DeflateInterop, ZlibReadsOurStreams) {
  const Bytes input = textLike(300 * 1000);
  const auto compressed = Deflate::compress(input);
  ASSERT_TRUE(compressed.has_value());
  EXPECT_EQ((*compressed)[0], 0x78) << "zlib header: deflate, 32 KiB window";
  EXPECT_EQ(zlibUncompress(*compressed, input.size()), input);
}

TEST(DeflateInterop, WeReadZlibStreamsOfEveryLevel) {
  const Bytes input = textLike(200 * 1000);
  for (const int level : {0, 1, 6, 9}) {
    SCOPED_TRACE(level);
    EXPECT_EQ(Deflate::decompress(*zlibCompress(input, level)), input);
  }
}

TEST(DeflateCorruption, EveryTruncationIsRejected) {
  const auto compressed = *Deflate::compress(textLike(2000));
  for (std::size_t length = 0; length < compressed.size(); ++length) {
    const Bytes truncated(compressed.begin(), compressed.begin() + static_cast<std::ptrdiff_t>(length));
    ASSERT_EQ(Deflate::decompress(truncated), std::nullopt) << "length " << length;
  }
}

TEST(DeflateCorruption, DamagedStreamsAreRejected) {
  const Bytes input = textLike(2000);
  const auto good = *Deflate::compress(input);
  const auto damaged = [&](auto change) {
    Bytes bytes = good;
    change(bytes);
    return bytes;
  };
  // Header check bits no longer a multiple of 31.
  EXPECT_EQ(Deflate::decompress(damaged([](Bytes& b) { b[1] ^= 0x01; })), std::nullopt);
  // Compression method other than deflate.
  EXPECT_EQ(Deflate::decompress(damaged([](Bytes& b) { b[0] = 0x79; })), std::nullopt);
  // Adler-32 of the data wrong.
  EXPECT_EQ(Deflate::decompress(damaged([](Bytes& b) { b.back() ^= 0x01; })), std::nullopt);
  // Bytes after the end of the stream.
  EXPECT_EQ(Deflate::decompress(damaged([](Bytes& b) { b.push_back(0); })), std::nullopt);
  // A raw deflate stream without the zlib wrapper.
  EXPECT_EQ(Deflate::decompress(damaged([](Bytes& b) { b.erase(b.begin(), b.begin() + 2); })), std::nullopt);
  // Random bytes.
  EXPECT_EQ(Deflate::decompress(codec_reference::randomBytes(1000, 5)), std::nullopt);
}

TEST(DeflateLimit, OutputUpToTheLimitIsAcceptedAndBeyondItRefused) {
  const Bytes atLimit(Deflate::kMaxDecompressedSize, 'a');
  const auto fits = Deflate::decompress(*Deflate::compress(atLimit));
  ASSERT_TRUE(fits.has_value());
  EXPECT_EQ(fits->size(), Deflate::kMaxDecompressedSize);

  Bytes beyond = atLimit;
  beyond.push_back('a');
  const auto bomb = *Deflate::compress(beyond);
  EXPECT_LT(bomb.size(), 128u * 1024) << "a small stream";
  EXPECT_EQ(Deflate::decompress(bomb), std::nullopt);
}

TEST(DeflateThreads, ConcurrentCallsGiveCorrectResults) {
  std::vector<std::thread> threads;
  std::vector<int> ok(4, 0);
  for (std::size_t t = 0; t < ok.size(); ++t) {
    threads.emplace_back([&ok, t] {
      const Bytes input = codec_reference::randomBytes(20000 + t, static_cast<std::uint32_t>(t));
      for (int round = 0; round < 20; ++round) {
        const auto compressed = Deflate::compress(input);
        if (!compressed || Deflate::decompress(*compressed) != input) return;
      }
      ok[t] = 1;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_THAT(ok, ::testing::Each(1));
}

}  // namespace
