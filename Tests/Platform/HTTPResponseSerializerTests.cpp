#include "Platform/HTTPResponseSerializer.h"

#include <gtest/gtest.h>

namespace vkq::platform {
namespace {

HTTPResponse answer(int status, std::optional<std::string> contentType = "application/json") {
  HTTPResponse response;
  response.url = URL::URLWithString("https://h/api");
  response.statusCode = status;
  if (contentType) response.allHeaderFields.set("Content-Type", *contentType);
  return response;
}

Object body(std::string_view text) { return Object(bytesFromString(text)); }

TEST(ResponseSerializer, StatusValidation) {
  const auto serializer = HTTPResponseSerializer::serializer();
  struct Case {
    int status;
    const char* description;  // null when accepted
  };
  const Case cases[] = {
      {200, nullptr},
      {204, nullptr},
      {299, nullptr},
      {199, "Request failed: informational (199)"},
      {304, "Request failed: not modified (304)"},
      {404, "Request failed: not found (404)"},
      {500, "Request failed: internal server error (500)"},
      {599, "Request failed: server error (599)"},
  };
  for (const auto& c : cases) {
    const HTTPResponse response = answer(c.status);
    ErrorPtr error;
    const Object data = body("{}");
    EXPECT_EQ(serializer->validateResponse(&response, data, &error), c.description == nullptr) << c.status;
    if (c.description == nullptr) {
      EXPECT_FALSE(error) << c.status;
      continue;
    }
    ASSERT_TRUE(error) << c.status;
    EXPECT_EQ(error->domain(), kURLErrorDomain);
    EXPECT_EQ(error->code(), kURLErrorBadServerResponse);
    EXPECT_EQ(error->localizedDescription(), c.description);
    ASSERT_TRUE(error->userInfo().response);
    EXPECT_EQ(error->userInfo().response->statusCode, c.status);
    EXPECT_EQ(error->userInfo().responseData, bytesFromString("{}"));
    EXPECT_EQ(error->userInfo().failingURL, "https://h/api");
  }
  // Absent codes accept every status; an absent response always passes.
  serializer->setAcceptableStatusCodes(std::nullopt);
  const HTTPResponse failed = answer(500);
  EXPECT_TRUE(serializer->validateResponse(&failed, body("x"), nullptr));
  EXPECT_TRUE(HTTPResponseSerializer().validateResponse(nullptr, body("x"), nullptr));
}

TEST(ResponseSerializer, ReasonPhrasesOfCommonStatuses) {
  EXPECT_EQ(HTTPResponse::localizedStringForStatusCode(200), "no error");
  EXPECT_EQ(HTTPResponse::localizedStringForStatusCode(401), "unauthorized");
  EXPECT_EQ(HTTPResponse::localizedStringForStatusCode(429), "too many requests");
  EXPECT_EQ(HTTPResponse::localizedStringForStatusCode(503), "service unavailable");
  EXPECT_EQ(HTTPResponse::localizedStringForStatusCode(299), "success");
  EXPECT_EQ(HTTPResponse::localizedStringForStatusCode(399), "redirected");
  EXPECT_EQ(HTTPResponse::localizedStringForStatusCode(499), "client error");
  EXPECT_EQ(HTTPResponse::localizedStringForStatusCode(0), "server error");
}

TEST(ResponseSerializer, ContentTypeIsCheckedAfterTheStatusAndOnlyWhenItMatters) {
  HTTPResponseSerializer serializer;
  serializer.setAcceptableContentTypes(std::set<std::string>{"application/json"});
  const HTTPResponse html = answer(200, "text/html; charset=utf-8");
  ErrorPtr error;
  EXPECT_FALSE(serializer.validateResponse(&html, body("<p>"), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), kURLErrorCannotDecodeContentData);
  EXPECT_EQ(error->localizedDescription(), "Request failed: unacceptable content-type: text/html");
  // An empty body also fails when the type is named.
  EXPECT_FALSE(serializer.validateResponse(&html, Object(), nullptr));
  // No type and no body: nothing to check; no type with a body: refused.
  const HTTPResponse untyped = answer(200, std::nullopt);
  EXPECT_TRUE(serializer.validateResponse(&untyped, body(""), nullptr));
  error = nullptr;
  EXPECT_FALSE(serializer.validateResponse(&untyped, body("x"), &error));
  EXPECT_EQ(error->localizedDescription(), "Request failed: unacceptable content-type: (null)");
  // A bad status is reported before a bad type.
  const HTTPResponse both = answer(500, "text/html");
  error = nullptr;
  EXPECT_FALSE(serializer.validateResponse(&both, body("<p>"), &error));
  EXPECT_EQ(error->code(), kURLErrorBadServerResponse);
  // The base serializer accepts every type by default.
  EXPECT_TRUE(HTTPResponseSerializer().validateResponse(&html, body("<p>"), nullptr));
}

TEST(ResponseSerializer, BaseReturnsTheRawBodyEvenWhenValidationFails) {
  const HTTPResponse notFound = answer(404);
  ErrorPtr error;
  const Object data = body("missing");
  EXPECT_EQ(HTTPResponseSerializer().responseObjectForResponse(&notFound, data, &error), data);
  EXPECT_TRUE(error);
}

TEST(JSONResponseSerializer, ParsesValidAnswers) {
  const JSONResponseSerializer serializer;
  for (const char* type : {"application/json", "text/json", "text/javascript; charset=utf-8", "Application/JSON"}) {
    const HTTPResponse response = answer(200, type);
    ErrorPtr error;
    const Object result = serializer.responseObjectForResponse(&response, body(R"({"a":[1,2],"b":null})"), &error);
    EXPECT_FALSE(error) << type;
    ASSERT_TRUE(result.isJSON()) << type;
    EXPECT_EQ(result.json(), JSON::parse(R"({"a":[1,2],"b":null})"));
  }
}

TEST(JSONResponseSerializer, EmptyAnswersGiveNothingWithoutAnError) {
  const JSONResponseSerializer serializer;
  const HTTPResponse noContent = answer(204);
  for (const Object& data : {Object(), body(""), body(" ")}) {
    ErrorPtr error;
    EXPECT_TRUE(serializer.responseObjectForResponse(&noContent, data, &error).isNull());
    EXPECT_FALSE(error);
  }
}

TEST(JSONResponseSerializer, MalformedJSONIsAnError) {
  const JSONResponseSerializer serializer;
  const HTTPResponse response = answer(200);
  for (const char* text : {"{", "{\"a\":}", "  ", "nul", "[1,2]x"}) {
    ErrorPtr error;
    EXPECT_TRUE(serializer.responseObjectForResponse(&response, body(text), &error).isNull()) << text;
    ASSERT_TRUE(error) << text;
    EXPECT_EQ(error->domain(), kURLErrorDomain);
    EXPECT_EQ(error->code(), kURLErrorCannotDecodeContentData);
    EXPECT_EQ(error->userInfo().responseData, bytesFromString(text));
    EXPECT_TRUE(serializer.responseObjectForResponse(&response, body(text), nullptr).isNull());
  }
}

TEST(JSONResponseSerializer, ValidationFailuresAreNotParsed) {
  const JSONResponseSerializer serializer;
  const HTTPResponse wrongType = answer(200, "text/html");
  ErrorPtr error;
  EXPECT_TRUE(serializer.responseObjectForResponse(&wrongType, body("{\"a\":1}"), &error).isNull());
  ASSERT_TRUE(error);
  EXPECT_EQ(error->localizedDescription(), "Request failed: unacceptable content-type: text/html");

  const HTTPResponse serverError = answer(500);
  error = nullptr;
  EXPECT_TRUE(serializer.responseObjectForResponse(&serverError, body("{\"a\":1}"), &error).isNull());
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), kURLErrorBadServerResponse);
}

}  // namespace
}  // namespace vkq::platform
