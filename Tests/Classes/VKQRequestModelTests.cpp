// The request model: response codes, results, the request's defaults and stored state,
// and the builder's initializers and promises.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <future>

#include "Classes/VKQResponseCode.h"
#include "Classes/VKQVesk.h"
#include "Classes/VKQVeskRequest.h"
#include "Classes/VKQVeskResult.h"
#include "Platform/Assert.h"
#include "Platform/HTTPSessionManager.h"
#include "Platform/URLSessionTask.h"

namespace {

using vkq::platform::Bytes;
using vkq::platform::JSON;
using vkq::platform::Object;

// ---- Response codes and results ----

TEST(VKQResponseCode, KnowsExactlyTheFiveCodesFromMinusFourToZero) {
  const struct {
    std::int64_t code;
    std::optional<std::string> msg;
  } table[] = {
      {1, std::nullopt},      {0, "Success"},         {-1, "network error"}, {-2, "http error"},
      {-3, "protocol error"}, {-4, "server error"},   {-5, std::nullopt},    {INT64_MIN, std::nullopt},
      {INT64_MAX, std::nullopt},
  };
  for (const auto& row : table) EXPECT_EQ(VKQResponseCode::responseCode(row.code)->msg(), row.msg) << row.code;
}

TEST(VKQResponseCode, DescriptionShowsCodeAndMessageOrNull) {
  EXPECT_EQ(VKQResponseCode::responseCode(-3)->description(), "code = -3, msg = protocol error");
  EXPECT_EQ(VKQResponseCode::responseCode(7)->description(), "code = 7, msg = (null)");
}

TEST(VKQVeskResult, FactoriesFillCodeDataAndRequest) {
  auto request = std::make_shared<VKQVeskRequest>();
  const auto bare = VKQVeskResult::resultWithErrorCode(-1);
  EXPECT_EQ(bare->responseCode()->code(), -1);
  EXPECT_TRUE(bare->data().isNull());
  EXPECT_EQ(bare->request(), nullptr);

  const auto failure = VKQVeskResult::resultWithErrorCode(-4, request);
  EXPECT_EQ(failure->responseCode()->code(), -4);
  EXPECT_TRUE(failure->data().isNull());
  EXPECT_EQ(failure->request(), request);

  // A success without data is still a success: the success callback gets no payload.
  const auto empty = VKQVeskResult::resultWithSuccessData(nullptr, request);
  EXPECT_EQ(empty->responseCode()->code(), 0);
  EXPECT_TRUE(empty->data().isNull());
  EXPECT_EQ(empty->request(), request);

  const auto code = VKQResponseCode::responseCode(-2);
  const auto made = VKQVeskResult::initWith(code, Bytes{1, 2}, nullptr);
  EXPECT_EQ(made->responseCode(), code);
  EXPECT_EQ(made->data(), Object(Bytes{1, 2}));
}

TEST(VKQVeskResult, DescriptionReadsAsAnErrorAlsoForSuccess) {
  EXPECT_EQ(VKQVeskResult::resultWithSuccessData(nullptr, nullptr)->description(),
            "errorCode = (0), errorMsg = (Success)");
  EXPECT_EQ(VKQVeskResult::resultWithErrorCode(-4)->debugDescription(), "errorCode = (-4), errorMsg = (server error)");
  EXPECT_EQ(VKQVeskResult::resultWithErrorCode(9)->description(), "errorCode = (9), errorMsg = ((null))");
}

// ---- The request ----

TEST(VKQVeskRequest, BaseClassAnswersTheFixedDefaults) {
  const VKQVeskRequest request;
  EXPECT_EQ(request.url(), "");
  EXPECT_EQ(request.host(), "");
  EXPECT_EQ(request.path(), "");
  EXPECT_EQ(request.requestTimeoutInterval(), 60.0);
  EXPECT_TRUE(request.requestArgument().isNull());
  EXPECT_EQ(request.requestMethod(), VKQRequestMethodPOST);
  EXPECT_EQ(request.requestSerializerType(), VKQRequestSerializerTypeKXP);
  EXPECT_EQ(request.responseSerializerType(), VKQResponseSerializerTypeKXP);
  EXPECT_EQ(request.requestHeaderFieldValueDictionary(), std::nullopt);
  EXPECT_EQ(request.requestAuthorizationHeaderFieldArray(), std::nullopt);
  EXPECT_TRUE(request.allowsCellularAccess());
  EXPECT_EQ(request.version(), 0);
  EXPECT_EQ(request.xorKey(), 0);
  EXPECT_TRUE(request.compress());
  EXPECT_EQ(request.insertAtBeginBody(), 8216);
  EXPECT_TRUE(request.uploadOSType());
  EXPECT_EQ(request.packageName(), std::nullopt);
  EXPECT_EQ(request.releaseVersion(), -1);
  EXPECT_TRUE(request.bigEndian());
  EXPECT_FALSE(request.nonProtocol());
}

TEST(VKQVeskRequest, TaskDerivedStateIsAbsentWithoutATask) {
  const VKQVeskRequest request;
  EXPECT_EQ(request.requestTask(), nullptr);
  EXPECT_EQ(request.response(), nullptr);
  EXPECT_EQ(request.currentRequest(), std::nullopt);
  EXPECT_EQ(request.originalRequest(), std::nullopt);
  EXPECT_EQ(request.responseHeaders(), std::nullopt);
  EXPECT_EQ(request.error(), nullptr);
}

TEST(VKQVeskRequest, DescriptionShowsTheStoredErrorOrTheAnswer) {
  VKQVeskRequest request;
  EXPECT_EQ(request.description(), "SUCCESS: (null)");
  request.setResponseData(Bytes{0xAB, 0x01});
  EXPECT_EQ(request.description(), "SUCCESS: <ab01>");
  request.setError(vkq::platform::makeError("d", 5));
  EXPECT_EQ(request.description(), "FAILURE: " + request.error()->description());
}

TEST(VKQVeskRequest, ErrorFallsBackToTheTasksErrorWhichTheDescriptionDoesNotShow) {
  // Port 1 on the loopback interface refuses the connection at once.
  vkq::platform::URLRequest urlRequest;
  urlRequest.url = vkq::platform::URL::URLWithString("http://127.0.0.1:1/");
  const auto manager = vkq::platform::HTTPSessionManager::manager();
  std::promise<void> completed;
  auto task = manager->dataTaskWithRequest(urlRequest, nullptr, nullptr,
                                           [&](auto, auto, auto) { completed.set_value(); });
  task->resume();
  ASSERT_EQ(completed.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);

  VKQVeskRequest request;
  request.setRequestTask(task);
  ASSERT_NE(task->error(), nullptr);
  EXPECT_EQ(request.error(), task->error());
  EXPECT_EQ(request.description(), "FAILURE: (null)");
}

TEST(VKQVeskRequest, ClearCompletionBlockDropsTheResultCallbacksOnly) {
  VKQVeskRequest request;
  request.setSuccessResultBlock([](auto) {});
  request.setFailureResultBlock([](auto) {});
  request.setCompletionResultBlock([](auto) {});
  request.setResumableDownloadProgressBlock([](const vkq::platform::Progress&) {});
  request.clearCompletionBlock();
  EXPECT_FALSE(request.successResultBlock());
  EXPECT_FALSE(request.failureResultBlock());
  EXPECT_FALSE(request.completionResultBlock());
  EXPECT_TRUE(request.resumableDownloadProgressBlock());
}

TEST(VKQVeskRequest, StartingARequestNotOwnedBySharedPtrIsAProgrammingError) {
  VKQVeskRequest request;
  EXPECT_THROW(request.requestCompletion([](auto) {}), vkq::platform::InternalInconsistencyException);
}

// ---- The builder ----

std::shared_ptr<Bytes> someBytes() { return std::make_shared<Bytes>(Bytes{1, 2, 3}); }

const VKQHeaderDictionary kOctetStream{{"Content-Type", "application/octet-stream"}};

// The KXP settings of defultValue().
void expectKXPDefaults(const VKQVesk& vesk) {
  EXPECT_EQ(vesk.insertAtBeginBody(), 8216);
  EXPECT_TRUE(vesk.compress());
  EXPECT_TRUE(vesk.uploadOSType());
  EXPECT_TRUE(vesk.bigEndian());
  EXPECT_FALSE(vesk.nonProtocol());
  EXPECT_EQ(vesk.packageName(), std::nullopt);
  EXPECT_EQ(vesk.releaseVersion(), -1);
}

TEST(VKQVesk, KXPInitializersApplyTheDefaultsThenTheirArguments) {
  const auto data = someBytes();
  const auto plain = VKQVesk::initWithKXPUrl("http://h/k", data);
  expectKXPDefaults(*plain);
  EXPECT_EQ(plain->url(), "http://h/k");
  EXPECT_EQ(plain->requestArgument(), Object(data));
  EXPECT_EQ(plain->requestArgument().data(), data);  // the same bytes, not a copy
  EXPECT_EQ(plain->requestMethod(), VKQRequestMethodPOST);
  EXPECT_EQ(plain->requestSerializerType(), VKQRequestSerializerTypeKXP);
  EXPECT_EQ(plain->responseSerializerType(), VKQResponseSerializerTypeKXP);
  EXPECT_EQ(plain->xorKey(), 0);
  EXPECT_EQ(plain->version(), 0);
  EXPECT_EQ(plain->requestHeaderFieldValueDictionary(), kOctetStream);

  const auto keyed = VKQVesk::initWithKXPUrl("http://h/k", data, 0x5A, 3);
  expectKXPDefaults(*keyed);
  EXPECT_EQ(keyed->xorKey(), 0x5A);
  EXPECT_EQ(keyed->version(), 3);
  EXPECT_EQ(keyed->requestHeaderFieldValueDictionary(), kOctetStream);
}

TEST(VKQVesk, JSONInitializersSwitchBothSerializersToJSON) {
  const JSON argument{{"q", "x"}};
  const auto post = VKQVesk::initWithJSONUrl("http://h/j", argument);
  expectKXPDefaults(*post);
  EXPECT_EQ(post->requestArgument(), Object(argument));
  EXPECT_EQ(post->requestMethod(), VKQRequestMethodPOST);
  EXPECT_EQ(post->requestSerializerType(), VKQRequestSerializerTypeJSON);
  EXPECT_EQ(post->responseSerializerType(), VKQResponseSerializerTypeJSON);
  EXPECT_EQ(post->requestHeaderFieldValueDictionary(), std::nullopt);

  const auto put = VKQVesk::initWithJSONUrl("http://h/j", argument, VKQRequestMethodPUT);
  EXPECT_EQ(put->requestMethod(), VKQRequestMethodPUT);
  EXPECT_EQ(put->requestSerializerType(), VKQRequestSerializerTypeJSON);
}

TEST(VKQVesk, DownloadInitializerSkipsTheDefaults) {
  const auto vesk = VKQVesk::initWithDownloadURL("http://h/f.zip", "/tmp/f.zip", nullptr);
  EXPECT_EQ(vesk->resumableDownloadPath(), "/tmp/f.zip");
  EXPECT_EQ(vesk->requestSerializerType(), VKQRequestSerializerTypeJSON);
  EXPECT_EQ(vesk->responseSerializerType(), VKQResponseSerializerTypeKXP);
  EXPECT_TRUE(vesk->nonProtocol());
  EXPECT_EQ(vesk->requestMethod(), VKQRequestMethodGET);
  EXPECT_EQ(vesk->url(), "http://h/f.zip");
  EXPECT_FALSE(vesk->compress());
  EXPECT_FALSE(vesk->bigEndian());
  EXPECT_FALSE(vesk->uploadOSType());
  EXPECT_EQ(vesk->releaseVersion(), 0);
  EXPECT_EQ(vesk->insertAtBeginBody(), 0);
  EXPECT_EQ(vesk->requestHeaderFieldValueDictionary(), std::nullopt);
}

TEST(VKQVesk, PlainBuilderHasEveryFieldZeroAndKeepsTheBaseAnswersItDoesNotOverride) {
  const VKQVesk vesk;
  EXPECT_EQ(vesk.requestSerializerType(), VKQRequestSerializerTypeJSON);
  EXPECT_EQ(vesk.requestMethod(), VKQRequestMethodGET);
  EXPECT_FALSE(vesk.compress());
  EXPECT_EQ(vesk.releaseVersion(), 0);
  EXPECT_EQ(vesk.requestTimeoutInterval(), 60.0);
  EXPECT_TRUE(vesk.allowsCellularAccess());
  EXPECT_EQ(vesk.host(), "");
}

TEST(VKQVesk, PromisesChainInOneExpression) {
  auto vesk = VKQVesk::initWithKXPUrl("http://h/k", someBytes());
  const auto end = vesk->compressPromise()(false)
                       ->xorkeyPromise()(0x5A)
                       ->protocolVCPromise()(2)
                       ->insertAtBeginBodyPromise()(0x1234)
                       ->packageNamePromise()("com.example")
                       ->releaseVersionPromise()(0xFFFFFFFE)
                       ->bigEndianPromise()(false)
                       ->uploadOSTypePromise()(false)
                       ->requestMethedPromise()(VKQRequestMethodPATCH)
                       ->responseSerializerTypePromise()(VKQResponseSerializerTypeJSON)
                       ->nonProtocolPromise()();
  EXPECT_EQ(end, vesk);
  EXPECT_FALSE(vesk->compress());
  EXPECT_EQ(vesk->xorKey(), 0x5A);
  EXPECT_EQ(vesk->version(), 2);
  EXPECT_EQ(vesk->insertAtBeginBody(), 0x1234);
  EXPECT_EQ(vesk->packageName(), "com.example");
  EXPECT_EQ(vesk->releaseVersion(), -2);  // bit for bit
  EXPECT_FALSE(vesk->bigEndian());
  EXPECT_FALSE(vesk->uploadOSType());
  EXPECT_EQ(vesk->requestMethod(), VKQRequestMethodPATCH);
  EXPECT_EQ(vesk->responseSerializerType(), VKQResponseSerializerTypeJSON);
  EXPECT_TRUE(vesk->nonProtocol());
}

TEST(VKQVesk, SerializerTypeDecidesWhichFieldIsTheArgument) {
  auto vesk = VKQVesk::initWithJSONUrl("http://h/j", JSON::array({1}));
  vesk->requestSerializerTypePromise()(VKQRequestSerializerTypeKXP);
  EXPECT_TRUE(vesk->requestArgument().isNull());  // no request bytes were set
  vesk->setRequestData(someBytes());
  EXPECT_EQ(vesk->requestArgument(), Object(Bytes{1, 2, 3}));
  vesk->requestSerializerTypePromise()(static_cast<VKQRequestSerializerType>(7));
  EXPECT_EQ(vesk->requestArgument(), Object(JSON::array({1})));
}

TEST(VKQVesk, HeadersPromiseReplacesTheWholeDictionary) {
  auto vesk = VKQVesk::initWithKXPUrl("http://h/k", someBytes());
  vesk->headersPromise()(VKQHeaderDictionary{{"X-A", "1"}});
  EXPECT_EQ(vesk->requestHeaderFieldValueDictionary(), (VKQHeaderDictionary{{"X-A", "1"}}));
  vesk->headersPromise()(std::nullopt);
  EXPECT_EQ(vesk->requestHeaderFieldValueDictionary(), std::nullopt);
}

TEST(VKQVesk, GETAndPOSTSetTheMethodAndTheLastReadWins) {
  auto vesk = VKQVesk::initWithJSONUrl("http://h/j", nullptr);
  EXPECT_EQ(vesk->GET(), vesk);
  EXPECT_EQ(vesk->requestMethod(), VKQRequestMethodGET);
  vesk->GET()->POST();
  EXPECT_EQ(vesk->requestMethod(), VKQRequestMethodPOST);
  vesk->POST()->GET()->headersPromise()(kOctetStream);
  EXPECT_EQ(vesk->requestMethod(), VKQRequestMethodGET);
  EXPECT_EQ(vesk->requestHeaderFieldValueDictionary(), kOctetStream);
}

TEST(VKQVesk, PromisesHoldTheBuilderWeaklyAndDoNothingOnceItIsGone) {
  auto vesk = VKQVesk::initWithKXPUrl("http://h/k", someBytes());
  const std::weak_ptr<VKQVesk> watch = vesk;
  auto setKey = vesk->xorkeyPromise();
  auto switchOff = vesk->nonProtocolPromise();
  vesk.reset();
  EXPECT_TRUE(watch.expired());  // the callables did not keep it alive
  EXPECT_EQ(setKey(0x11), nullptr);
  EXPECT_EQ(switchOff(), nullptr);
}

TEST(VKQVesk, PromisesOfABuilderNotOwnedBySharedPtrDoNothing) {
  VKQVesk vesk;
  EXPECT_EQ(vesk.compressPromise()(true), nullptr);
  EXPECT_FALSE(vesk.compress());
  EXPECT_EQ(vesk.GET(), nullptr);
}

}  // namespace
