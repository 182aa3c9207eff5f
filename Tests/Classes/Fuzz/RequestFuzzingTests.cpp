// Seeded runs of the request URL fuzz body (libFuzzer explores it at length).
#include <gtest/gtest.h>

#include "Tests/Classes/Fuzz/RequestFuzzing.h"

namespace vkq::testing {
namespace {

using namespace std::string_literals;

TEST(RequestFuzzing, SeededURLsKeepTheirPartsThroughBuildingAndSerializing) {
  runSeeded(buildRequestURL, 1302, 20000,
            {"http://127.0.0.1:8080/a/b?c=d#e\0\0\0{\"q\":[1,{\"x\":\"y z/?&=\"}]}"s,
             "\0https://example.com/base\0../x/%2E%2E/y?z\0 {\"a\":\"\\u00e9\"}"s, "\0http://[::1]:1/\0/abs\0{}"s,
             "mailto:x\0\0rel/a b\0[1]"s},
            ":/?#[]@!$&'()*+,;=%. -_~aZ09\0"s);
}

}  // namespace
}  // namespace vkq::testing
