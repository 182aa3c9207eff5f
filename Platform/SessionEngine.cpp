#include "Platform/SessionEngine.h"

#include <thread>

namespace vkq::platform {

SessionEngine::SessionEngine()
    : completionQueue_(std::make_unique<SerialQueue>("vkq.completion")),
      worker_(std::make_unique<TransferWorker>()),
      responseSerializer_(std::make_shared<ResponseSerializerSlot>()) {
  responseSerializer_->set(HTTPResponseSerializer::serializer());
}

SessionEngine::~SessionEngine() {
  worker_.reset();  // ends the running transfers; their completions go to the queue
  if (completionQueue_->isCurrent()) {
    // Released from one of its own jobs (a handler held the last reference): the queue
    // cannot join itself, so another thread finishes it once this job returns.
    std::thread([queue = std::move(completionQueue_)] {}).detach();
  }
}

}  // namespace vkq::platform
