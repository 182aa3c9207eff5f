// Shared pieces of the network agent's tests: a recorder of the callbacks a request
// receives, a KXP route for the test server and a fixture that drains the main queue
// on the test's thread.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <span>

#include "Classes/Serialization/VKQKXPRequestSettings.h"
#include "Classes/Serialization/VKQKXPServerCodec.h"
#include "Classes/VKQNetworkAgent.h"
#include "Classes/VKQVesk.h"
#include "Classes/VKQVeskResult.h"
#include "Platform/Base/MainQueue.h"
#include "Platform/Reachability/NetworkReachabilityManager.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/LogCapture.h"
#include "Tests/Support/TestServer.h"

namespace vkq::testing {

// What one request's callbacks saw. Callbacks run on the main queue, which the tests
// drain on their own thread, so no lock is needed.
struct Calls {
  std::vector<std::string> order;  // "completion", "success", "failure"
  std::vector<std::shared_ptr<VKQVeskResult>> results;

  std::size_t outcomes() const { return order.size() - std::ranges::count(order, "completion"); }
  std::int64_t lastCode() const { return results.back() ? results.back()->responseCode()->code() : 0; }
};

// Attaches completion, success and failure callbacks that record into the returned
// Calls. They hold it weakly: the results it keeps hold the request, and callbacks that
// stay attached (early failures, cancellation) would otherwise close a cycle.
inline std::shared_ptr<Calls> attach(VKQVeskRequest& request) {
  auto calls = std::make_shared<Calls>();
  auto recorder = [weakCalls = std::weak_ptr<Calls>(calls)](const char* name) -> VKQVeskRequest::ResultBlock {
    return [weakCalls, name](std::shared_ptr<VKQVeskResult> result) {
      if (const auto calls = weakCalls.lock()) {
        EXPECT_TRUE(vkq::platform::MainQueue::isCurrent()) << name << " ran off the main queue";
        calls->order.push_back(name);
        calls->results.push_back(std::move(result));
      }
    };
  };
  request.setCompletionResultBlock(recorder("completion"));
  request.setSuccessResultBlock(recorder("success"));
  request.setFailureResultBlock(recorder("failure"));
  return calls;
}

// Attaches recording callbacks and starts the request with requestWithSuccess().
inline std::shared_ptr<Calls> start(VKQVeskRequest& request) {
  auto calls = attach(request);
  request.requestWithSuccess(request.successResultBlock(), request.failureResultBlock());
  return calls;
}

// Serves `path` as a KXP endpoint: the request frame is parsed under `settings` (400
// when it is refused) and the answer is "pong:" + payload, framed under them too.
inline void serveKXP(TestServer& server, const std::string& path, const VKQKXPFrameSettings& settings) {
  server.handle(path, [settings](const httplib::Request& request, httplib::Response& response) {
    const auto payload = VKQKXPServerCodec::parseRequestFrame(
        std::span(reinterpret_cast<const std::uint8_t*>(request.body.data()), request.body.size()), settings, nullptr);
    if (!payload) return void(response.status = 400);
    const auto frame = VKQKXPServerCodec::makeResponseFrame(
        vkq::platform::bytesFromString("pong:" + std::string(payload->begin(), payload->end())), settings);
    response.set_content(std::string(frame->begin(), frame->end()), "application/octet-stream");
  });
}

inline std::shared_ptr<VKQVesk> kxpRequest(const std::string& url, const std::string& payload) {
  return VKQVesk::initWithKXPUrl(url, std::make_shared<vkq::platform::Bytes>(vkq::platform::bytesFromString(payload)));
}

// Callbacks are drained on the test's thread; the reachability seam is reset after
// each test, and each test ends with an empty registry.
class AgentTest : public ::testing::Test {
 protected:
  void SetUp() override { vkq::platform::MainQueue::useManualDraining(); }
  void TearDown() override {
    vkq::platform::NetworkReachabilityManager::setStatusOverrideForTesting(std::nullopt);
    EXPECT_TRUE(runUntil([] { return agent().recordCount() == 0; })) << "requests left in the registry";
  }

  static VKQNetworkAgent& agent() { return VKQNetworkAgent::sharedAgent(); }

  // Drains the main queue until `done()` holds, looking at it every 10 ms as well:
  // conditions that no job announces (a log entry, a file) are seen too.
  static bool runUntil(const std::function<bool()>& done, std::chrono::seconds timeout = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!vkq::platform::MainQueue::runUntil(done, std::chrono::milliseconds(10))) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
    }
    return true;
  }
};

}  // namespace vkq::testing
