// The JSON request serializer: how a request's argument becomes a URL request. JSON
// answers are decoded in the agent's exchange tests.
#include <gtest/gtest.h>

#include <cmath>

#include "Classes/Serialization/Request/VKQJSONRequestSerializer.h"

namespace {

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
  for (const Object& parameters : {Object(JSON(42)), Object(JSON::array({1.0, std::nan("")}))}) {
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

}  // namespace
