#include "Tests/Classes/Fuzz/RequestFuzzing.h"

#include <array>

#include "Classes/Serialization/Request/VKQHTTPRequestSerializer.h"
#include "Classes/VKQNetworkAgent.h"
#include "Classes/VKQVesk.h"

namespace vkq::testing {
namespace {

using vkq::platform::URL;

class FuzzedRequest : public VKQVesk {
 public:
  std::string url() const override { return fields[0]; }
  std::string host() const override { return fields[1]; }
  std::string path() const override { return fields[2]; }
  std::array<std::string, 4> fields;
};

void requireSameParts(const URL& url) {
  const auto again = URL::URLWithString(url.absoluteString());
  require(again && again->scheme() == url.scheme() && again->host() == url.host() && again->port() == url.port() &&
              again->path() == url.path() && again->query() == url.query(),
          "a URL's text parses again to the same parts");
}

}  // namespace

void buildRequestURL(FuzzInput input) {
  auto request = std::make_shared<FuzzedRequest>();
  std::size_t field = 0;
  for (const std::uint8_t byte : input) {
    if (byte == 0 && field < 3) ++field;
    else request->fields[field] += static_cast<char>(byte);
  }
  request->requestSerializerTypePromise()(VKQRequestSerializerTypeJSON);
  if (const auto url = URL::URLWithString(request->fields[0])) requireSameParts(*url);
  VKQNetworkAgent& agent = VKQNetworkAgent::sharedAgent();
  const auto built = agent.buildRequestUrl(*request);
  if (!built) return;
  const auto url = URL::URLWithString(*built);
  require(url.has_value(), "a built URL parses");
  requireSameParts(*url);
  const std::string& parameters = request->fields[3];
  vkq::platform::JSON json = vkq::platform::JSON::parse(parameters, nullptr, false);
  const vkq::platform::Object argument = json.is_discarded() || json.is_null() ? nullptr : std::move(json);
  const auto sent = agent.requestSerializerForRequest(request)->requestWithMethod(
      parameters.starts_with(' ') ? "POST" : "GET", *built, argument, nullptr);
  if (sent && sent->url) requireSameParts(*sent->url);
}

}  // namespace vkq::testing
