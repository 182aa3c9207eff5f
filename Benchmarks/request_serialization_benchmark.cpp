// Cost of the per-request work of the transport's request/response layer: parsing a
// request URL (libcurl checks the authority), resolving a path against a host, building
// a GET request with a query and a POST request with a form body, and decoding a JSON
// answer. Parameters are a typical API call: a dozen fields, one nested object, a list.
#include <benchmark/benchmark.h>

#include <string>

#include "Platform/Serialization/HTTPRequestSerializer.h"
#include "Platform/Serialization/HTTPResponseSerializer.h"
#include "Platform/HTTP/URL.h"

namespace {

using namespace vkq::platform;

JSON apiParameters() {
  JSON parameters = {{"user", {{"id", 123456}, {"name", "Jane Doe"}, {"locale", "de_DE"}}},
                     {"tags", {"news", "sport", "weather"}},
                     {"page", 3},
                     {"limit", 50},
                     {"query", "caf\xc3\xa9 & bar/baz?"},
                     {"verbose", true},
                     {"ratio", 0.75}};
  for (int i = 0; i < 6; ++i) parameters["field" + std::to_string(i)] = "value " + std::to_string(i);
  return parameters;
}

void BM_URLWithString(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(URL::URLWithString("https://api.example.com:8443/v2/users/123/posts?sort=desc&page=2"));
  }
}
BENCHMARK(BM_URLWithString);

void BM_ResolveAgainstHost(benchmark::State& state) {
  const URL base = URL::URLWithString("https://api.example.com/api")->URLByAppendingPathComponent("");
  for (auto _ : state) benchmark::DoNotOptimize(URL::URLWithString("v2/users/123/posts", base));
}
BENCHMARK(BM_ResolveAgainstHost);

void BM_QueryString(benchmark::State& state) {
  const JSON parameters = apiParameters();
  for (auto _ : state) benchmark::DoNotOptimize(queryStringFromParameters(parameters));
}
BENCHMARK(BM_QueryString);

void BM_RequestWithMethod(benchmark::State& state, const char* method) {
  const auto serializer = HTTPRequestSerializer::serializer();
  const Object parameters(apiParameters());
  for (auto _ : state) {
    benchmark::DoNotOptimize(serializer->requestWithMethod(method, "https://api.example.com/v2/search", parameters, nullptr));
  }
}
BENCHMARK_CAPTURE(BM_RequestWithMethod, GET, "GET");
BENCHMARK_CAPTURE(BM_RequestWithMethod, POST, "POST");

void BM_JSONAnswer(benchmark::State& state) {
  JSON items = JSON::array();
  for (int i = 0; i < state.range(0); ++i) items.push_back(apiParameters());
  const Object body(bytesFromString(items.dump()));
  const HTTPResponse response(std::nullopt, 200, {{"Content-Type", "application/json; charset=utf-8"}});
  const JSONResponseSerializer serializer;
  for (auto _ : state) benchmark::DoNotOptimize(serializer.responseObjectForResponse(&response, body, nullptr));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * body.data()->size()));
}
BENCHMARK(BM_JSONAnswer)->Arg(1)->Arg(200);

}  // namespace

BENCHMARK_MAIN();
