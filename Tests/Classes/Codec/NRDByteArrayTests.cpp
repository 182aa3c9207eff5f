#include "Classes/Codec/NRDByteArray.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

#include <unistd.h>

#include "Platform/Assert.h"
#include "Platform/URL.h"

namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using vkq::platform::Bytes;
using vkq::platform::URL;

constexpr std::size_t kWord = NRDByteArray::kWordSize;

static_assert(kWord == 8, "these tests spell out 64-bit length words");

std::shared_ptr<NRDByteArray> arrayOf(const Bytes& bytes, bool bigEndian) {
  return NRDByteArray::initWithData(bytes, bigEndian);
}

// The native-order (little-endian) bytes of a machine word.
Bytes wordBytes(std::size_t value) {
  Bytes bytes(kWord);
  for (std::size_t i = 0; i < kWord; ++i) bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
  return bytes;
}

Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

void writeFile(const std::filesystem::path& path, const Bytes& contents) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(contents.data()),
                                              static_cast<std::streamsize>(contents.size()));
}

// A uniquely named file that is removed at the end of the test.
struct TemporaryFile {
  explicit TemporaryFile(const std::filesystem::path& directory, const Bytes& contents)
      : path(directory / ("codec-test-" + std::to_string(::getpid()) + "-" + std::to_string(counter++) + ".bin")) {
    writeFile(path, contents);
  }
  ~TemporaryFile() { std::filesystem::remove(path); }
  std::filesystem::path path;
  static inline int counter = 0;
};

// --- Byte order

TEST(NRDByteArrayByteOrder, MixedWidthsLayOutMostSignificantFirstOnlyWhenBigEndian) {
  for (const bool bigEndian : {true, false}) {
    auto array = NRDByteArray::initWithBigEndian(bigEndian);
    array->appendUInt16(0x1234);
    array->appendUInt32(1);
    array->appendUInt8(0xFF);
    if (bigEndian) {
      EXPECT_THAT(*array->data(), ElementsAre(0x12, 0x34, 0x00, 0x00, 0x00, 0x01, 0xFF));
    } else {
      EXPECT_THAT(*array->data(), ElementsAre(0x34, 0x12, 0x01, 0x00, 0x00, 0x00, 0xFF));
    }
  }
}

// One value of every width. `bigEndianBytes` is its layout most significant byte first;
// the little-endian layout is the same bytes reversed (one-byte values are the same).
struct Field {
  const char* name;
  void (*append)(NRDByteArray&);
  bool (*readsBack)(NRDByteArray&);
  Bytes bigEndianBytes;
};

const std::vector<Field> kEveryWidth = {
    {"bool", [](NRDByteArray& a) { a.appendBool(true); }, [](NRDByteArray& a) { return a.readBool(); }, {0x01}},
    {"uint8", [](NRDByteArray& a) { a.appendUInt8(0xAB); }, [](NRDByteArray& a) { return a.readUInt8() == 0xAB; },
     {0xAB}},
    {"sint8", [](NRDByteArray& a) { a.appendSInt8(-2); }, [](NRDByteArray& a) { return a.readSInt8() == -2; }, {0xFE}},
    {"uint16", [](NRDByteArray& a) { a.appendUInt16(0x0102); },
     [](NRDByteArray& a) { return a.readUInt16() == 0x0102; }, {0x01, 0x02}},
    {"sint16", [](NRDByteArray& a) { a.appendSInt16(-300); }, [](NRDByteArray& a) { return a.readSInt16() == -300; },
     {0xFE, 0xD4}},
    {"uint32", [](NRDByteArray& a) { a.appendUInt32(0x01020304); },
     [](NRDByteArray& a) { return a.readUInt32() == 0x01020304; }, {0x01, 0x02, 0x03, 0x04}},
    {"sint32", [](NRDByteArray& a) { a.appendSInt32(INT32_MIN); },
     [](NRDByteArray& a) { return a.readSInt32() == INT32_MIN; }, {0x80, 0x00, 0x00, 0x00}},
    {"uint64", [](NRDByteArray& a) { a.appendUInt64(0x0102030405060708); },
     [](NRDByteArray& a) { return a.readUInt64() == 0x0102030405060708; },
     {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08}},
    {"sint64", [](NRDByteArray& a) { a.appendSInt64(-2); }, [](NRDByteArray& a) { return a.readSInt64() == -2; },
     {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}},
    {"uint", [](NRDByteArray& a) { a.appendUInt(SIZE_MAX - 1); },
     [](NRDByteArray& a) { return a.readUInt() == SIZE_MAX - 1; }, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}},
    {"int", [](NRDByteArray& a) { a.appendSInt(-0x0102); }, [](NRDByteArray& a) { return a.readInt() == -0x0102; },
     {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE, 0xFE}},
    // 1.5f is 0x3FC00000, -2.5 is 0xC004000000000000.
    {"float", [](NRDByteArray& a) { a.appendFloat(1.5f); }, [](NRDByteArray& a) { return a.readFloat() == 1.5f; },
     {0x3F, 0xC0, 0x00, 0x00}},
    {"double", [](NRDByteArray& a) { a.appendDouble(-2.5); }, [](NRDByteArray& a) { return a.readDouble() == -2.5; },
     {0xC0, 0x04, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}},
};

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

// --- Length prefixes: machine words in native order whatever the byte order

TEST(NRDByteArrayLengthPrefix, IsNeverReordered) {
  for (const bool bigEndian : {true, false}) {
    auto array = NRDByteArray::initWithBigEndian(bigEndian);
    array->appendData(Bytes{0x61, 0x62}, true);
    EXPECT_EQ(*array->data(), concat({wordBytes(2), {0x61, 0x62}}));
    EXPECT_THAT(array->readData(), ::testing::Optional(ElementsAre(0x61, 0x62)));
    EXPECT_EQ(array->position(), kWord + 2);
  }
}

TEST(NRDByteArrayLengthPrefix, DiffersFromAnOrderedWordInBigEndianArrays) {
  auto array = NRDByteArray::initWithBigEndian(true);
  array->appendLength(1);
  array->appendUInt(1);
  EXPECT_EQ(*array->data(), concat({wordBytes(1), {0, 0, 0, 0, 0, 0, 0, 1}}));
}

TEST(NRDByteArrayLengthPrefix, AppendingTheBufferToItselfDoublesIt) {
  auto array = arrayOf({1, 2, 3}, false);
  array->appendData(*array->data(), false);
  EXPECT_THAT(*array->data(), ElementsAre(1, 2, 3, 1, 2, 3));
}

TEST(NRDByteArrayLengthPrefix, EmptyBytesAreZerosAtTheEnd) {
  auto array = arrayOf({9}, false);
  array->appendEmptyBytesWithLength(3);
  EXPECT_THAT(*array->data(), ElementsAre(9, 0, 0, 0));
  EXPECT_EQ(array->position(), 0u);
}

// --- Checked and unchecked reads

TEST(NRDByteArrayReads, OverlongFixedWidthReadsThrowAndKeepTheCursor) {
  for (const auto& field : kEveryWidth) {
    SCOPED_TRACE(field.name);
    // One byte short of the value, after one byte already read.
    Bytes bytes(field.bigEndianBytes.size(), 0xAA);
    auto array = arrayOf(bytes, true);
    array->readUInt8();
    EXPECT_THROW(field.readsBack(*array), std::out_of_range);
    EXPECT_EQ(array->position(), 1u);
  }
}

TEST(NRDByteArrayReads, GetBytesCopiesExactlyOrThrows) {
  auto array = arrayOf({1, 2, 3, 4}, false);
  std::uint8_t out[3] = {};
  array->getBytes(out, 3);
  EXPECT_THAT(out, ElementsAre(1, 2, 3));
  EXPECT_THAT([&] { array->getBytes(out, 2); },
              ::testing::ThrowsMessage<std::out_of_range>(
                  HasSubstr("cannot read 2 bytes at position 3 of a buffer of 4 bytes")));
  EXPECT_EQ(array->position(), 3u);
  array->getBytes(nullptr, 0);
  EXPECT_EQ(array->position(), 3u);
}

TEST(NRDByteArrayReads, DataWithLengthIsCheckedAndNeverThrows) {
  auto array = arrayOf({1, 2, 3, 4}, false);
  EXPECT_EQ(array->readDataWithLength(0), std::nullopt);
  EXPECT_EQ(array->position(), 0u);
  EXPECT_THAT(array->readDataWithLength(2), ::testing::Optional(ElementsAre(1, 2)));
  EXPECT_EQ(array->readDataWithLength(3), std::nullopt) << "only 2 bytes remain";
  EXPECT_EQ(array->readDataWithLength(SIZE_MAX), std::nullopt);
  EXPECT_EQ(array->position(), 2u);
  EXPECT_THAT(array->readDataWithLength(2), ::testing::Optional(ElementsAre(3, 4)));
}

TEST(NRDByteArrayReads, LengthWordThatIsTruncatedThrowsAndOneThatIsTooLongIsConsumed) {
  auto truncated = arrayOf({2, 0, 0}, false);
  EXPECT_THROW(truncated->readData(), std::out_of_range);
  EXPECT_THROW(truncated->readUTFStringWithEncoding(), std::out_of_range);
  EXPECT_EQ(truncated->position(), 0u);

  auto tooLong = arrayOf(concat({wordBytes(5), {1, 2}}), true);
  EXPECT_EQ(tooLong->readData(), std::nullopt);
  EXPECT_EQ(tooLong->position(), kWord);
}

TEST(NRDByteArrayReads, CursorBeyondTheEndAfterSetDataReadsNothing) {
  auto array = arrayOf(Bytes(10, 7), false);
  array->readUInt64();
  array->setData(Bytes{1, 2});
  EXPECT_EQ(array->position(), 8u) << "setData keeps the cursor";
  EXPECT_FALSE(array->available());
  EXPECT_EQ(array->availableLength(), SIZE_MAX - 5) << "unguarded: 2 - 8 wraps around";
  EXPECT_THROW(array->readUInt8(), std::out_of_range);
  EXPECT_EQ(array->readDataWithLength(1), std::nullopt);
  EXPECT_THROW(array->readUTFStringWithLength(1), std::out_of_range);
  EXPECT_EQ(array->position(), 8u);
}

// --- Replacement at the cursor

TEST(NRDByteArrayReplace, BlockFitsExactlyOrChangesNothing) {
  auto array = NRDByteArray::initWithLength(12, true);
  array->replaceDataBloak(Bytes{1, 2, 3, 4, 5});
  EXPECT_EQ(*array->data(), Bytes(12, 0));
  EXPECT_EQ(array->position(), 0u);

  array->replaceDataBloak(Bytes{1, 2, 3, 4});
  EXPECT_EQ(*array->data(), concat({wordBytes(4), {1, 2, 3, 4}}));
  EXPECT_EQ(array->position(), 12u);
}

TEST(NRDByteArrayReplace, BytesOverwriteAtTheCursorOnlyWhenTheyFit) {
  auto array = arrayOf({0, 0, 0, 0}, true);
  array->readUInt8();
  array->replaceData(Bytes{7, 8, 9, 10});
  EXPECT_THAT(*array->data(), ElementsAre(0, 0, 0, 0));
  EXPECT_EQ(array->position(), 1u);
  array->replaceData(Bytes{7, 8, 9});
  EXPECT_THAT(*array->data(), ElementsAre(0, 7, 8, 9));
  EXPECT_EQ(array->position(), 4u);
  array->replaceBytesInsize(SIZE_MAX, "x");  // would wrap around: does not fit
  EXPECT_EQ(array->position(), 4u);
}

TEST(NRDByteArrayReplace, WordIsNeverReordered) {
  auto array = NRDByteArray::initWithLength(kWord + 1, true);
  array->replaceUInt(0x0102);
  EXPECT_EQ(*array->data(), concat({wordBytes(0x0102), {0}}));
  array->replaceUInt(1);
  EXPECT_EQ(array->position(), kWord) << "a second word does not fit";
}

// --- The cursor

TEST(NRDByteArrayPosition, SetPositionOnlyPullsAnOverrunCursorBackToTheEnd) {
  auto fresh = NRDByteArray::initWithLength(10, false);
  fresh->setPosition(5);
  EXPECT_EQ(fresh->position(), 0u) << "never moves forward";

  fresh->readUInt32();
  fresh->setPosition(0);
  EXPECT_EQ(fresh->position(), 4u) << "never moves to a chosen place";

  fresh->setData(Bytes{1, 2});
  fresh->setPosition(123);
  EXPECT_EQ(fresh->position(), 2u);
  EXPECT_EQ(fresh->availableLength(), 0u);
}

// --- Initializers and the no-buffer state

TEST(NRDByteArrayInit, InitializersSetBufferAndOrder) {
  auto zeros = NRDByteArray::initWithLength(3, true);
  EXPECT_EQ(*zeros->data(), Bytes(3, 0));
  EXPECT_TRUE(zeros->bigEndian());

  Bytes source{1, 2};
  auto copy = NRDByteArray::initWithData(source, false);
  source[0] = 9;
  EXPECT_THAT(*copy->data(), ElementsAre(1, 2)) << "a copy, not a view";

  auto empty = NRDByteArray::initWithBigEndian(true);
  ASSERT_NE(empty->data(), nullptr) << "empty is a buffer, unlike no buffer";
  EXPECT_EQ(empty->capacity(), 0u);
  EXPECT_TRUE(empty->bigEndian());

  EXPECT_EQ(NRDByteArray::initWithBytes(nullptr, 0)->capacity(), 0u);

  auto raw = NRDByteArray::initWithBytes("\x01\x02\x01\x02", 4);
  EXPECT_FALSE(raw->bigEndian()) << "raw bytes always start in native order";
  EXPECT_EQ(raw->readUInt16(), 0x0201);
  raw->setBigEndian(true);
  EXPECT_EQ(raw->readUInt16(), 0x0102);
}

TEST(NRDByteArrayInit, NullBytesWithALengthAreAProgrammingError) {
  EXPECT_THROW(NRDByteArray::initWithBytes(nullptr, 1), vkq::platform::InternalInconsistencyException);
}

TEST(NRDByteArrayInit, DataIsTheBufferItself) {
  auto array = NRDByteArray::initWithLength(2, false);
  array->data()->push_back(5);
  EXPECT_EQ(array->capacity(), 3u);
  EXPECT_EQ(array->readDataWithLength(3), (Bytes{0, 0, 5}));
}

TEST(NRDByteArrayInit, NoBufferDropsAppendsAndReadsNothing) {
  auto array = NRDByteArray::initWithBigEndian(false);
  array->setData(std::nullopt);
  EXPECT_EQ(array->data(), nullptr);
  array->appendUInt32(1);
  array->appendData(Bytes{1, 2}, true);
  array->appendUTFString("abc", true);
  array->appendEmptyBytesWithLength(4);
  EXPECT_EQ(array->capacity(), 0u);
  EXPECT_FALSE(array->available());
  EXPECT_THROW(array->readUInt8(), std::out_of_range);
  EXPECT_EQ(array->readDataWithLength(1), std::nullopt);
  array->replaceData(Bytes{1});
  EXPECT_EQ(array->position(), 0u);
}

TEST(NRDByteArrayInit, FileURLIsReadAndAnythingUnreadableGivesNoBuffer) {
  const auto directory = std::filesystem::temp_directory_path();
  TemporaryFile file(directory, {1, 2, 3});
  auto array = NRDByteArray::initWithUrl(URL::fileURLWithPath(file.path.string()), true);
  ASSERT_NE(array->data(), nullptr);
  EXPECT_THAT(*array->data(), ElementsAre(1, 2, 3));
  EXPECT_TRUE(array->bigEndian());

  EXPECT_EQ(NRDByteArray::initWithUrl(URL::fileURLWithPath((directory / "codec-missing.bin").string()), false)->data(),
            nullptr);
  EXPECT_EQ(NRDByteArray::initWithUrl(URL::fileURLWithPath(directory.string(), true), false)->data(), nullptr)
      << "a folder";
  EXPECT_EQ(NRDByteArray::initWithUrl(*URL::URLWithString("https://example.com/a.bin"), false)->data(), nullptr)
      << "no network transfers";
}

TEST(NRDByteArrayInit, EmptyFileIsAnEmptyBufferNotNoBuffer) {
  TemporaryFile file(std::filesystem::temp_directory_path(), {});
  auto array = NRDByteArray::initWithUrl(URL::fileURLWithPath(file.path.string()), false);
  ASSERT_NE(array->data(), nullptr);
  EXPECT_EQ(array->capacity(), 0u);
}

TEST(NRDByteArrayInit, NameIsLookedUpBesideTheExecutable) {
  const auto bundle = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  TemporaryFile file(bundle, {4, 5});
  auto array = NRDByteArray::initWithName(file.path.filename().string(), true);
  ASSERT_NE(array->data(), nullptr);
  EXPECT_THAT(*array->data(), ElementsAre(4, 5));
  EXPECT_EQ(NRDByteArray::initWithName("codec-no-such-resource.bin", true)->data(), nullptr);
}

// --- Text

TEST(NRDByteArrayText, LengthPrefixedTextRoundTripsInEveryEncoding) {
  const std::vector<std::pair<NRDStringEncoding, std::string>> cases = {
      {NRDStringEncoding::UTF8, "h\xC3\xA9llo \xF0\x9F\x98\x80"},
      {NRDStringEncoding::ASCII, "plain text"},
      {NRDStringEncoding::UTF16LittleEndian, "\xE2\x82\xAC and \xF0\x9F\x98\x80"},
      {NRDStringEncoding::UTF16BigEndian, "\xE2\x82\xAC and \xF0\x9F\x98\x80"},
  };
  for (const auto& [encoding, text] : cases) {
    SCOPED_TRACE(text);
    auto array = NRDByteArray::initWithBigEndian(true);
    array->appendUTFString(text, true, encoding);
    array->appendUTFString(text, false, encoding);
    const std::size_t encodedLength = (array->capacity() - kWord) / 2;
    EXPECT_EQ(array->readUTFStringWithEncoding(encoding), text);
    EXPECT_EQ(array->readUTFStringWithLength(encodedLength, encoding), text);
    EXPECT_FALSE(array->available());
  }
}

TEST(NRDByteArrayText, UnencodableTextLeavesOnlyAZeroLengthOrNothing) {
  auto array = NRDByteArray::initWithBigEndian(true);
  array->appendUTFString("caf\xC3\xA9", true, NRDStringEncoding::ASCII);
  EXPECT_EQ(*array->data(), wordBytes(0));
  array->appendUTFString("caf\xC3\xA9", false, NRDStringEncoding::ASCII);
  array->appendUTFString("\xED\xA0\x80", false, NRDStringEncoding::UTF8);  // a lone surrogate
  EXPECT_EQ(array->capacity(), kWord);
  EXPECT_EQ(array->readUTFStringWithEncoding(), "") << "a zero length reads as the empty text";
}

TEST(NRDByteArrayText, ZeroLengthIsTheEmptyTextWithoutMovingTheCursor) {
  auto array = arrayOf({0xFF}, false);
  EXPECT_EQ(array->readUTFStringWithLength(0), "");
  EXPECT_EQ(array->position(), 0u);
}

TEST(NRDByteArrayText, UndecodableBytesAreAbsentButConsumed) {
  auto array = arrayOf({0xC3, 0x28, 'o', 'k'}, false);
  EXPECT_EQ(array->readUTFStringWithLength(2), std::nullopt);
  EXPECT_EQ(array->position(), 2u);
  EXPECT_EQ(array->readUTFStringWithLength(2, NRDStringEncoding::ASCII), "ok");
}

TEST(NRDByteArrayText, OverlongTextThrowsAndKeepsTheCursor) {
  auto array = arrayOf({'a', 'b'}, false);
  EXPECT_THROW(array->readUTFStringWithLength(3), std::out_of_range);
  EXPECT_THROW(array->readUTFStringWithLength(SIZE_MAX), std::out_of_range);
  EXPECT_EQ(array->position(), 0u);
}

}  // namespace
