#include "Tools/vkq/Client/Exchange.h"

#include <chrono>

#include "Classes/VKQNetworkAgent.h"
#include "Classes/VKQVeskResult.h"
#include "Platform/Base/MainQueue.h"

namespace vkq::tool {

ExchangeOutcome runExchange(const std::shared_ptr<VKQVeskRequest>& request,
                            const std::function<void(VKQVeskRequest::ResultBlock)>& start,
                            const std::atomic<bool>& interrupted) {
  using vkq::platform::MainQueue;
  // Shared with the callback, which may outlive this call if it was already queued
  // when the exchange was interrupted.
  auto outcome = std::make_shared<ExchangeOutcome>();
  start([outcome](std::shared_ptr<VKQVeskResult> result) {
    if (!*outcome) *outcome = std::move(result);
  });
  const auto finished = [&] { return *outcome != nullptr || interrupted.load(); };
  // A download has no upper bound on its duration: wait in slices.
  while (!MainQueue::runUntil(finished, std::chrono::seconds(1))) {
  }
  if (*outcome) return *outcome;
  VKQNetworkAgent::sharedAgent().cancelRequest(request);
  return nullptr;
}

}  // namespace vkq::tool
