// A request's one result as a std::future or through co_await, beside the callbacks.
//
//   std::shared_ptr<VKQVeskResult> result = VKQRequestFuture(request).get();
//   std::shared_ptr<VKQVeskResult> result = co_await VKQRequestAwaitable(request);
//
// The awaitable works in any coroutine type; VKQDetachedCoroutine is one for code
// that no one waits for.
//
// Both start the request through the shared agent as requestCompletion() does and hand
// over the result its completion callback receives (null when the request's response
// serializer type selects no decoder). They set the request's deliversCancellation():
// VKQNetworkAgent::cancelRequest() then ends the wait with a failure result, code
// VKQResponseCodeHTTPError, and the request's error() is kURLErrorCancelled in
// kURLErrorDomain: a wait never outlives its request.
//
// Threads: the result is handed over on the main queue, like every callback. A thread
// that runs the main queue's jobs (a callback, or a program that drains the queue
// itself) must not block on the future: its value would never come.
#pragma once

#include <coroutine>
#include <exception>
#include <future>
#include <memory>

class VKQVeskRequest;
class VKQVeskResult;

// Starts the request and returns the future of its result.
// REQUIRES: request is not null and owned by a std::shared_ptr.
std::future<std::shared_ptr<VKQVeskResult>> VKQRequestFuture(const std::shared_ptr<VKQVeskRequest>& request);

// co_await VKQRequestAwaitable(request) suspends the coroutine, starts the request and
// resumes the coroutine on the main queue with the result, inside the delivery of the
// request's callbacks. Await it once.
// REQUIRES: request is not null and owned by a std::shared_ptr.
class VKQRequestAwaitable {
 public:
  // Awaits `request`; nothing starts before the co_await.
  explicit VKQRequestAwaitable(std::shared_ptr<VKQVeskRequest> request) : request_(std::move(request)) {}

  // The request is never finished before it starts: always suspends.
  bool await_ready() const noexcept { return false; }
  // Starts the request; its completion resumes `coroutine`.
  void await_suspend(std::coroutine_handle<> coroutine);
  // The request's result.
  std::shared_ptr<VKQVeskResult> await_resume() noexcept { return std::move(result_); }

 private:
  std::shared_ptr<VKQVeskRequest> request_;
  std::shared_ptr<VKQVeskResult> result_;
};

// A coroutine type for code that awaits requests and that no one waits for: it runs
// from its call to its first suspension, and on from each resumption to its end, then
// frees itself. An exception escaping it ends the program (std::terminate).
//
//   VKQDetachedCoroutine fetch(std::shared_ptr<VKQVeskRequest> request) {
//     auto result = co_await VKQRequestAwaitable(request);
//     ...
//   }
struct VKQDetachedCoroutine {
  // The coroutine's promise: no result, no suspension at either end.
  struct promise_type {
    // A handle-less return object: nothing refers to the coroutine.
    VKQDetachedCoroutine get_return_object() noexcept { return {}; }
    // Runs at once, in the call.
    std::suspend_never initial_suspend() noexcept { return {}; }
    // Frees the coroutine when it ends.
    std::suspend_never final_suspend() noexcept { return {}; }
    // No result.
    void return_void() noexcept {}
    // No one could receive the exception.
    void unhandled_exception() noexcept { std::terminate(); }
  };
};
