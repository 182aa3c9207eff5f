// The JSON serializers: how a request's argument becomes a URL request and how a JSON
// answer becomes a result.
#include <gtest/gtest.h>

#include <cmath>

#include "Classes/Serialization/Request/VKQJSONRequestSerializer.h"
#include "Classes/Serialization/Response/VKQJSONResponseSerializer.h"
#include "Classes/VKQVesk.h"
#include "Classes/VKQVeskResult.h"
#include "Tests/Support/LogCapture.h"

namespace {

using vkq::platform::Bytes;
using vkq::platform::ErrorPtr;
using vkq::platform::JSON;
using vkq::platform::Object;
using vkq::platform::URLRequest;

URLRequest requestFor(std::string method, const char* contentType = nullptr) {
  URLRequest request;
  request.HTTPMethod = std::move(method);
  request.url = vkq::platform::URL::URLWithString("http://h/j");
  if (contentType) request.setValueForHTTPHeaderField(contentType, "Content-Type");
  return request;
}

const JSON kArgument{{"name", "a/b"}, {"list", {1, 2}}};

TEST(VKQJSONRequestSerializer, URIMethodsInAnyCaseUseTheQueryStringOthersAJSONBodyShapedByTheOptions) {
  const struct {
    const char* method;
    std::uint64_t options;
    Object parameters;
    const char* url;
    std::optional<std::string> body;  // the Content-Type is JSON exactly when there is one
  } table[] = {
      {"get", 0, Object(JSON{{"q", "x y"}}), "http://h/j?q=x%20y", std::nullopt},  // HEAD, DELETE: the agent's tests
      {"PUT", 0, Object(), "http://h/j", std::nullopt},
      {"POST", 0, Object(JSON()), "http://h/j", std::nullopt},
      {"patch", 0, Object(JSON::array()), "http://h/j", "[]"},
      {"POST", 0, Object(kArgument), "http://h/j", R"({"list":[1,2],"name":"a\/b"})"},
      {"POST", VKQJSONWritingPrettyPrinted | VKQJSONWritingWithoutEscapingSlashes, Object(kArgument), "http://h/j",
       "{\n  \"list\" : [\n    1,\n    2\n  ],\n  \"name\" : \"a/b\"\n}"},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(std::string(row.method) + " " + row.parameters.description());
    const auto result = VKQJSONRequestSerializer::serializerWithWritingOptions(row.options)
                            ->requestBySerializingRequest(requestFor(row.method), row.parameters, nullptr);
    EXPECT_EQ(result->url->absoluteString(), row.url);
    EXPECT_EQ(result->HTTPBody ? std::optional(vkq::platform::stringFromBytes(*result->HTTPBody)) : std::nullopt,
              row.body);
    EXPECT_EQ(result->valueForHTTPHeaderField("Content-Type"),
              row.body ? std::optional<std::string>("application/json") : std::nullopt);
    EXPECT_TRUE(result->valueForHTTPHeaderField("User-Agent"));
  }
  const auto typed = VKQJSONRequestSerializer::serializer()->requestBySerializingRequest(
      requestFor("POST", "text/plain"), Object(kArgument), nullptr);
  EXPECT_EQ(typed->valueForHTTPHeaderField("Content-Type"), "text/plain") << "the caller's type wins";
}

TEST(VKQJSONRequestSerializer, ParametersThatAreNotAJSONContainerFail) {
  for (const Object& parameters : {Object(JSON(42)), Object(Bytes{1, 2}), Object(JSON::array({1.0, std::nan("")})),
                                   Object(JSON{{"b", JSON::binary({1})}})}) {
    ErrorPtr error;
    EXPECT_EQ(
        VKQJSONRequestSerializer::serializer()->requestBySerializingRequest(requestFor("POST"), parameters, &error),
        std::nullopt);
    EXPECT_EQ(error->domain() + " " + std::to_string(error->code()) + " " + *error->userInfo().localizedFailureReason,
              std::string(vkq::platform::kURLRequestSerializationErrorDomain) +
                  " -1016 The `parameters` argument is not valid JSON.");
  }
  ErrorPtr error;  // text that is no UTF-8: the writer's own error reaches the caller
  VKQJSONRequestSerializer::serializer()->requestBySerializingRequest(requestFor("POST"),
                                                                      Object(JSON::array({"\xFF\xFE"})), &error);
  EXPECT_EQ(error ? error->domain() : "", VKQJSONWritingErrorDomain);
}

// The settings and the bound request are the base class's; the writing options are its own.
TEST(VKQJSONRequestSerializer, ArchiveKeepsTheWritingOptions) {
  const auto serializer = VKQJSONRequestSerializer::serializer();
  serializer->setWritingOptions(VKQJSONWritingPrettyPrinted);
  vkq::platform::KeyedArchiver coder;
  serializer->encodeWithCoder(coder);
  EXPECT_EQ(VKQJSONRequestSerializer::unarchive(coder.encodedData())->writingOptions(), VKQJSONWritingPrettyPrinted);
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
      {200, "application/json", "[1]", true, Object(), "request faild"},
      {200, "application/json", "[1,", false, Object(), "serialization faild"},  // the rest: the platform's tests
  };
  for (const auto& row : table) {
    SCOPED_TRACE(std::string(row.body) + " " + row.type + " " + std::to_string(row.status));
    auto request = std::make_shared<RecordedRequest>(row.status, row.type, row.body);
    vkq::testing::LogCapture log;
    ErrorPtr error = row.transportError ? vkq::platform::makeError(vkq::platform::kURLErrorDomain, -1005) : nullptr;
    const std::string logged = request->description();  // as the entry shows it
    const auto result = VKQJSONResponseSerializer::serializer()->deserialize(request, &error);
    EXPECT_EQ(result->responseCode()->code(), row.log ? -2 : 0);
    EXPECT_EQ(result->data(), row.data);
    EXPECT_EQ(result->request(), request);
    std::vector<vkq::platform::LogEntry> expected;
    if (row.log) expected.push_back({row.log, logged});
    EXPECT_EQ(log.entries(), expected);
    // A refused answer says why through the request; a transport error stays as it was.
    EXPECT_EQ(request->error() != nullptr, row.log && !row.transportError);
  }
}

}  // namespace
