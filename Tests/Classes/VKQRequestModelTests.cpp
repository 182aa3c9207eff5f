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

TEST(VKQResponseCode, KnowsTheCodesFromMinusFourToZeroAndDescribesAnyCode) {
  const std::pair<std::int64_t, std::optional<std::string>> table[] = {
      {1, std::nullopt}, {0, "Success"}, {-4, "server error"}, {-5, std::nullopt}, {INT64_MIN, std::nullopt},
  };
  for (const auto& [code, msg] : table) EXPECT_EQ(VKQResponseCode::responseCode(code)->msg(), msg) << code;
  EXPECT_EQ(VKQResponseCode::responseCode(7)->description(), "code = 7, msg = (null)");
  EXPECT_EQ(VKQVeskResult::resultWithSuccessData(nullptr, nullptr)->description(),
            "errorCode = (0), errorMsg = (Success)");
}

// The defaults a caller relies on; the rest show in the debug log and on the wire.
TEST(VKQVesk, EachInitializerSetsTheDefaultsOfItsKind) {
  const auto data = std::make_shared<Bytes>(Bytes{1, 2, 3});
  const auto kxp = VKQVesk::initWithKXPUrl("u", data, 0x5A, 3);
  EXPECT_EQ(std::tuple(kxp->requestMethod(), kxp->version(), kxp->xorKey(), kxp->insertAtBeginBody(),
                       kxp->requestHeaderFieldValueDictionary()),
            std::tuple(VKQRequestMethodPOST, 3, 0x5A, 0x2018,
                       std::optional(VKQHeaderDictionary{{"Content-Type", "application/octet-stream"}})));
  EXPECT_EQ(kxp->requestArgument().data(), data);  // the caller's bytes, not a copy
  const auto json = VKQVesk::initWithJSONUrl("u", JSON{{"q", 1}});
  EXPECT_EQ(std::tuple(json->requestMethod(), json->requestSerializerType(), json->responseSerializerType()),
            std::tuple(VKQRequestMethodPOST, VKQRequestSerializerTypeJSON, VKQResponseSerializerTypeJSON));
  // No KXP defaults: a raw, unframed GET.
  const auto download = VKQVesk::initWithDownloadURL("u", "/tmp/f.zip", nullptr);
  EXPECT_EQ(std::tuple(download->requestMethod(), download->nonProtocol(), download->compress(),
                       download->resumableDownloadPath()),
            std::tuple(VKQRequestMethodGET, true, false, "/tmp/f.zip"));
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
