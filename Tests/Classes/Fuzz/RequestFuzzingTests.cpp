// The request fuzz bodies over seeded inputs: what libFuzzer explores at length, in
// brief on every run (a broken promise aborts the test).
#include <gtest/gtest.h>

#include "Classes/VKQNetworkAgent.h"
#include "Classes/VKQVesk.h"
#include "Platform/Serialization/HTTPResponseSerializer.h"
#include "Tests/Classes/Fuzz/RequestFuzzing.h"

namespace vkq::testing {
namespace {

using namespace std::string_literals;

TEST(RequestFuzzing, SeededJSONAnswersKeepTheDecodersPromises) {
  const std::string deep(vkq::platform::JSONResponseSerializer::kMaximumJSONDepth, '[');
  const std::vector<std::string> seeds = {
      "\0\0{\"a\":[1,2.5e3,\"x\\u00e9\\\"\"],\"b\":{\"c\":null}}"s, "\1\1"s, "\2\1<p>"s, "\0\3 "s,
      "\0\0"s + deep + std::string(deep.size(), ']'), "\0\0"s + deep + "[" + std::string(deep.size() + 1, ']'),
  };
  for (const auto& input : mutatedInputs(1301, 20000, seeds, "[]{}\",:0123456789.eE+-truefalsnul\\ ")) {
    decodeJSONAnswer(bytesOf(input));
  }
}

TEST(RequestFuzzing, SeededURLsKeepTheirPartsThroughBuildingAndSerializing) {
  const std::vector<std::string> seeds = {
      "http://127.0.0.1:8080/a/b?c=d#e\0\0\0{\"q\":[1,{\"x\":\"y z/?&=\"}]}"s,
      "\0https://example.com/base\0../x/%2E%2E/y?z\0 {\"a\":\"\\u00e9\"}"s,
      "\0http://[::1]:1/\0/abs\0{}"s, "mailto:x\0\0rel/a b\0[1]"s, "\0\0\0"s,
  };
  for (const auto& input : mutatedInputs(1302, 20000, seeds, ":/?#[]@!$&'()*+,;=%. -_~aZ09\0"s)) {
    buildRequestURL(bytesOf(input));
  }
}

}  // namespace
}  // namespace vkq::testing
