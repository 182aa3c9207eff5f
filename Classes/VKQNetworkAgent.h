// VKQNetworkAgent: the one process-wide object that runs requests.
//
// addRequest() turns a request into a transport task, keeps the request in a registry
// keyed by the task's identifier while it runs, and when the transport finishes lets
// the request's response serializer build its VKQVeskResult and delivers it on the
// main queue. Requests that fail before anything is sent (no task could be made: -2;
// network not reachable: -1) are delivered the same way.
//
// Threads: addRequest() and cancelRequest() may be called from any thread. Answers are
// decoded on the transport's completion queue; every callback runs on the main queue.
#pragma once

#include <memory>

class VKQVeskRequest;

class VKQNetworkAgent {
 public:
  // The agent, made on first use (thread-safe) and alive until the process ends.
  static VKQNetworkAgent& sharedAgent();

  // Starts the request. REQUIRES: request is not null (fatal assertion otherwise).
  void addRequest(const std::shared_ptr<VKQVeskRequest>& request);
  // Cancels the request's task and forgets the request: no callback runs for it.
  // REQUIRES: request is not null.
  void cancelRequest(const std::shared_ptr<VKQVeskRequest>& request);
};
