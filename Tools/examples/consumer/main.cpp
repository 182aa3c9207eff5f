// A program outside the project: one KXP and one JSON exchange with a `vkq serve`,
// waited for through futures. The callbacks (and so the futures' values) come from the
// main queue's own thread, so this thread may block on them.
//
//   vkq serve &                 # prints its URL
//   vkq_consumer http://127.0.0.1:PORT
#include <iostream>
#include <memory>
#include <string>

#include "Classes/VKQVesk.h"
#include "Classes/VKQVeskAsync.h"
#include "Classes/VKQVeskResult.h"

namespace {

bool succeeded(const char* what, const std::shared_ptr<VKQVeskResult>& result) {
  if (result && result->responseCode()->code() == VKQResponseCodeSuccess) return true;
  std::cerr << what << " failed: " << (result ? result->description() : "no result") << "\n";
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: vkq_consumer BASE_URL   (a `vkq serve`)\n";
    return 64;
  }
  const std::string base = argv[1];

  auto payload = std::make_shared<vkq::platform::Bytes>(vkq::platform::bytesFromString("from a consumer"));
  const auto kxp = VKQRequestFuture(VKQVesk::initWithKXPUrl(base + "/kxp/echo", payload)).get();
  if (!succeeded("kxp", kxp)) return 1;
  std::cout << "kxp: " << vkq::platform::stringFromBytes(*kxp->data().data()) << "\n";

  const auto json = VKQRequestFuture(VKQVesk::initWithJSONUrl(base + "/json/echo", vkq::platform::JSON{{"n", 1}},
                                                              VKQRequestMethodPOST))
                        .get();
  if (!succeeded("json", json)) return 1;
  std::cout << "json: " << json->data().json().dump() << "\n";
  return 0;
}
