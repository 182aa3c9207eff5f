// Shared pieces of the network agent's tests: a request whose properties are plain
// fields, a recorder of the callbacks a request receives, a KXP route for the test
// server and a fixture that drains the main queue on the test's thread.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "Classes/Serialization/VKQKXPRequestSettings.h"
#include "Classes/Serialization/VKQKXPServerCodec.h"
#include "Classes/VKQNetworkAgent.h"
#include "Classes/VKQVeskRequest.h"
#include "Classes/VKQVeskResult.h"
#include "Platform/Base/MainQueue.h"
#include "Platform/Reachability/NetworkReachabilityManager.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/LogCapture.h"
#include "Tests/Support/TestServer.h"

namespace vkq::testing {

// A request whose every property is a field (the base class's defaults to start with).
class FieldRequest : public VKQVeskRequest {
 public:
  std::string urlValue, hostValue, pathValue;
  VKQRequestMethod method = VKQRequestMethodPOST;
  VKQRequestSerializerType requestType = VKQRequestSerializerTypeKXP;
  std::optional<VKQHeaderDictionary> headers;
  std::optional<std::vector<std::string>> authorization;
  double timeout = 60.0;
  bool cellular = true;

  std::string url() const override { return urlValue; }
  std::string host() const override { return hostValue; }
  std::string path() const override { return pathValue; }
  VKQRequestMethod requestMethod() const override { return method; }
  VKQRequestSerializerType requestSerializerType() const override { return requestType; }
  std::optional<VKQHeaderDictionary> requestHeaderFieldValueDictionary() const override { return headers; }
  std::optional<std::vector<std::string>> requestAuthorizationHeaderFieldArray() const override { return authorization; }
  double requestTimeoutInterval() const override { return timeout; }
  bool allowsCellularAccess() const override { return cellular; }
};

// What one request's callbacks saw. Callbacks run on the main queue, which the tests
// drain on their own thread, so no lock is needed.
struct Calls {
  std::vector<std::string> order;  // "completion", "success", "failure"
  std::vector<std::shared_ptr<VKQVeskResult>> results;
  bool offMainQueue = false;

  std::size_t outcomes() const { return order.size() - static_cast<std::size_t>(std::ranges::count(order, "completion")); }
  std::int64_t lastCode() const {
    const auto& result = results.back();
    return result && result->responseCode() ? result->responseCode()->code() : 0;
  }
};

// Attaches completion, success and failure callbacks that record into `calls`. They
// hold `calls` weakly: the results it keeps hold the request, and callbacks that stay
// attached (early failures, cancellation) would otherwise close a cycle.
inline void attach(VKQVeskRequest& request, const std::shared_ptr<Calls>& calls) {
  auto recorder = [weakCalls = std::weak_ptr<Calls>(calls)](const char* name) {
    return [weakCalls, name](std::shared_ptr<VKQVeskResult> result) {
      const auto calls = weakCalls.lock();
      if (!calls) return;
      if (!vkq::platform::MainQueue::isCurrent()) calls->offMainQueue = true;
      calls->order.push_back(name);
      calls->results.push_back(std::move(result));
    };
  };
  request.setCompletionResultBlock(recorder("completion"));
  request.setSuccessResultBlock(recorder("success"));
  request.setFailureResultBlock(recorder("failure"));
}

// Attaches recording callbacks and starts the request with requestWithSuccess().
inline std::shared_ptr<Calls> start(VKQVeskRequest& request) {
  auto calls = std::make_shared<Calls>();
  attach(request, calls);
  request.requestWithSuccess(request.successResultBlock(), request.failureResultBlock());
  return calls;
}

// Serves `path` as a KXP endpoint: the request frame is parsed under `settings` (400
// with the reason when it is refused) and the answer is "pong:" + payload, framed
// under `answerSettings`.
inline void serveKXP(TestServer& server, const std::string& path, const VKQKXPFrameSettings& settings,
                     std::optional<VKQKXPFrameSettings> answerSettings = std::nullopt) {
  server.handle(path, [settings, answer = answerSettings.value_or(settings)](const httplib::Request& request,
                                                                            httplib::Response& response) {
    vkq::platform::ErrorPtr refusal;
    const auto payload = VKQKXPServerCodec::parseRequestFrame(
        std::span(reinterpret_cast<const std::uint8_t*>(request.body.data()), request.body.size()), settings, &refusal);
    if (!payload) {
      response.status = 400;
      response.set_content(refusal->localizedDescription(), "text/plain");
      return;
    }
    std::string reply = "pong:" + std::string(payload->begin(), payload->end());
    const auto frame = VKQKXPServerCodec::makeResponseFrame(vkq::platform::bytesFromString(reply), answer);
    response.set_content(std::string(frame->begin(), frame->end()), "application/octet-stream");
  });
}

// Callbacks are drained on the test's thread; the reachability seam is reset after
// each test, and each test ends with an empty registry.
class AgentTest : public ::testing::Test {
 protected:
  void SetUp() override { vkq::platform::MainQueue::useManualDraining(); }
  void TearDown() override {
    vkq::platform::NetworkReachabilityManager::setStatusOverrideForTesting(std::nullopt);
    EXPECT_TRUE(runUntil([] { return VKQNetworkAgent::sharedAgent().recordCount() == 0; }))
        << "requests left in the registry";
  }

  static VKQNetworkAgent& agent() { return VKQNetworkAgent::sharedAgent(); }

  // Drains the main queue until `done()` holds. MainQueue::runUntil() looks at `done()`
  // only when a job arrives, so it is called in short slices: conditions that no job
  // announces (a log entry, a file) are seen too.
  static bool runUntil(const std::function<bool()>& done,
                       std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!vkq::platform::MainQueue::runUntil(done, std::chrono::milliseconds(10))) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
    }
    return true;
  }
  // Starts the request and drains the main queue until it has heard back once.
  static std::shared_ptr<Calls> startAndWait(VKQVeskRequest& request) {
    auto calls = start(request);
    EXPECT_TRUE(runUntil([&] { return calls->outcomes() == 1; }));
    return calls;
  }
  // Drains the main queue for `duration`, for tests that check that nothing happens.
  static void runFor(std::chrono::milliseconds duration) {
    vkq::platform::MainQueue::runUntil([] { return false; }, duration);
  }
};

}  // namespace vkq::testing
