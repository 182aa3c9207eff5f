#include "Classes/VKQVeskAsync.h"

#include <utility>

#include "Classes/VKQVeskRequest.h"

std::future<std::shared_ptr<VKQVeskResult>> VKQRequestFuture(const std::shared_ptr<VKQVeskRequest>& request) {
  // Shared: a std::function must be copyable, and the agent copies the callback.
  auto promise = std::make_shared<std::promise<std::shared_ptr<VKQVeskResult>>>();
  auto future = promise->get_future();
  request->setDeliversCancellation(true);
  request->requestCompletion(
      [promise](std::shared_ptr<VKQVeskResult> result) { promise->set_value(std::move(result)); });
  return future;
}

void VKQRequestAwaitable::await_suspend(std::coroutine_handle<> coroutine) {
  request_->setDeliversCancellation(true);
  // The awaitable lives in the suspended coroutine's frame until the resumption.
  request_->requestCompletion([this, coroutine](std::shared_ptr<VKQVeskResult> result) {
    result_ = std::move(result);
    coroutine.resume();
  });
}
