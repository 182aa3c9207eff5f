#include "Tests/Classes/Fuzz/RequestFuzzing.h"

#include <array>
#include <utility>

#include "Classes/Serialization/Request/VKQHTTPRequestSerializer.h"
#include "Classes/Serialization/Response/VKQJSONResponseSerializer.h"
#include "Classes/VKQNetworkAgent.h"
#include "Classes/VKQVesk.h"
#include "Classes/VKQVeskResult.h"

namespace vkq::testing {
namespace {

using vkq::platform::JSON;
using vkq::platform::Object;
using vkq::platform::URL;

// A request whose every input comes from the fuzzer.
class FuzzedRequest : public VKQVesk {
 public:
  std::string url() const override { return url_; }
  std::string host() const override { return host_; }
  std::string path() const override { return path_; }
  std::shared_ptr<const vkq::platform::HTTPResponse> response() const override { return head_; }

  std::string url_, host_, path_;
  std::shared_ptr<vkq::platform::HTTPResponse> head_;
};

bool nestsAtMost(const JSON& value, std::size_t limit) {
  std::vector<std::pair<const JSON*, std::size_t>> pending{{&value, 0}};
  while (!pending.empty()) {
    const auto [node, depth] = pending.back();
    pending.pop_back();
    if (!node->is_structured()) continue;
    if (depth == limit) return false;
    for (const JSON& child : *node) pending.emplace_back(&child, depth + 1);
  }
  return true;
}

void requireSameParts(const URL& url) {
  const auto again = URL::URLWithString(url.absoluteString());
  require(again.has_value(), "a URL's text parses again");
  require(again->scheme() == url.scheme() && again->host() == url.host() && again->port() == url.port() &&
              again->path() == url.path() && again->query() == url.query(),
          "a URL's text parses to the same parts");
}

}  // namespace

void decodeJSONAnswer(FuzzInput input) {
  constexpr std::array kStatuses{200, 204, 404};
  constexpr std::array kTypes{"application/json", "text/html", "", "text/json; charset=utf-8"};
  const auto at = [&](std::size_t index) -> std::uint8_t { return index < input.size() ? input[index] : 0; };
  auto request = std::make_shared<FuzzedRequest>();
  request->head_ = std::make_shared<vkq::platform::HTTPResponse>();
  request->head_->statusCode = kStatuses[at(0) % kStatuses.size()];
  if (const std::string type = kTypes[at(1) % kTypes.size()]; !type.empty()) {
    request->head_->setAllHeaderFields({{"Content-Type", type}});
  }
  request->setResponseData(Object(vkq::platform::Bytes(input.size() > 2 ? input.begin() + 2 : input.end(),
                                                       input.end())));

  static const auto serializer = [] {
    auto made = VKQJSONResponseSerializer::serializer();
    made->setAcceptableStatusCodes(std::nullopt);  // as the agent has it
    return made;
  }();
  const vkq::platform::ErrorPtr none;
  const auto result = serializer->deserialize(request, &none);
  const std::int64_t code = result->responseCode()->code();
  require(code == 0 || code == -2, "code 0 or -2");
  require(result->request() == request, "the result carries its request");
  if (code != 0) {
    require(result->data().isNull() && request->error() != nullptr, "a refusal has no data and says why");
    return;
  }
  require(result->data().isNull() || result->data().isJSON(), "success is JSON or nothing");
  if (!result->data().isJSON()) return;
  const JSON& value = result->data().json();
  require(nestsAtMost(value, vkq::platform::JSONResponseSerializer::kMaximumJSONDepth), "JSON within the depth limit");
  require(JSON::parse(value.dump()) == value, "JSON prints and parses back to itself");
}

void buildRequestURL(FuzzInput input) {
  std::array<std::string, 4> fields;
  std::size_t field = 0;
  for (const std::uint8_t byte : input) {
    if (byte == 0 && field + 1 < fields.size()) {
      ++field;
    } else {
      fields[field] += static_cast<char>(byte);
    }
  }
  auto request = std::make_shared<FuzzedRequest>();
  request->requestSerializerTypePromise()(VKQRequestSerializerTypeJSON);
  request->url_ = fields[0];
  request->host_ = fields[1];
  request->path_ = fields[2];
  if (const auto url = URL::URLWithString(fields[0])) requireSameParts(*url);

  VKQNetworkAgent& agent = VKQNetworkAgent::sharedAgent();
  const auto built = agent.buildRequestUrl(*request);
  if (!built) return;
  const auto url = URL::URLWithString(*built);
  require(url.has_value(), "a built URL parses");
  requireSameParts(*url);

  JSON parameters = JSON::parse(fields[3], nullptr, false);
  if (parameters.is_discarded()) parameters = nullptr;
  const bool get = !fields[3].starts_with(' ');
  const auto serializer = agent.requestSerializerForRequest(request);
  const auto sent = serializer->requestWithMethod(get ? "GET" : "POST", *built,
                                                  parameters.is_null() ? Object() : Object(parameters), nullptr);
  if (sent && sent->url) requireSameParts(*sent->url);
}

}  // namespace vkq::testing
