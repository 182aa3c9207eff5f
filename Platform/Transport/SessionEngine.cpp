#include "Platform/Transport/SessionEngine.h"

#include <thread>

#include "Platform/Base/HandoffBatch.h"
#include "Platform/Transport/SessionTransfer.h"

namespace vkq::platform {

void CompletionOutbox::flush() {
  if (pending_.empty()) return;
  // The batch goes whole; the outbox starts again with as much room.
  std::vector<Entry> batch;
  batch.reserve(pending_.capacity());
  batch.swap(pending_);
  queue_.async([batch = std::move(batch)]() mutable {
    // The callbacks these events post go to the main queue together, and requests
    // that handlers start reach the worker together: one wake-up each.
    const HandoffBatch handoffs;
    for (Entry& entry : batch) {
      try {
        entry.transfer->handle(std::move(entry.event));
      } catch (...) {
        // Each event guards its own callbacks; nothing may stop the ones after it.
      }
      entry.transfer.reset();  // release it here, in order
    }
  });
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
