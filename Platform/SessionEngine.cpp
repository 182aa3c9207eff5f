#include "Platform/SessionEngine.h"

#include <thread>

#include "Platform/SessionTransfer.h"

namespace vkq::platform {

void CompletionOutbox::flush() {
  if (pending_.empty()) return;
  queue_.async([jobs = std::move(pending_)]() mutable {
    for (auto& job : jobs) {
      try {
        job();
      } catch (...) {
        // Each job guards its own callbacks; nothing may stop the ones after it.
      }
      job = nullptr;  // release what it holds here, in order
    }
  });
  pending_.clear();
}

SessionEngine::SessionEngine()
    : completionQueue_(std::make_unique<SerialQueue>("vkq.completion")),
      outbox_(std::make_unique<CompletionOutbox>(*completionQueue_)),
      worker_(std::make_unique<TransferWorker>([outbox = outbox_.get()] { outbox->flush(); },
                                               &SessionTransfer::prepareHandle)),
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
