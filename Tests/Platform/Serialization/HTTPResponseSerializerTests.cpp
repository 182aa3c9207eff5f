#include "Platform/Serialization/HTTPResponseSerializer.h"

#include <gtest/gtest.h>

namespace vkq::platform {
namespace {

// An answer from https://h/api; a null type sends no Content-Type.
HTTPResponse answer(int status, const char* contentType = "application/json") {
  HTTPHeaders fields;
  if (contentType) fields.set("Content-Type", contentType);
  return HTTPResponse(URL::URLWithString("https://h/api"), status, std::move(fields));
}

TEST(ResponseSerializer, StatusesOutside2xxFailWithTheirReasonPhrase) {
  const auto serializer = HTTPResponseSerializer::serializer();
  const std::pair<int, const char*> cases[] = {  // status, description (null when accepted)
      {200, nullptr}, {299, nullptr},
      {199, "Request failed: informational (199)"},  // phrases of unlisted statuses follow their class
      {500, "Request failed: internal server error (500)"},
  };
  const Object body(bytesFromString("{}"));
  for (const auto& [status, description] : cases) {
    const HTTPResponse response = answer(status);
    ErrorPtr error;
    EXPECT_EQ(serializer->validateResponse(&response, body, &error), description == nullptr) << status;
    ASSERT_EQ(error != nullptr, description != nullptr) << status;
    if (description == nullptr) continue;
    EXPECT_EQ(std::tuple(error->domain(), error->code(), error->localizedDescription()),
              std::tuple(kURLErrorDomain, kURLErrorBadServerResponse, description));
    EXPECT_EQ(error->userInfo().response->statusCode, status);
    EXPECT_EQ(error->userInfo().responseData, *body.data());
    EXPECT_EQ(error->userInfo().failingURL, "https://h/api");
  }
  // Absent codes accept every status; an absent response always passes.
  serializer->setAcceptableStatusCodes(std::nullopt);
  const HTTPResponse failed = answer(500);
  EXPECT_TRUE(serializer->validateResponse(&failed, body, nullptr));
  EXPECT_TRUE(HTTPResponseSerializer().validateResponse(nullptr, body, nullptr));
}

TEST(JSONResponseSerializer, ParsesValidAnswersAndRefusesMalformedWronglyTypedOrFailedOnes) {
  const JSONResponseSerializer serializer;
  const std::tuple<int, const char*, const char*, const char*, std::int64_t> cases[] = {
      // Status, Content-Type, body (null: none), the object parsed from it (null: absent), error code.
      {200, "text/javascript; charset=utf-8", "1", "1", 0},
      {200, "Application/JSON", " ", nullptr, 0},  // empty answers give nothing, without an error
      {200, nullptr, nullptr, nullptr, 0},  // no type and no body: nothing to check
      {200, "application/json", "  ", nullptr, kURLErrorCannotDecodeContentData},  // only one space counts as empty
      {200, "application/json", "[1,2]x", nullptr, kURLErrorCannotDecodeContentData},
      {204, "text/html", nullptr, nullptr, 0},  // nothing to decode: the type of an empty answer does not matter
      // Refused by validation, so not parsed: the status first, then the type.
      {200, "text/html", " ", nullptr, kURLErrorCannotDecodeContentData},
      {500, "text/html", R"({"a":1})", nullptr, kURLErrorBadServerResponse},
  };
  for (const auto& [status, type, text, json, code] : cases) {
    SCOPED_TRACE(std::string(type ? type : "(no type) ") + (text ? text : "(no body)"));
    const HTTPResponse response = answer(status, type);
    const Object data = text ? Object(bytesFromString(text)) : Object();
    ErrorPtr error;
    const Object result = serializer.responseObjectForResponse(&response, data, &error);
    EXPECT_EQ(result, json ? Object(JSON::parse(json)) : Object());
    EXPECT_EQ(error ? error->code() : 0, code);
    if (error && text) {
      EXPECT_EQ(error->userInfo().responseData, bytesFromString(text));  // the body travels with the error
    }
  }
  const HTTPResponse html = answer(200, "text/html; charset=utf-8");
  ErrorPtr error;
  serializer.responseObjectForResponse(&html, Object(bytesFromString("<p>")), &error);
  EXPECT_EQ(error ? error->localizedDescription() : "", "Request failed: unacceptable content-type: text/html");
}

// Parsing is iterative, but printing, copying and comparing a value recurse per level:
// deeper answers are refused before they are parsed.
TEST(JSONResponseSerializer, RefusesAnswersNestedDeeperThanTheLimit) {
  const JSONResponseSerializer serializer;
  const HTTPResponse response = answer(200);
  const auto nested = [](std::size_t depth, const std::string& inner = "") {
    return std::string(depth, '[') + inner + std::string(depth, ']');
  };
  const std::size_t limit = JSONResponseSerializer::kMaximumJSONDepth;
  const std::pair<std::string, bool> cases[] = {  // body, accepted
      {nested(limit), true},
      {nested(limit - 1, R"({"a":"[[[{{{\\\"]]]"})"), true},  // brackets and escapes inside strings are text
      {nested(limit + 1), false},
      {nested(100000), false},
      {"[" + nested(limit - 1, "1") + "," + nested(limit - 1) + "]", true},  // siblings don't add up
  };
  for (const auto& [text, accepted] : cases) {
    SCOPED_TRACE(text.substr(0, 40));
    ErrorPtr error;
    const Object result = serializer.responseObjectForResponse(&response, Object(bytesFromString(text)), &error);
    EXPECT_EQ(result.isJSON(), accepted);
    EXPECT_EQ(error ? error->localizedDescription() : "",
              accepted ? "" : "The JSON answer nests arrays and objects deeper than 512 levels.");
  }
}

}  // namespace
}  // namespace vkq::platform
