// The JSON serializers: how a request's argument becomes a URL request (URI methods,
// headers, content type, the invalid-parameters error, writing options, copying and
// archiving) and how a JSON answer becomes a result.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <typeinfo>

#include "Classes/Serialization/Request/VKQJSONRequestSerializer.h"
#include "Classes/Serialization/Response/VKQJSONResponseSerializer.h"
#include "Classes/VKQVesk.h"
#include "Classes/VKQVeskResult.h"
#include "Tests/Classes/LogCapture.h"

namespace {

using ::testing::ElementsAre;
using vkq::platform::Bytes;
using vkq::platform::ErrorPtr;
using vkq::platform::JSON;
using vkq::platform::Object;
using vkq::platform::URLRequest;

URLRequest requestFor(std::string method, std::string url = "http://h/j") {
  URLRequest request;
  request.HTTPMethod = std::move(method);
  request.url = vkq::platform::URL::URLWithString(url);
  return request;
}

std::string bodyText(const std::optional<URLRequest>& request) {
  return request && request->HTTPBody ? vkq::platform::stringFromBytes(*request->HTTPBody) : "<no body>";
}

const JSON kArgument{{"name", "a/b"}, {"list", {1, 2}}};

TEST(VKQJSONRequestSerializer, BodyMethodsWithoutParametersGetDefaultsButNoBodyOrType) {
  const auto serializer = VKQJSONRequestSerializer::serializer();
  for (const char* method : {"PUT", "POST", "PATCH"}) {
    const auto result = serializer->requestBySerializingRequest(requestFor(method), Object(), nullptr);
    ASSERT_TRUE(result) << method;
    EXPECT_EQ(result->HTTPBody, std::nullopt) << method;
    EXPECT_EQ(result->valueForHTTPHeaderField("Content-Type"), std::nullopt) << method;
    EXPECT_TRUE(result->valueForHTTPHeaderField("User-Agent")) << method;
  }
}

TEST(VKQJSONRequestSerializer, URIMethodsInAnyCaseGoToTheQueryString) {
  const auto serializer = VKQJSONRequestSerializer::serializer();
  for (const char* method : {"GET", "get", "Head", "DELETE"}) {
    const auto result = serializer->requestBySerializingRequest(requestFor(method), Object(JSON{{"q", "x y"}}), nullptr);
    ASSERT_TRUE(result) << method;
    EXPECT_EQ(result->url->absoluteString(), "http://h/j?q=x%20y") << method;
    EXPECT_EQ(result->HTTPBody, std::nullopt) << method;
    EXPECT_EQ(result->valueForHTTPHeaderField("Content-Type"), std::nullopt) << method;
  }
}

TEST(VKQJSONRequestSerializer, WritesCompactJSONWithEscapedSlashesByDefault) {
  const auto result =
      VKQJSONRequestSerializer::serializer()->requestBySerializingRequest(requestFor("POST"), Object(kArgument), nullptr);
  EXPECT_EQ(bodyText(result), R"({"list":[1,2],"name":"a\/b"})");
  EXPECT_EQ(result->valueForHTTPHeaderField("Content-Type"), "application/json");
  EXPECT_EQ(result->valueForHTTPHeaderField("Content-Length"), std::nullopt);
}

TEST(VKQJSONRequestSerializer, WritingOptionsShapeTheText) {
  const struct {
    std::uint64_t options;
    const char* text;
  } table[] = {
      {VKQJSONWritingWithoutEscapingSlashes, R"({"list":[1,2],"name":"a/b"})"},
      {VKQJSONWritingSortedKeys, R"({"list":[1,2],"name":"a\/b"})"},
      {VKQJSONWritingPrettyPrinted | VKQJSONWritingWithoutEscapingSlashes,
       "{\n  \"list\" : [\n    1,\n    2\n  ],\n  \"name\" : \"a/b\"\n}"},
  };
  for (const auto& row : table) {
    const auto result = VKQJSONRequestSerializer::serializerWithWritingOptions(row.options)
                            ->requestBySerializingRequest(requestFor("POST"), Object(kArgument), nullptr);
    EXPECT_EQ(bodyText(result), row.text) << row.options;
  }
  const auto empties = VKQJSONRequestSerializer::serializerWithWritingOptions(VKQJSONWritingPrettyPrinted)
                           ->requestBySerializingRequest(requestFor("POST"),
                                                         Object(JSON{{"a", JSON::array()}, {"o", JSON::object()}}),
                                                         nullptr);
  EXPECT_EQ(bodyText(empties), "{\n  \"a\" : [],\n  \"o\" : {}\n}");
}

TEST(VKQJSONRequestSerializer, CallersHeadersWinOverDefaultsAndOverTheJSONType) {
  const auto serializer = VKQJSONRequestSerializer::serializer();
  serializer->setValue("serializer", "X-Both");
  URLRequest request = requestFor("POST");
  request.setValueForHTTPHeaderField("caller", "X-Both");
  request.setValueForHTTPHeaderField("text/plain", "Content-Type");
  const auto result = serializer->requestBySerializingRequest(request, Object(kArgument), nullptr);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->valueForHTTPHeaderField("X-Both"), "caller");
  EXPECT_EQ(result->valueForHTTPHeaderField("Content-Type"), "text/plain");
  EXPECT_TRUE(result->HTTPBody);
}

TEST(VKQJSONRequestSerializer, ParametersThatAreNotAJSONContainerFail) {
  const auto serializer = VKQJSONRequestSerializer::serializer();
  const Object invalid[] = {
      Object(JSON("text")),
      Object(JSON(42)),
      Object(JSON(true)),
      Object(Bytes{1, 2}),
      Object(JSON::array({1.0, std::nan("")})),
      Object(JSON{{"bytes", JSON::binary({1, 2})}}),
  };
  for (const Object& parameters : invalid) {
    ErrorPtr error;
    EXPECT_EQ(serializer->requestBySerializingRequest(requestFor("POST"), parameters, &error), std::nullopt)
        << parameters.description();
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), vkq::platform::kURLRequestSerializationErrorDomain);
    EXPECT_EQ(error->code(), -1016);
    EXPECT_EQ(error->userInfo().localizedFailureReason, "The `parameters` argument is not valid JSON.");
    EXPECT_EQ(serializer->requestBySerializingRequest(requestFor("POST"), parameters, nullptr), std::nullopt);
  }
}

TEST(VKQJSONRequestSerializer, WriterFailureReachesTheCaller) {
  ErrorPtr error;
  const JSON badText = JSON::array({std::string("\xFF\xFE")});
  EXPECT_EQ(VKQJSONRequestSerializer::serializer()->requestBySerializingRequest(requestFor("POST"), Object(badText),
                                                                               &error),
            std::nullopt);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), VKQJSONWritingErrorDomain);
}

TEST(VKQJSONRequestSerializer, FactoriesBindRequestsAndOptions) {
  auto vesk = VKQVesk::initWithJSONUrl("http://h/j", nullptr);
  const auto bound = VKQJSONRequestSerializer::serializerWithRequest(vesk);
  EXPECT_EQ(bound->request(), vesk);
  EXPECT_EQ(bound->writingOptions(), 0u);
  EXPECT_EQ(VKQJSONRequestSerializer::serializerWithWritingOptions(9)->writingOptions(), 9u);

  const auto plain = VKQHTTPRequestSerializer::serializerWithRequest(vesk);
  EXPECT_EQ(typeid(*plain), typeid(VKQHTTPRequestSerializer));
  EXPECT_EQ(plain->request(), vesk);
}

TEST(VKQJSONRequestSerializer, CopyKeepsWritingOptionsAndSettingsButNotTheRequest) {
  const auto serializer = VKQJSONRequestSerializer::serializerWithRequest(VKQVesk::initWithJSONUrl("u", nullptr));
  serializer->setWritingOptions(VKQJSONWritingPrettyPrinted);
  serializer->setTimeoutInterval(12.5);
  const auto copy = std::dynamic_pointer_cast<VKQJSONRequestSerializer>(serializer->copy());
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->writingOptions(), VKQJSONWritingPrettyPrinted);
  EXPECT_EQ(copy->timeoutInterval(), 12.5);
  EXPECT_EQ(copy->request(), nullptr);
}

TEST(VKQJSONRequestSerializer, ArchiveKeepsWritingOptionsAfterTheBaseSettings) {
  const auto serializer = VKQJSONRequestSerializer::serializerWithWritingOptions(
      VKQJSONWritingPrettyPrinted | VKQJSONWritingWithoutEscapingSlashes);
  serializer->setValue("v", "X-Kept");
  serializer->setAllowsCellularAccess(false);
  vkq::platform::KeyedArchiver coder;
  serializer->encodeWithCoder(coder);
  const Bytes archive = coder.encodedData();

  const auto restored = VKQJSONRequestSerializer::unarchive(archive);
  ASSERT_NE(restored, nullptr);
  EXPECT_EQ(restored->writingOptions(), VKQJSONWritingPrettyPrinted | VKQJSONWritingWithoutEscapingSlashes);
  EXPECT_EQ(restored->valueForHTTPHeaderField("X-Kept"), "v");
  EXPECT_FALSE(restored->allowsCellularAccess());
  EXPECT_EQ(vkq::platform::KeyedUnarchiver::unarchiverWithData(archive)->decodeInteger("writingOptions"),
            VKQJSONWritingPrettyPrinted | VKQJSONWritingWithoutEscapingSlashes);
}

TEST(VKQJSONRequestSerializer, ArchiveWithoutWritingOptionsGivesZeroAndGarbageGivesNothing) {
  vkq::platform::KeyedArchiver coder;
  vkq::platform::HTTPRequestSerializer::serializer()->encodeWithCoder(coder);
  const auto restored = VKQJSONRequestSerializer::unarchive(coder.encodedData());
  ASSERT_NE(restored, nullptr);
  EXPECT_EQ(restored->writingOptions(), 0u);

  EXPECT_EQ(VKQJSONRequestSerializer::unarchive(Bytes{1, 2, 3}), nullptr);
  vkq::platform::KeyedArchiver empty;
  EXPECT_EQ(VKQJSONRequestSerializer::unarchive(empty.encodedData()), nullptr);
}

// ---- The JSON decoder ----

// A request that replays a recorded answer head.
class RecordedRequest : public VKQVesk {
 public:
  RecordedRequest(int status, std::optional<std::string> contentType, std::string body) {
    auto head = std::make_shared<vkq::platform::HTTPResponse>();
    head->statusCode = status;
    if (contentType) head->allHeaderFields.set("Content-Type", *contentType);
    head_ = std::move(head);
    setResponseData(Object(vkq::platform::bytesFromString(body)));
  }
  std::shared_ptr<const vkq::platform::HTTPResponse> response() const override { return head_; }

 private:
  std::shared_ptr<const vkq::platform::HTTPResponse> head_;
};

std::shared_ptr<VKQVeskResult> decode(const std::shared_ptr<VKQVeskRequest>& request, ErrorPtr transportError = nullptr) {
  return VKQJSONResponseSerializer::serializer()->deserialize(request, &transportError);
}

TEST(VKQJSONResponseSerializer, ValidAnswerGivesTheParsedObject) {
  auto request = std::make_shared<RecordedRequest>(200, "application/json; charset=utf-8", R"({"a":[1,"x"]})");
  const auto result = decode(request);
  EXPECT_EQ(result->responseCode()->code(), 0);
  EXPECT_EQ(result->data(), Object(JSON{{"a", {1, "x"}}}));
  EXPECT_EQ(result->request(), request);

  const auto empty = decode(std::make_shared<RecordedRequest>(204, std::nullopt, ""));
  EXPECT_EQ(empty->responseCode()->code(), 0);
  EXPECT_TRUE(empty->data().isNull());
}

TEST(VKQJSONResponseSerializer, TransportErrorIsAnHTTPErrorEvenWithAValidBody) {
  LogCapture log;
  auto request = std::make_shared<RecordedRequest>(200, "application/json", "[1]");
  const auto result = decode(request, vkq::platform::makeError(vkq::platform::kURLErrorDomain, -1005));
  EXPECT_EQ(result->responseCode()->code(), -2);
  EXPECT_EQ(result->request(), request);
  EXPECT_TRUE(result->data().isNull());
  EXPECT_THAT(log.entries(), ElementsAre(ElementsAre("request faild", request->description())));
}

TEST(VKQJSONResponseSerializer, RejectedAnswersAreHTTPErrors) {
  const std::shared_ptr<RecordedRequest> rejected[] = {
      std::make_shared<RecordedRequest>(200, "text/html", "[1]"),         // content type
      std::make_shared<RecordedRequest>(200, "application/json", "[1,"),  // malformed
      std::make_shared<RecordedRequest>(500, "application/json", "[1]"),  // status
  };
  for (const auto& request : rejected) {
    LogCapture log;
    const auto result = decode(request);
    EXPECT_EQ(result->responseCode()->code(), -2) << request->description();
    EXPECT_EQ(result->request(), request);
    EXPECT_THAT(log.entries(), ElementsAre(ElementsAre("serialization faild", request->description())));
  }
}

}  // namespace
