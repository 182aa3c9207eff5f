#include "Classes/Codec/NRDByteArray.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <unistd.h>

namespace {

using ::testing::ElementsAre;
using ::testing::Optional;
using vkq::platform::Bytes;

constexpr std::size_t kWord = NRDByteArray::kWordSize;
static_assert(kWord == 8, "these tests spell out 64-bit length words");

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
    FIELD(Float, readFloat, 1.5f, 0x3F, 0xC0, 0x00, 0x00),                            // 0x3FC00000
    FIELD(Double, readDouble, -2.5, 0xC0, 0x04, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00),  // 0xC004000000000000
};
#undef FIELD

// Each value appended and read back in both orders; a read one byte short throws and
// keeps the cursor.
TEST(NRDByteArray, EveryWidthHasItsLayoutInBothOrdersAndAShortReadThrows) {
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
      array->setData(Bytes(expected.begin() + 1, expected.end()));
      array->setPosition(0);
      EXPECT_EQ(array->position(), expected.size() - 1) << "pulled back to the end, never to 0";
      EXPECT_THROW(field.readsBack(*array), std::out_of_range);
      EXPECT_EQ(array->position(), expected.size() - 1);
    }
  }
  auto array = NRDByteArray::initWithBytes("\x01\x02", 2);
  EXPECT_FALSE(array->bigEndian()) << "raw bytes are in native order";
  array->appendData(*array->data(), false);  // the source moves when the buffer grows
  EXPECT_THAT(*array->data(), ElementsAre(1, 2, 1, 2));
}

// readDataWithLength is checked; a length word is read unchecked, then its bytes checked.
TEST(NRDByteArray, DataReadsAreCheckedButATruncatedLengthWordThrows) {
  auto array = NRDByteArray::initWithData(Bytes{1, 2, 3, 4}, false);
  EXPECT_EQ(array->readDataWithLength(0), std::nullopt);
  EXPECT_THAT(array->readDataWithLength(2), Optional(ElementsAre(1, 2)));
  EXPECT_EQ(array->readDataWithLength(3), std::nullopt) << "only 2 bytes remain";
  EXPECT_EQ(array->readDataWithLength(SIZE_MAX), std::nullopt) << "must not wrap around";
  EXPECT_THROW(array->readData(), std::out_of_range);
  EXPECT_THROW(array->readUTFStringWithLength(SIZE_MAX), std::out_of_range);
  EXPECT_EQ(array->position(), 2u);
  auto tooLong = NRDByteArray::initWithData(wordThen(5, {1, 2}), true);
  EXPECT_EQ(tooLong->readData(), std::nullopt);
  EXPECT_EQ(tooLong->position(), kWord) << "the length word stays consumed";
  tooLong->setData(Bytes{1});
  EXPECT_EQ(tooLong->availableLength(), SIZE_MAX - 6) << "unguarded: 1 - 8 wraps around";
  EXPECT_EQ(tooLong->readDataWithLength(1), std::nullopt) << "nothing to read beyond the end";
}

TEST(NRDByteArray, ReplacementsWriteAtTheCursorOnlyWhatFitsWithNativeWords) {
  auto array = NRDByteArray::initWithLength(kWord + 5, true);
  array->replaceDataBloak(Bytes{1, 2, 3, 4, 5, 6});  // word and 6 bytes: one too many
  array->replaceBytesInsize(SIZE_MAX, "x");          // would wrap around
  EXPECT_EQ(array->position(), 0u);
  array->replaceDataBloak(Bytes{1, 2, 3, 4});
  array->replaceData(Bytes{7, 8});
  array->replaceUInt(1);
  array->replaceData(Bytes{9});
  EXPECT_EQ(*array->data(), wordThen(4, {1, 2, 3, 4, 9}));
  EXPECT_EQ(array->position(), kWord + 5);
}

// Any type with the two accessors of a file URL will do; vkq::platform::URL is one.
struct FileURL {
  std::string path;
  bool isFile = true;
  bool isFileURL() const { return isFile; }
  std::string filePath() const { return path; }
};

TEST(NRDByteArray, FilesAreReadAndAnythingUnreadableGivesNoBuffer) {
  const std::string name = "codec-test-" + std::to_string(::getpid());
  const std::string path = (std::filesystem::read_symlink("/proc/self/exe").parent_path() / name).string();
  std::ofstream(path, std::ios::binary) << "\x01\x02\x03";
  EXPECT_THAT(*NRDByteArray::initWithUrl(FileURL{path}, true)->data(), ElementsAre(1, 2, 3));
  EXPECT_THAT(*NRDByteArray::initWithName(name, false)->data(), ElementsAre(1, 2, 3)) << "beside the executable";
  EXPECT_EQ(NRDByteArray::initWithName("codec-no-such-resource.bin", true)->data(), nullptr);
  EXPECT_EQ(NRDByteArray::initWithUrl(FileURL{"/tmp"}, true)->data(), nullptr) << "a folder";
  EXPECT_EQ(NRDByteArray::initWithUrl(FileURL{path, false}, false)->data(), nullptr) << "no network transfers";
  std::filesystem::remove(path);
}

// The length prefix is a native word whatever the byte order; text that does not encode
// leaves a zero length or nothing; bytes that do not decode are consumed all the same.
TEST(NRDByteArray, TextAndDataCarryANativeLengthPrefix) {
  auto array = NRDByteArray::initWithBigEndian(true);
  array->appendUTFString("\xE2\x82\xAC", true, NRDStringEncoding::UTF16BigEndian);  // the euro sign
  array->appendData(Bytes{0x61, 0x62}, true);
  array->appendUTFString("caf\xC3\xA9", true, NRDStringEncoding::ASCII);
  array->appendUTFString("caf\xC3\xA9", false, NRDStringEncoding::ASCII);
  array->appendData(Bytes{0xC3, 0x28}, false);
  EXPECT_EQ(*array->data(),
            wordThen(2, {0x20, 0xAC, 2, 0, 0, 0, 0, 0, 0, 0, 0x61, 0x62, 0, 0, 0, 0, 0, 0, 0, 0, 0xC3, 0x28}));
  EXPECT_EQ(array->readUTFStringWithEncoding(NRDStringEncoding::UTF16BigEndian), "\xE2\x82\xAC");
  EXPECT_THAT(array->readData(), Optional(ElementsAre(0x61, 0x62)));
  EXPECT_EQ(array->readUTFStringWithEncoding(), "");
  EXPECT_EQ(array->readUTFStringWithLength(0), "");
  EXPECT_EQ(array->readUTFStringWithLength(2), std::nullopt);
  EXPECT_FALSE(array->available()) << "undecodable bytes are consumed";
}

}  // namespace
