#include "Platform/Base/HandoffBatch.h"

#include <algorithm>
#include <vector>

namespace vkq::platform {
namespace {

struct ThreadBatch {
  int depth = 0;
  // Receivers to wake when the outermost batch closes; kept, with its room, for the
  // thread's next batch.
  std::vector<std::shared_ptr<Waker>> pending;
};

thread_local ThreadBatch batch;

}  // namespace

void Waker::wake(const std::shared_ptr<Waker>& waker) {
  if (batch.depth == 0) {
    waker->wakeNow();
  } else if (std::ranges::find(batch.pending, waker) == batch.pending.end()) {
    batch.pending.push_back(waker);
  }
}

void Waker::wakeNow() {
  std::lock_guard lock(mutex_);
  if (wake_) wake_();
}

void Waker::close() {
  std::lock_guard lock(mutex_);
  wake_ = nullptr;
}

HandoffBatch::HandoffBatch() { ++batch.depth; }

bool HandoffBatch::isOpen() { return batch.depth > 0; }

HandoffBatch::~HandoffBatch() {
  if (--batch.depth > 0) return;
  // A wake-up may run a batch of its own on this thread (a dispatcher that drains the
  // main queue at once), which fills `pending` anew: take the list first.
  std::vector<std::shared_ptr<Waker>> waking;
  waking.swap(batch.pending);
  for (const std::shared_ptr<Waker>& waker : waking) {
    try {
      waker->wakeNow();
    } catch (...) {
      // A receiver that cannot be woken now notices its work on its next round.
    }
  }
  waking.clear();
  if (batch.pending.empty()) batch.pending.swap(waking);  // keeps the room for the next batch
}

}  // namespace vkq::platform
