#include "Classes/Codec/NRDByteArray.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <unistd.h>

#include "Platform/Base/Assert.h"

namespace {

using ::testing::ElementsAre;
using ::testing::Optional;
using ::testing::Pointee;
using vkq::platform::Bytes;

constexpr std::size_t kWord = NRDByteArray::kWordSize;
static_assert(kWord == 8, "these tests spell out 64-bit length words");

std::shared_ptr<NRDByteArray> arrayOf(const Bytes& bytes, bool bigEndian = false) {
  return NRDByteArray::initWithData(bytes, bigEndian);
}

// A machine word in native (little-endian) order, followed by `rest`.
Bytes wordThen(std::size_t word, Bytes rest = {}) {
  for (std::size_t i = kWord; i-- > 0;) rest.insert(rest.begin(), static_cast<std::uint8_t>(word >> (8 * i)));
  return rest;
}

// One value of every width: how to append it, whether it reads back, and its layout most
// significant byte first (the little-endian layout is the same bytes reversed).
struct Field {
  const char* name;
  void (*append)(NRDByteArray&);
  bool (*readsBack)(NRDByteArray&);
  Bytes bigEndianBytes;
};
#define FIELD(type, read, value, ...) \
  {#type, [](NRDByteArray& a) { a.append##type(value); }, [](NRDByteArray& a) { return a.read() == (value); }, \
   {__VA_ARGS__}}
const Field kEveryWidth[] = {
    FIELD(Bool, readBool, true, 0x01),
    FIELD(UInt8, readUInt8, 0xAB, 0xAB),
    FIELD(SInt8, readSInt8, -2, 0xFE),
    FIELD(UInt16, readUInt16, 0x0102, 0x01, 0x02),
    FIELD(SInt16, readSInt16, -300, 0xFE, 0xD4),
    FIELD(UInt32, readUInt32, 0x01020304u, 0x01, 0x02, 0x03, 0x04),
    FIELD(SInt32, readSInt32, INT32_MIN, 0x80, 0x00, 0x00, 0x00),
    FIELD(UInt64, readUInt64, 0x0102030405060708u, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08),
    FIELD(SInt64, readSInt64, -2, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE),
    FIELD(UInt, readUInt, SIZE_MAX - 1, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE),
    FIELD(SInt, readInt, -0x0102, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE, 0xFE),
    FIELD(Float, readFloat, 1.5f, 0x3F, 0xC0, 0x00, 0x00),                      // IEEE 754 single 0x3FC00000
    FIELD(Double, readDouble, -2.5, 0xC0, 0x04, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00),  // 0xC004000000000000
};
#undef FIELD

TEST(NRDByteArrayByteOrder, EveryWidthHasItsLayoutAndReadsBackInBothOrders) {
  for (const bool bigEndian : {true, false}) {
    for (const auto& field : kEveryWidth) {
      SCOPED_TRACE(std::string(field.name) + (bigEndian ? " big-endian" : " little-endian"));
      auto array = NRDByteArray::initWithBigEndian(bigEndian);
      field.append(*array);
      Bytes expected = field.bigEndianBytes;
      if (!bigEndian) std::reverse(expected.begin(), expected.end());
      EXPECT_EQ(*array->data(), expected);
      EXPECT_EQ(array->position(), 0u) << "appends never move the cursor";
      EXPECT_TRUE(field.readsBack(*array));
      EXPECT_EQ(array->position(), expected.size());
    }
  }
}

TEST(NRDByteArrayAppend, BufferAppendedToItselfIsDoubled) {
  auto array = arrayOf({1, 2, 3});
  array->appendData(*array->data(), false);  // the source moves when the buffer grows
  EXPECT_THAT(*array->data(), ElementsAre(1, 2, 3, 1, 2, 3));
}

TEST(NRDByteArrayReads, FixedWidthReadsPastTheEndThrowAndKeepTheCursor) {
  for (const auto& field : kEveryWidth) {
    SCOPED_TRACE(field.name);
    // One byte short of the value once the first byte is read.
    auto array = arrayOf(Bytes(field.bigEndianBytes.size(), 0xAA), true);
    array->readUInt8();
    EXPECT_THROW(field.readsBack(*array), std::out_of_range);
    EXPECT_EQ(array->position(), 1u);
  }
  EXPECT_THAT([] { arrayOf({1, 2, 3})->readUInt32(); },
              ::testing::ThrowsMessage<std::out_of_range>(
                  ::testing::HasSubstr("cannot read 4 bytes at position 0 of a buffer of 3 bytes")));
  NRDByteArray::initWithLength(0, false)->getBytes(nullptr, 0);  // nothing to copy, nowhere to copy it
}

// readDataWithLength is checked; a length word is read unchecked, then its bytes checked.
TEST(NRDByteArrayReads, DataOfAGivenLengthIsCheckedButATruncatedLengthWordThrows) {
  auto array = arrayOf({1, 2, 3, 4});
  EXPECT_EQ(array->readDataWithLength(0), std::nullopt);
  EXPECT_THAT(array->readDataWithLength(2), Optional(ElementsAre(1, 2)));
  EXPECT_EQ(array->readDataWithLength(3), std::nullopt) << "only 2 bytes remain";
  EXPECT_EQ(array->readDataWithLength(SIZE_MAX), std::nullopt) << "must not wrap around";
  EXPECT_EQ(array->position(), 2u);

  EXPECT_THROW(array->readData(), std::out_of_range);
  EXPECT_THROW(array->readUTFStringWithEncoding(), std::out_of_range);
  EXPECT_EQ(array->position(), 2u);
  auto tooLong = arrayOf(wordThen(5, {1, 2}), true);
  EXPECT_EQ(tooLong->readData(), std::nullopt);
  EXPECT_EQ(tooLong->position(), kWord) << "the length word stays consumed";
}

TEST(NRDByteArrayPosition, CursorLeftBeyondTheEndReadsNothingUntilSetPositionPullsItBack) {
  auto array = arrayOf(Bytes(10, 7));
  array->setPosition(5);
  EXPECT_EQ(array->position(), 0u) << "never moves forward";
  array->readUInt64();
  array->setPosition(0);
  EXPECT_EQ(array->position(), 8u) << "never moves to a chosen place";

  array->setData(Bytes{1, 2});
  EXPECT_EQ(array->position(), 8u) << "setData keeps the cursor";
  EXPECT_FALSE(array->available());
  EXPECT_EQ(array->availableLength(), SIZE_MAX - 5) << "unguarded: 2 - 8 wraps around";
  EXPECT_THROW(array->readUInt8(), std::out_of_range);
  EXPECT_EQ(array->readDataWithLength(1), std::nullopt);
  EXPECT_THROW(array->readUTFStringWithLength(1), std::out_of_range);
  array->replaceData(Bytes{9});
  EXPECT_EQ(*array->data(), (Bytes{1, 2}));

  array->setPosition(123);
  EXPECT_EQ(array->position(), 2u);
  EXPECT_EQ(array->availableLength(), 0u);
}

TEST(NRDByteArrayReplace, WritesAtTheCursorOnlyWhatFitsWithWordsNeverReordered) {
  auto array = NRDByteArray::initWithBigEndian(true);
  array->appendEmptyBytesWithLength(kWord + 5);
  array->replaceDataBloak(Bytes{1, 2, 3, 4, 5, 6});  // word and 6 bytes: one too many
  EXPECT_EQ(*array->data(), Bytes(kWord + 5, 0));
  EXPECT_EQ(array->position(), 0u);

  array->replaceDataBloak(Bytes{1, 2, 3, 4});
  EXPECT_EQ(*array->data(), wordThen(4, {1, 2, 3, 4, 0}));
  EXPECT_EQ(array->position(), kWord + 4);

  array->replaceData(Bytes{7, 8});
  array->replaceUInt(1);
  array->replaceBytesInsize(SIZE_MAX, "x");  // would wrap around
  EXPECT_EQ(array->position(), kWord + 4);
  array->replaceData(Bytes{9});
  EXPECT_EQ(*array->data(), wordThen(4, {1, 2, 3, 4, 9}));
}

TEST(NRDByteArrayInit, NoBufferDropsAppendsAndReadsNothingUnlikeAnEmptyBuffer) {
  EXPECT_NE(NRDByteArray::initWithBytes(nullptr, 0)->data(), nullptr);
  EXPECT_FALSE(NRDByteArray::initWithBytes("\x01", 1)->bigEndian()) << "raw bytes are in native order";
  EXPECT_THROW(NRDByteArray::initWithBytes(nullptr, 1), vkq::platform::InternalInconsistencyException);
  auto array = NRDByteArray::initWithBigEndian(false);
  array->setData(std::nullopt);
  array->appendUInt32(1);
  array->appendData(Bytes{1, 2}, true);
  array->appendUTFString("abc", true);
  array->appendEmptyBytesWithLength(4);
  EXPECT_EQ(array->data(), nullptr);
  EXPECT_THROW(array->readUInt8(), std::out_of_range);
  EXPECT_EQ(array->readDataWithLength(1), std::nullopt);
  array->replaceData(Bytes{1});
  EXPECT_EQ(array->position(), 0u);
}

TEST(NRDByteArrayInit, FilesAreReadAndAnythingUnreadableGivesNoBuffer) {
  namespace fs = std::filesystem;
  const std::string name = "codec-test-" + std::to_string(::getpid());
  const fs::path temporary = fs::temp_directory_path() / name;
  const fs::path bundled = fs::read_symlink("/proc/self/exe").parent_path() / name;
  std::ofstream(temporary, std::ios::binary) << "\x01\x02\x03";
  std::ofstream(bundled, std::ios::binary) << "";
  // Any type with the two accessors of a file URL will do; vkq::platform::URL is one.
  struct FileURL {
    fs::path path;
    bool isFile = true;
    bool isFileURL() const { return isFile; }
    std::string filePath() const { return path.string(); }
  };
  const auto fromFile = [](const fs::path& path) { return NRDByteArray::initWithUrl(FileURL{path}, true); };
  EXPECT_THAT(fromFile(temporary)->data(), Pointee(ElementsAre(1, 2, 3)));
  EXPECT_TRUE(fromFile(temporary)->bigEndian());
  EXPECT_THAT(fromFile(bundled)->data(), Pointee(ElementsAre())) << "an empty file is an empty buffer";
  EXPECT_THAT(NRDByteArray::initWithName(name, true)->data(), Pointee(ElementsAre())) << "beside the executable";
  EXPECT_EQ(NRDByteArray::initWithName("codec-no-such-resource.bin", true)->data(), nullptr);
  EXPECT_EQ(fromFile(temporary.parent_path() / "codec-missing.bin")->data(), nullptr);
  EXPECT_EQ(fromFile(temporary.parent_path())->data(), nullptr) << "a folder";
  EXPECT_EQ(NRDByteArray::initWithUrl(FileURL{temporary, false}, false)->data(), nullptr) << "no network transfers";
  fs::remove(temporary);
  fs::remove(bundled);
}

// The encoding tests pin every encoding's bytes; here UTF-16 (two bytes for the euro
// sign, four for U+1F600) shows that the encoding and the length prefix are applied.
// The prefix is a native word whatever the array's byte order.
TEST(NRDByteArrayText, TextAndDataRoundTripWithANativeLengthPrefix) {
  const std::string text = "\xE2\x82\xAC\xF0\x9F\x98\x80";
  for (const bool bigEndian : {true, false}) {
    auto array = NRDByteArray::initWithBigEndian(bigEndian);
    array->appendUTFString(text, true, NRDStringEncoding::UTF16BigEndian);
    array->appendUTFString(text, false, NRDStringEncoding::UTF16BigEndian);
    ASSERT_EQ(array->capacity(), kWord + 12);
    EXPECT_EQ(Bytes(array->data()->begin(), array->data()->begin() + kWord), wordThen(6)) << bigEndian;
    EXPECT_EQ(array->readUTFStringWithEncoding(NRDStringEncoding::UTF16BigEndian), text);
    EXPECT_EQ(array->readUTFStringWithLength(6, NRDStringEncoding::UTF16BigEndian), text);
    array->appendData(Bytes{0x61, 0x62}, true);
    EXPECT_EQ(Bytes(array->data()->end() - kWord - 2, array->data()->end()), wordThen(2, {0x61, 0x62}));
    EXPECT_THAT(array->readData(), Optional(ElementsAre(0x61, 0x62)));
  }
}

TEST(NRDByteArrayText, UnencodableTextLeavesOnlyAZeroLengthOrNothing) {
  auto array = NRDByteArray::initWithBigEndian(true);
  array->appendUTFString("caf\xC3\xA9", true, NRDStringEncoding::ASCII);
  array->appendUTFString("caf\xC3\xA9", false, NRDStringEncoding::ASCII);
  array->appendUTFString("\xED\xA0\x80", false, NRDStringEncoding::UTF8);  // a lone surrogate
  EXPECT_EQ(*array->data(), wordThen(0));
  EXPECT_EQ(array->readUTFStringWithEncoding(), "") << "a zero length reads as the empty text";
}

TEST(NRDByteArrayText, ReadWithLengthConsumesUndecodableBytesAndThrowsPastTheEnd) {
  auto array = arrayOf({0xC3, 0x28, 'o', 'k'});
  EXPECT_EQ(array->readUTFStringWithLength(0), "");
  EXPECT_EQ(array->position(), 0u);
  EXPECT_EQ(array->readUTFStringWithLength(2), std::nullopt);
  EXPECT_EQ(array->position(), 2u);
  EXPECT_THROW(array->readUTFStringWithLength(3), std::out_of_range);
  EXPECT_THROW(array->readUTFStringWithLength(SIZE_MAX), std::out_of_range);
  EXPECT_EQ(array->position(), 2u);
  EXPECT_EQ(array->readUTFStringWithLength(2, NRDStringEncoding::ASCII), "ok");
}

}  // namespace
