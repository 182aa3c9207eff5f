// The request model: response codes and results, and the builder's initializers and
// promises.
#include <gtest/gtest.h>

#include <tuple>

#include "Classes/VKQVesk.h"
#include "Classes/VKQVeskResult.h"
#include "Platform/Base/Assert.h"

namespace {

using vkq::platform::Bytes;
using vkq::platform::JSON;

TEST(VKQResponseCode, KnowsExactlyTheFiveCodesFromMinusFourToZeroAndDescribesAnyCode) {
  const std::pair<std::int64_t, std::optional<std::string>> table[] = {
      {1, std::nullopt},      {0, "Success"},       {-1, "network error"}, {-2, "http error"},
      {-3, "protocol error"}, {-4, "server error"}, {-5, std::nullopt},    {INT64_MIN, std::nullopt},
  };
  for (const auto& [code, msg] : table) EXPECT_EQ(VKQResponseCode::responseCode(code)->msg(), msg) << code;
  EXPECT_EQ(VKQResponseCode::responseCode(7)->description(), "code = 7, msg = (null)");
  EXPECT_EQ(VKQVeskResult::resultWithSuccessData(nullptr, nullptr)->description(),
            "errorCode = (0), errorMsg = (Success)");
  EXPECT_EQ(VKQVeskResult::resultWithErrorCode(-3)->debugDescription(),
            "errorCode = (-3), errorMsg = (protocol error)");
}

// Everything an initializer decides, as one comparable (and printable) value: method,
// request and response serializer, version, key, compress, begin marker, OS type,
// package name, release version, big-endian, nonProtocol, header fields.
using Settings = std::tuple<VKQRequestMethod, VKQRequestSerializerType, VKQResponseSerializerType, int, int, bool,
                            int, bool, std::optional<std::string>, std::int32_t, bool, bool,
                            std::optional<VKQHeaderDictionary>>;

Settings settingsOf(const VKQVeskRequest& r) {
  return {r.requestMethod(), r.requestSerializerType(), r.responseSerializerType(), r.version(), r.xorKey(),
          r.compress(),      r.insertAtBeginBody(),     r.uploadOSType(),           r.packageName(), r.releaseVersion(),
          r.bigEndian(),     r.nonProtocol(),           r.requestHeaderFieldValueDictionary()};
}

TEST(VKQVesk, EachInitializerStartsFromItsOwnDefaults) {
  constexpr auto GET = VKQRequestMethodGET, POST = VKQRequestMethodPOST;
  constexpr auto JSONIn = VKQRequestSerializerTypeJSON, KXPIn = VKQRequestSerializerTypeKXP;
  constexpr auto JSONOut = VKQResponseSerializerTypeJSON, KXPOut = VKQResponseSerializerTypeKXP;
  const auto none = std::nullopt;
  const VKQHeaderDictionary octets{{"Content-Type", "application/octet-stream"}};
  const auto data = std::make_shared<Bytes>(Bytes{1, 2, 3});
  const std::tuple<const char*, std::shared_ptr<VKQVeskRequest>, Settings> table[] = {
      {"base", std::make_shared<VKQVeskRequest>(),
       {POST, KXPIn, KXPOut, 0, 0, true, 0x2018, true, none, -1, true, false, none}},
      // Every field zero.
      {"builder", std::make_shared<VKQVesk>(),
       {GET, JSONIn, JSONOut, 0, 0, false, 0, false, none, 0, false, false, none}},
      {"KXP", VKQVesk::initWithKXPUrl("u", data, 0x5A, 3),
       {POST, KXPIn, KXPOut, 3, 0x5A, true, 0x2018, true, none, -1, true, false, octets}},
      {"JSON", VKQVesk::initWithJSONUrl("u", JSON{{"q", 1}}),
       {POST, JSONIn, JSONOut, 0, 0, true, 0x2018, true, none, -1, true, false, none}},
      // No KXP defaults: a raw, unframed GET.
      {"download", VKQVesk::initWithDownloadURL("u", "/tmp/f.zip", nullptr),
       {GET, JSONIn, KXPOut, 0, 0, false, 0, false, none, 0, false, true, none}},
  };
  for (const auto& [name, request, expected] : table) EXPECT_EQ(settingsOf(*request), expected) << name;
  EXPECT_EQ(std::pair(VKQVeskRequest().requestTimeoutInterval(), VKQVeskRequest().allowsCellularAccess()),
            std::pair(60.0, true));
  EXPECT_EQ(std::get<1>(table[2])->requestArgument().data(), data);  // the caller's bytes, not a copy
  EXPECT_EQ(std::get<1>(table[4])->resumableDownloadPath(), "/tmp/f.zip");
}

TEST(VKQVesk, PromisesHoldTheBuilderWeaklyAndNothingWorksWithoutAnOwner) {
  auto vesk = VKQVesk::initWithKXPUrl("http://h/k", nullptr);
  const std::weak_ptr<VKQVesk> watch = vesk;
  auto setKey = vesk->xorkeyPromise();
  vesk.reset();
  EXPECT_TRUE(watch.expired());  // the callable did not keep it alive
  EXPECT_EQ(setKey(0x11), nullptr);
  VKQVesk unowned;
  EXPECT_EQ(unowned.compressPromise()(true), nullptr);
  EXPECT_FALSE(unowned.compress());
  EXPECT_THROW(unowned.requestCompletion([](auto) {}), vkq::platform::InternalInconsistencyException);  // no owner
}

}  // namespace
