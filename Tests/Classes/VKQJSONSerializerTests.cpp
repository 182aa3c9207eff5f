// The JSON serializers: how a request's argument becomes a URL request (URI methods,
// headers, content type, the invalid-parameters error, writing options, copying and
// archiving) and how a JSON answer becomes a result.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "Classes/Serialization/Request/VKQJSONRequestSerializer.h"
#include "Classes/Serialization/Response/VKQJSONResponseSerializer.h"
#include "Classes/VKQVesk.h"
#include "Classes/VKQVeskResult.h"
#include "Tests/Support/LogCapture.h"

namespace {

using ::testing::ElementsAre;
using vkq::platform::Bytes;
using vkq::platform::ErrorPtr;
using vkq::platform::JSON;
using vkq::platform::Object;
using vkq::platform::URLRequest;

URLRequest requestFor(std::string method) {
  URLRequest request;
  request.HTTPMethod = std::move(method);
  request.url = vkq::platform::URL::URLWithString("http://h/j");
  return request;
}

std::optional<std::string> bodyText(const std::optional<URLRequest>& request) {
  if (!request || !request->HTTPBody) return std::nullopt;
  return vkq::platform::stringFromBytes(*request->HTTPBody);
}

const JSON kArgument{{"name", "a/b"}, {"list", {1, 2}}};

TEST(VKQJSONRequestSerializer, URIMethodsInAnyCaseUseTheQueryStringOthersAJSONBodyShapedByTheOptions) {
  const JSON query{{"q", "x y"}};
  const struct {
    const char* method;
    std::uint64_t options;
    Object parameters;
    const char* url;
    std::optional<std::string> body;  // the Content-Type is JSON exactly when there is one
  } table[] = {
      {"GET", 0, Object(query), "http://h/j?q=x%20y", std::nullopt},
      {"get", 0, Object(query), "http://h/j?q=x%20y", std::nullopt},  // HEAD and DELETE: the agent's tests
      // Without parameters: no body and no type, but the default header fields.
      {"PUT", 0, Object(), "http://h/j", std::nullopt},
      {"POST", 0, Object(JSON()), "http://h/j", std::nullopt},
      {"patch", 0, Object(JSON::array()), "http://h/j", "[]"},
      // Compact, with escaped slashes and keys in order, unless the options say otherwise.
      {"POST", 0, Object(kArgument), "http://h/j", R"({"list":[1,2],"name":"a\/b"})"},
      {"POST", VKQJSONWritingWithoutEscapingSlashes, Object(kArgument), "http://h/j", R"({"list":[1,2],"name":"a/b"})"},
      {"POST", VKQJSONWritingPrettyPrinted | VKQJSONWritingWithoutEscapingSlashes, Object(kArgument), "http://h/j",
       "{\n  \"list\" : [\n    1,\n    2\n  ],\n  \"name\" : \"a/b\"\n}"},
      {"POST", VKQJSONWritingPrettyPrinted, Object(JSON{{"a", JSON::array()}, {"o", JSON::object()}}), "http://h/j",
       "{\n  \"a\" : [],\n  \"o\" : {}\n}"},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(std::string(row.method) + " " + std::to_string(row.options) + " " + row.parameters.description());
    const auto result = VKQJSONRequestSerializer::serializerWithWritingOptions(row.options)
                            ->requestBySerializingRequest(requestFor(row.method), row.parameters, nullptr);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->url->absoluteString(), row.url);
    EXPECT_EQ(bodyText(result), row.body);
    EXPECT_EQ(result->valueForHTTPHeaderField("Content-Type"),
              row.body ? std::optional<std::string>("application/json") : std::nullopt);
    EXPECT_TRUE(result->valueForHTTPHeaderField("User-Agent"));
  }
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
  for (const Object& parameters : {Object(JSON("text")), Object(JSON(42)), Object(Bytes{1, 2}),
                                   Object(JSON::array({1.0, std::nan("")})), Object(JSON{{"b", JSON::binary({1})}})}) {
    SCOPED_TRACE(parameters.description());
    ErrorPtr error;
    EXPECT_EQ(serializer->requestBySerializingRequest(requestFor("POST"), parameters, &error), std::nullopt);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), vkq::platform::kURLRequestSerializationErrorDomain);
    EXPECT_EQ(error->code(), -1016);
    EXPECT_EQ(error->userInfo().localizedFailureReason, "The `parameters` argument is not valid JSON.");
    EXPECT_EQ(serializer->requestBySerializingRequest(requestFor("POST"), parameters, nullptr), std::nullopt);
  }
  // Text that is no UTF-8: the writer's own error reaches the caller.
  ErrorPtr error;
  EXPECT_EQ(serializer->requestBySerializingRequest(requestFor("POST"), Object(JSON::array({"\xFF\xFE"})), &error),
            std::nullopt);
  EXPECT_EQ(error ? error->domain() : "", VKQJSONWritingErrorDomain);
}

TEST(VKQJSONRequestSerializer, CopyAndArchiveKeepWritingOptionsAndSettingsButNotTheRequest) {
  const auto serializer = VKQJSONRequestSerializer::serializerWithRequest(VKQVesk::initWithJSONUrl("u", nullptr));
  const std::uint64_t options = VKQJSONWritingPrettyPrinted | VKQJSONWritingWithoutEscapingSlashes;
  serializer->setWritingOptions(options);
  serializer->setValue("v", "X-Kept");
  serializer->setAllowsCellularAccess(false);
  vkq::platform::KeyedArchiver coder;
  serializer->encodeWithCoder(coder);
  EXPECT_EQ(vkq::platform::KeyedUnarchiver::unarchiverWithData(coder.encodedData())->decodeInteger("writingOptions"),
            static_cast<std::int64_t>(options));
  for (const auto& kept : {std::dynamic_pointer_cast<VKQJSONRequestSerializer>(serializer->copy()),
                           VKQJSONRequestSerializer::unarchive(coder.encodedData())}) {
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(kept->writingOptions(), options);
    EXPECT_EQ(kept->valueForHTTPHeaderField("X-Kept"), "v");
    EXPECT_FALSE(kept->allowsCellularAccess());
    EXPECT_EQ(kept->request(), nullptr);
  }
  // A base serializer's archive restores with no options; garbage restores nothing.
  vkq::platform::KeyedArchiver base;
  vkq::platform::HTTPRequestSerializer::serializer()->encodeWithCoder(base);
  EXPECT_EQ(VKQJSONRequestSerializer::unarchive(base.encodedData())->writingOptions(), 0u);
  EXPECT_EQ(VKQJSONRequestSerializer::unarchive(Bytes{1, 2, 3}), nullptr);
  EXPECT_EQ(VKQJSONRequestSerializer::unarchive(vkq::platform::KeyedArchiver().encodedData()), nullptr);
}

// A request that replays a recorded answer head.
class RecordedRequest : public VKQVesk {
 public:
  RecordedRequest(int status, const std::string& contentType, const std::string& body) {
    head_->statusCode = status;
    if (!contentType.empty()) head_->setAllHeaderFields({{"Content-Type", contentType}});
    setResponseData(Object(vkq::platform::bytesFromString(body)));
  }
  std::shared_ptr<const vkq::platform::HTTPResponse> response() const override { return head_; }

 private:
  const std::shared_ptr<vkq::platform::HTTPResponse> head_ = std::make_shared<vkq::platform::HTTPResponse>();
};

TEST(VKQJSONResponseSerializer, DecodesAcceptedAnswersAndLogsEachFailureAsAnHTTPError) {
  const struct {
    int status;
    const char* type;
    const char* body;
    bool transportError;
    Object data;
    const char* log;  // the failure's entry, or none
  } table[] = {
      {200, "application/json; charset=utf-8", R"({"a":[1,"x"]})", false, Object(JSON{{"a", {1, "x"}}}), nullptr},
      {204, "", "", false, Object(), nullptr},  // an empty body is no data
      {200, "application/json", "[1]", true, Object(), "request faild"},
      {200, "text/html", "[1]", false, Object(), "serialization faild"},
      {200, "application/json", "[1,", false, Object(), "serialization faild"},
      {500, "application/json", "[1]", false, Object(), "serialization faild"},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(std::string(row.body) + " " + row.type + " " + std::to_string(row.status));
    auto request = std::make_shared<RecordedRequest>(row.status, row.type, row.body);
    vkq::testing::LogCapture log;
    ErrorPtr error = row.transportError ? vkq::platform::makeError(vkq::platform::kURLErrorDomain, -1005) : nullptr;
    const auto result = VKQJSONResponseSerializer::serializer()->deserialize(request, &error);
    EXPECT_EQ(result->responseCode()->code(), row.log ? -2 : 0);
    EXPECT_EQ(result->data(), row.data);
    EXPECT_EQ(result->request(), request);
    if (row.log) {
      EXPECT_THAT(log.entries(), ElementsAre(ElementsAre(row.log, request->description())));
    } else {
      EXPECT_TRUE(log.entries().empty());
    }
  }
}

}  // namespace
