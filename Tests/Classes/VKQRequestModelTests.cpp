// The request model: response codes and results, the request's stored state, and the
// builder's initializers and promises.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <tuple>

#include "Classes/VKQResponseCode.h"
#include "Classes/VKQVesk.h"
#include "Classes/VKQVeskResult.h"
#include "Platform/Base/Assert.h"
#include "Platform/Session/HTTPSessionManager.h"
#include "Platform/Session/URLSessionTask.h"

namespace {

using vkq::platform::Bytes;
using vkq::platform::JSON;
using vkq::platform::Object;

TEST(VKQResponseCode, KnowsExactlyTheFiveCodesFromMinusFourToZeroAndDescribesAnyCode) {
  const struct {
    std::int64_t code;
    std::optional<std::string> msg;
  } table[] = {
      {1, std::nullopt},      {0, "Success"},       {-1, "network error"}, {-2, "http error"},
      {-3, "protocol error"}, {-4, "server error"}, {-5, std::nullopt},    {INT64_MIN, std::nullopt},
  };
  for (const auto& row : table) EXPECT_EQ(VKQResponseCode::responseCode(row.code)->msg(), row.msg) << row.code;
  EXPECT_EQ(VKQResponseCode::responseCode(-3)->description(), "code = -3, msg = protocol error");
  EXPECT_EQ(VKQResponseCode::responseCode(7)->description(), "code = 7, msg = (null)");
  EXPECT_EQ(VKQVeskResult::resultWithSuccessData(nullptr, nullptr)->description(),
            "errorCode = (0), errorMsg = (Success)");
  EXPECT_EQ(VKQVeskResult::resultWithErrorCode(9)->debugDescription(), "errorCode = (9), errorMsg = ((null))");
}

TEST(VKQVeskRequest, DescriptionShowsTheStoredErrorOrTheAnswer) {
  VKQVeskRequest request;
  EXPECT_EQ(request.responseHeaders(), std::nullopt);  // no task: no head
  EXPECT_EQ(request.description(), "SUCCESS: (null)");
  request.setResponseData(Bytes{0xAB, 0x01});
  EXPECT_EQ(request.description(), "SUCCESS: <ab01>");
  request.setError(vkq::platform::makeError("d", 5));
  EXPECT_EQ(request.description(), "FAILURE: " + request.error()->description());
}

TEST(VKQVeskRequest, ErrorFallsBackToTheTasksErrorWhichTheDescriptionDoesNotShow) {
  vkq::platform::URLRequest urlRequest;
  urlRequest.url = vkq::platform::URL::URLWithString("http://127.0.0.1:1/");  // refused at once
  const auto manager = vkq::platform::HTTPSessionManager::manager();  // tasks run while it lives
  std::promise<void> completed;
  auto task = manager->dataTaskWithRequest(urlRequest, nullptr, nullptr, [&](auto, auto, auto) { completed.set_value(); });
  task->resume();
  ASSERT_EQ(completed.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);

  VKQVeskRequest request;
  request.setRequestTask(task);
  ASSERT_NE(task->error(), nullptr);
  EXPECT_EQ(request.error(), task->error());
  EXPECT_EQ(request.description(), "FAILURE: (null)");
}

TEST(VKQVeskRequest, ClearCompletionBlockKeepsTheProgressCallback) {
  VKQVeskRequest request;
  request.setResumableDownloadProgressBlock([](const vkq::platform::Progress&) {});
  request.setSuccessResultBlock([](auto) {});
  request.clearCompletionBlock();
  EXPECT_FALSE(request.successResultBlock());
  EXPECT_TRUE(request.resumableDownloadProgressBlock());
}

TEST(VKQVeskRequest, StartingARequestNotOwnedBySharedPtrIsAProgrammingError) {
  VKQVeskRequest request;
  EXPECT_THROW(request.requestCompletion([](auto) {}), vkq::platform::InternalInconsistencyException);
}

// Everything an initializer decides, as one comparable (and printable) value: method,
// request and response serializer, version, key, compress, begin marker, OS type,
// package name, release version, big-endian, nonProtocol, header fields, time-out,
// cellular access.
using Settings = std::tuple<VKQRequestMethod, VKQRequestSerializerType, VKQResponseSerializerType, int, int, bool, int, bool,
                            std::optional<std::string>, std::int32_t, bool, bool, std::optional<VKQHeaderDictionary>, double, bool>;

Settings settingsOf(const VKQVeskRequest& r) {
  return {r.requestMethod(), r.requestSerializerType(), r.responseSerializerType(), r.version(),
          r.xorKey(),        r.compress(),              r.insertAtBeginBody(),      r.uploadOSType(),
          r.packageName(),   r.releaseVersion(),        r.bigEndian(),              r.nonProtocol(),
          r.requestHeaderFieldValueDictionary(), r.requestTimeoutInterval(), r.allowsCellularAccess()};
}

TEST(VKQVesk, EachInitializerStartsFromItsOwnDefaults) {
  constexpr auto GET = VKQRequestMethodGET, POST = VKQRequestMethodPOST, PUT = VKQRequestMethodPUT;
  constexpr auto JSONIn = VKQRequestSerializerTypeJSON, KXPIn = VKQRequestSerializerTypeKXP;
  constexpr auto JSONOut = VKQResponseSerializerTypeJSON, KXPOut = VKQResponseSerializerTypeKXP;
  const VKQHeaderDictionary octets{{"Content-Type", "application/octet-stream"}};
  const auto data = std::make_shared<Bytes>(Bytes{1, 2, 3});
  const struct {
    const char* name;
    std::shared_ptr<VKQVeskRequest> request;
    Settings expected;
  } table[] = {
      {"base request", std::make_shared<VKQVeskRequest>(),
       {POST, KXPIn, KXPOut, 0, 0, true, 0x2018, true, std::nullopt, -1, true, false, std::nullopt, 60.0, true}},
      // Every field zero.
      {"plain builder", std::make_shared<VKQVesk>(),
       {GET, JSONIn, JSONOut, 0, 0, false, 0, false, std::nullopt, 0, false, false, std::nullopt, 60.0, true}},
      // The KXP defaults, then the arguments.
      {"KXP", VKQVesk::initWithKXPUrl("u", data),
       {POST, KXPIn, KXPOut, 0, 0, true, 0x2018, true, std::nullopt, -1, true, false, octets, 60.0, true}},
      {"KXP with key and version", VKQVesk::initWithKXPUrl("u", data, 0x5A, 3),
       {POST, KXPIn, KXPOut, 3, 0x5A, true, 0x2018, true, std::nullopt, -1, true, false, octets, 60.0, true}},
      {"JSON", VKQVesk::initWithJSONUrl("u", JSON{{"q", 1}}),
       {POST, JSONIn, JSONOut, 0, 0, true, 0x2018, true, std::nullopt, -1, true, false, std::nullopt, 60.0, true}},
      {"JSON by PUT", VKQVesk::initWithJSONUrl("u", nullptr, PUT),
       {PUT, JSONIn, JSONOut, 0, 0, true, 0x2018, true, std::nullopt, -1, true, false, std::nullopt, 60.0, true}},
      // No KXP defaults: a raw, unframed GET.
      {"download", VKQVesk::initWithDownloadURL("u", "/tmp/f.zip", nullptr),
       {GET, JSONIn, KXPOut, 0, 0, false, 0, false, std::nullopt, 0, false, true, std::nullopt, 60.0, true}},
  };
  for (const auto& row : table) EXPECT_EQ(settingsOf(*row.request), row.expected) << row.name;

  const auto kxp = VKQVesk::initWithKXPUrl("http://h/k", data);
  EXPECT_EQ(kxp->url(), "http://h/k");
  EXPECT_EQ(kxp->requestArgument().data(), data);  // the caller's bytes, not a copy
  EXPECT_EQ(VKQVesk::initWithJSONUrl("u", JSON{{"q", 1}})->requestArgument(), Object(JSON{{"q", 1}}));
  EXPECT_EQ(VKQVesk::initWithDownloadURL("u", "/tmp/f.zip", nullptr)->resumableDownloadPath(), "/tmp/f.zip");
}

TEST(VKQVesk, PromisesChainInOneExpressionAndSetTheirOwnField) {
  auto vesk = VKQVesk::initWithKXPUrl("http://h/k", nullptr);
  const auto end = vesk->GET()->compressPromise()(false)->xorkeyPromise()(0x5A)->protocolVCPromise()(2)
                       ->insertAtBeginBodyPromise()(0x1234)->packageNamePromise()("com.example")
                       ->releaseVersionPromise()(0xFFFFFFFE)->bigEndianPromise()(false)->uploadOSTypePromise()(false)
                       ->responseSerializerTypePromise()(VKQResponseSerializerTypeJSON)
                       ->headersPromise()(VKQHeaderDictionary{{"X-A", "1"}})->nonProtocolPromise()();
  EXPECT_EQ(end, vesk);
  EXPECT_EQ(settingsOf(*vesk), Settings(VKQRequestMethodGET, VKQRequestSerializerTypeKXP, VKQResponseSerializerTypeJSON,
                                        2, 0x5A, false, 0x1234, false, "com.example", -2 /* bit for bit */, false, true,
                                        VKQHeaderDictionary{{"X-A", "1"}}, 60.0, true));
  vesk->POST()->requestMethedPromise()(VKQRequestMethodPATCH)->headersPromise()(std::nullopt);
  EXPECT_EQ(vesk->requestMethod(), VKQRequestMethodPATCH);
  EXPECT_EQ(vesk->requestHeaderFieldValueDictionary(), std::nullopt);
}

TEST(VKQVesk, SerializerTypeDecidesWhichFieldIsTheArgument) {
  auto vesk = VKQVesk::initWithJSONUrl("u", JSON::array({1}));
  vesk->setRequestData(std::make_shared<Bytes>(Bytes{7}));
  EXPECT_EQ(vesk->requestArgument(), Object(JSON::array({1})));
  vesk->requestSerializerTypePromise()(VKQRequestSerializerTypeKXP);
  EXPECT_EQ(vesk->requestArgument(), Object(Bytes{7}));
}

TEST(VKQVesk, PromisesHoldTheBuilderWeaklyAndDoNothingWithoutIt) {
  auto vesk = VKQVesk::initWithKXPUrl("http://h/k", nullptr);
  const std::weak_ptr<VKQVesk> watch = vesk;
  auto setKey = vesk->xorkeyPromise();
  auto switchOff = vesk->nonProtocolPromise();
  vesk.reset();
  EXPECT_TRUE(watch.expired());  // the callables did not keep it alive
  EXPECT_EQ(setKey(0x11), nullptr);
  EXPECT_EQ(switchOff(), nullptr);

  VKQVesk unowned;
  EXPECT_EQ(unowned.compressPromise()(true), nullptr);
  EXPECT_FALSE(unowned.compress());
  EXPECT_EQ(unowned.GET(), nullptr);
}

}  // namespace
