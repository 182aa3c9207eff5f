#include "Classes/Codec/Deflate.h"

#include <gtest/gtest.h>

#include <future>
#include <vector>

#include <zlib.h>

#include "Tests/Support/Files.h"

namespace {

using vkq::platform::Bytes;

// JSON-like lines: compressible, but not trivially.
Bytes textLike(std::size_t size) {
  Bytes bytes(size);
  for (std::size_t i = 0; i < size; ++i)
    bytes[i] = static_cast<std::uint8_t>("{\"id\":12345,\"tags\":[\"a\"]}\n"[i % 26]);
  return bytes;
}

// The format is zlib's: each side reads what the other writes, at any zlib level. The
// inputs go through at once, each on a thread of its own with its own (de)compressor.
TEST(Deflate, RoundTripsAndInteroperatesWithZlibOnConcurrentThreads) {
  const Bytes random = vkq::platform::bytesFromString(vkq::testing::patternBytes(1 << 20, 4));
  const std::pair<Bytes, int> inputs[] = {{{0x42}, 6}, {random, 0}, {textLike(5 << 20), 9}, {Bytes(8 << 20, 0), 1}};
  std::vector<std::future<void>> threads;
  for (const auto& entry : inputs) {
    threads.push_back(std::async(std::launch::async, [&input = entry.first, zlibLevel = entry.second] {
      const Bytes ours = Deflate::compress(input).value();
      EXPECT_EQ(Deflate::decompress(ours), input) << input.size();
      Bytes theirs(input.size());
      uLongf size = static_cast<uLongf>(input.size());
      ASSERT_EQ(uncompress(theirs.data(), &size, ours.data(), static_cast<uLong>(ours.size())), Z_OK);
      EXPECT_EQ(theirs, input) << input.size();
      size = compressBound(static_cast<uLong>(input.size()));
      theirs.resize(size);
      ASSERT_EQ(compress2(theirs.data(), &size, input.data(), static_cast<uLong>(input.size()), zlibLevel), Z_OK);
      theirs.resize(size);
      EXPECT_EQ(Deflate::decompress(theirs), input) << input.size();
    }));
  }
  for (auto& thread : threads) thread.get();
  EXPECT_EQ(Deflate::compress(Bytes{}), std::nullopt) << "no frame for an empty payload";
}

TEST(Deflate, TruncatedDamagedAndOversizedStreamsAreRejected) {
  const Bytes good = *Deflate::compress(textLike(2000));
  for (std::size_t length = 0; length < good.size(); ++length) {
    ASSERT_EQ(Deflate::decompress(std::span(good).first(length)), std::nullopt) << "length " << length;
  }
  Bytes header = good, adler = good, longer = good;
  header[1] ^= 0x01;
  adler[adler.size() - 1] ^= 0x01;
  longer.push_back(0);
  for (const Bytes& damaged : {header, adler, longer, Bytes(good.begin() + 2, good.end())}) {
    EXPECT_EQ(Deflate::decompress(damaged), std::nullopt);
  }
  bool overLimit = false;
  EXPECT_EQ(Deflate::decompress(good, 1999, &overLimit), std::nullopt);
  EXPECT_TRUE(overLimit);
  EXPECT_EQ(Deflate::decompress(good, 2000, &overLimit), textLike(2000));
  EXPECT_FALSE(overLimit);
}

}  // namespace
