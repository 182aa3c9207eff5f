#include "Platform/Object.h"

#include <gtest/gtest.h>

#include <variant>

namespace vkq::platform {
namespace {

TEST(Object, CopiesShareTheirBytesAndEqualityComparesKindAndContent) {
  const Object original(Bytes{1, 2});
  const Object copy = original;
  copy.data()->push_back(3);
  EXPECT_EQ(*original.data(), (Bytes{1, 2, 3}));
  EXPECT_EQ(Object(Bytes{1, 2, 3}), original);
  EXPECT_NE(Object(Bytes{1, 2}), original);
  EXPECT_NE(Object(JSON("a")), Object(bytesFromString("a")));  // same content, other kind
}

TEST(Object, AbsenceIsNotJSONNullAndAccessToAnotherKindThrows) {
  EXPECT_FALSE(Object());
  EXPECT_TRUE(Object(std::shared_ptr<Bytes>()).isNull());
  EXPECT_TRUE(Object(JSON(nullptr)).isJSON());
  EXPECT_THROW(Object(URL::fileURLWithPath("/tmp/x")).json(), std::bad_variant_access);
  EXPECT_THROW(Object().data(), std::bad_variant_access);
}

TEST(Object, DescriptionOfEachKind) {
  EXPECT_EQ(Object().description(), "(null)");
  EXPECT_EQ(Object(JSON{{"a", 1}}).description(), "{\"a\":1}");
  EXPECT_EQ(Object(Bytes{0x00, 0x01, 0xab, 0xff, 0x10}).description(), "<0001abff 10>");
  EXPECT_EQ(Object(Bytes{}).description(), "<>");
  EXPECT_EQ(Object(URL::fileURLWithPath("/tmp/x")).description(), "file:///tmp/x");
}

}  // namespace
}  // namespace vkq::platform
