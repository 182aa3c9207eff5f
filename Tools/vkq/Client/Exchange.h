// Exchange: runs one request to its outcome on the calling thread, for a program that
// waits for exactly one result.
//
// REQUIRES: the main queue is drained manually (MainQueue::useManualDraining()), and
// the calling thread is the one that drains it; the request's callbacks then run here.
// When `interrupted` becomes true (set by a signal watcher, which also posts a job to
// the main queue to wake the wait), the request is cancelled through the agent, which
// has stored a download's resume data when the cancel returns, and no result is
// delivered.
#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "Classes/VKQVeskRequest.h"

class VKQVeskResult;

namespace vkq::tool {

// Null when the exchange was interrupted.
using ExchangeOutcome = std::shared_ptr<VKQVeskResult>;

// Calls `start` with a callback that records the result (pass it as the completion
// callback, or as both success and failure), then drains the main queue until the
// result arrives or `interrupted` turns true.
ExchangeOutcome runExchange(const std::shared_ptr<VKQVeskRequest>& request,
                            const std::function<void(VKQVeskRequest::ResultBlock)>& start,
                            const std::atomic<bool>& interrupted);

}  // namespace vkq::tool
