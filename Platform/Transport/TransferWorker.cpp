#include "Platform/Transport/TransferWorker.h"

#include <algorithm>
#include <vector>

#include <pthread.h>

namespace vkq::platform {
namespace {

// Longest sleep of the worker, so that idle deadlines are looked at now and then even
// when libcurl has nothing to say.
constexpr std::chrono::milliseconds kMaximumPoll{1000};
// Idle easy handles kept for reuse; enough for a busy session's turnover, while a
// burst of many transfers does not leave as many handles behind.
constexpr std::size_t kMaximumIdleHandles = 64;

}  // namespace

TransferWorker::TransferWorker(std::function<void()> beforeWait, HandlePreparation prepareHandle)
    : beforeWait_(std::move(beforeWait)),
      prepareHandle_(std::move(prepareHandle)),
      multi_(makeMultiHandle()),
      share_(makeShareHandle()),
      waker_(std::make_shared<Waker>([this] { wakeIfWaiting(); })) {
  idleHandles_.reserve(kMaximumIdleHandles);  // keepHandle() never allocates
  // The share handle is only used on the worker thread, so it needs no lock callbacks.
  curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
  curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
  curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  thread_ = std::thread([this] { run(); });
}

TransferWorker::~TransferWorker() {
  waker_->close();  // a batch may still hold a wake-up for this worker
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  curl_multi_wakeup(multi_.get());
  thread_.join();
}

void TransferWorker::add(std::shared_ptr<Transfer> transfer) { post({Command::Kind::Start, std::move(transfer)}); }

void TransferWorker::cancel(std::shared_ptr<Transfer> transfer) {
  post({Command::Kind::Cancel, std::move(transfer)});
}

void TransferWorker::pause(std::shared_ptr<Transfer> transfer) { post({Command::Kind::Pause, std::move(transfer)}); }

void TransferWorker::unpause(std::shared_ptr<Transfer> transfer) {
  post({Command::Kind::Unpause, std::move(transfer)});
}

void TransferWorker::post(Command command) {
  {
    std::lock_guard lock(mutex_);
    commands_.push_back(std::move(command));
  }
  Waker::wake(waker_);
}

void TransferWorker::wakeIfWaiting() {
  bool wake;
  {
    // Only a worker waiting in curl_multi_poll() needs waking, and once: a busy one
    // takes the commands at the start of its next round.
    std::lock_guard lock(mutex_);
    wake = waiting_;
    waiting_ = false;
  }
  if (wake) curl_multi_wakeup(multi_.get());
}

void TransferWorker::run() {
  pthread_setname_np(pthread_self(), "vkq.transfer");
  // Swapped with commands_ each round: both keep their capacity, so handing commands
  // over allocates nothing once the session is warm.
  std::vector<Command> commands;
  for (;;) {
    roundStart_ = Clock::now();
    bool stopping;
    {
      std::lock_guard lock(mutex_);
      commands.swap(commands_);
      stopping = stopping_;
      waiting_ = false;
    }
    for (Command& command : commands) {
      if (stopping && command.kind == Command::Kind::Start) {
        command.transfer->end(EndReason::Cancelled, CURLE_OK);  // never started
      } else {
        apply(command);
      }
    }
    commands.clear();
    if (stopping) break;

    int stillRunning = 0;
    curl_multi_perform(multi_.get(), &stillRunning);
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_.get(), &queued)) {
      if (message->msg != CURLMSG_DONE) continue;
      const CURLcode code = message->data.result;  // `message` dies with the removal
      EasyHandle* easy = nullptr;
      curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &easy);
      if (easy != nullptr && easy->owner() != nullptr) {
        finish(*static_cast<Transfer*>(easy->owner()), EndReason::Done, code);
      }
    }

    long curlTimeout = -1;
    curl_multi_timeout(multi_.get(), &curlTimeout);
    Clock::duration limit = kMaximumPoll;
    if (curlTimeout >= 0) limit = std::min<Clock::duration>(limit, std::chrono::milliseconds(curlTimeout));
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(handleTimers(limit));
    beforeWait_();
    {
      std::lock_guard lock(mutex_);
      if (!commands_.empty()) continue;  // posted during this round: handled before any wait
      waiting_ = true;
    }
    curl_multi_poll(multi_.get(), nullptr, 0, static_cast<int>(wait.count()), nullptr);
  }

  while (!running_.empty()) finish(*running_.back().transfer, EndReason::Cancelled, CURLE_OK);
  while (!restarts_.empty()) endWaiting(*restarts_.back().transfer, EndReason::Cancelled, CURLE_OK);
  beforeWait_();
}

void TransferWorker::apply(Command& command) {
  Transfer& transfer = *command.transfer;
  if (command.kind == Command::Kind::Start) {
    begin(command.transfer);
    return;
  }
  if (transfer.waitingToRestart_ && command.kind == Command::Kind::Cancel) {
    endWaiting(transfer, EndReason::Cancelled, CURLE_OK);
    return;
  }
  if (transfer.runningSlot_ == Transfer::kNotRunning) return;  // ended already, or waits
  switch (command.kind) {
    case Command::Kind::Cancel:
      finish(transfer, EndReason::Cancelled, CURLE_OK);
      break;
    case Command::Kind::Pause:
      transfer.paused_ = true;
      curl_easy_pause(running_[transfer.runningSlot_].easy->get(), CURLPAUSE_ALL);
      break;
    case Command::Kind::Unpause:
      // The idle time-out starts afresh; data held back may be delivered right here.
      transfer.paused_ = false;
      transfer.lastActivity = roundStart_;
      curl_easy_pause(running_[transfer.runningSlot_].easy->get(), CURLPAUSE_CONT);
      break;
    case Command::Kind::Start:
      break;
  }
}

void TransferWorker::begin(const std::shared_ptr<Transfer>& transfer) {
  transfer->roundStart_ = &roundStart_;
  transfer->lastActivity = roundStart_;
  std::unique_ptr<EasyHandle> easy = takeHandle();
  if (!easy) {
    if (transfer->end(EndReason::Done, CURLE_OUT_OF_MEMORY)) begin(transfer);
    return;
  }
  if (!transfer->start(*easy)) {
    keepHandle(std::move(easy));
    return;
  }
  CURL* handle = easy->get();
  easy->setOwner(static_cast<Transfer*>(transfer.get()));
  transfer->runningSlot_ = running_.size();
  running_.push_back(Running{transfer, std::move(easy)});
  curl_multi_add_handle(multi_.get(), handle);
  if (running_.size() > mostRunning_) {
    // By default libcurl keeps 4 connections per handle in the multi handle. A
    // handle leaves it when its exchange ends, before the application's next
    // request comes, and the dip would close connections that keep-alive is to
    // reuse: so count the most handles there were at once instead.
    mostRunning_ = running_.size();
    curl_multi_setopt(multi_.get(), CURLMOPT_MAXCONNECTS, static_cast<long>(4 * mostRunning_));
  }
}

void TransferWorker::finish(Transfer& transfer, EndReason reason, CURLcode code) {
  const std::size_t slot = transfer.runningSlot_;
  if (slot >= running_.size() || running_[slot].transfer.get() != &transfer) return;
  Running running = std::move(running_[slot]);
  // The last one moves into the free slot.
  if (slot + 1 != running_.size()) {
    running_[slot] = std::move(running_.back());
    running_[slot].transfer->runningSlot_ = slot;
  }
  running_.pop_back();
  curl_multi_remove_handle(multi_.get(), running.easy->get());
  transfer.runningSlot_ = Transfer::kNotRunning;
  transfer.paused_ = false;
  transfer.restartDelay = Clock::duration::zero();
  const bool again = transfer.end(reason, code);
  running.easy->setOwner(nullptr);
  keepHandle(std::move(running.easy));
  if (!again) return;
  if (transfer.restartDelay <= Clock::duration::zero()) {
    begin(running.transfer);
  } else {
    transfer.waitingToRestart_ = true;
    restarts_.push_back({Clock::now() + transfer.restartDelay, std::move(running.transfer)});
  }
}

void TransferWorker::endWaiting(Transfer& transfer, EndReason reason, CURLcode code) {
  const auto at = std::find_if(restarts_.begin(), restarts_.end(),
                               [&](const Restart& restart) { return restart.transfer.get() == &transfer; });
  if (at == restarts_.end()) return;
  const std::shared_ptr<Transfer> held = std::move(at->transfer);  // alive through end()
  restarts_.erase(at);
  transfer.waitingToRestart_ = false;
  // No easy handle: a transfer that ends while waiting is not started again.
  transfer.end(reason, code);
}

std::unique_ptr<EasyHandle> TransferWorker::takeHandle() noexcept {
  if (!idleHandles_.empty()) {
    std::unique_ptr<EasyHandle> easy = std::move(idleHandles_.back());
    idleHandles_.pop_back();
    return easy;
  }
  try {
    auto easy = std::make_unique<EasyHandle>();
    prepareHandle_(*easy, share_.get());
    return easy;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void TransferWorker::keepHandle(std::unique_ptr<EasyHandle> easy) {
  // A handle that grew a large receive buffer (downloads) would hold on to it.
  if (idleHandles_.size() >= kMaximumIdleHandles || easy->hasLargeReceiveBuffer()) return;
  easy->reuse();
  idleHandles_.push_back(std::move(easy));
}

TransferWorker::Clock::duration TransferWorker::handleTimers(Clock::duration limit) {
  const auto now = Clock::now();
  const auto until = [&](Clock::time_point at) {
    if (at > now) limit = std::min(limit, at - now);
    return at <= now;
  };
  std::vector<std::shared_ptr<Transfer>> overdue;
  for (const Running& running : running_) {
    const auto& transfer = running.transfer;
    const bool idle = transfer->idleTimeout != Clock::duration::zero() && !transfer->paused_ &&
                      until(transfer->lastActivity + transfer->idleTimeout);
    if (until(transfer->deadline) || idle) overdue.push_back(transfer);
  }
  for (const auto& transfer : overdue) finish(*transfer, EndReason::TimedOut, CURLE_OPERATION_TIMEDOUT);

  std::vector<std::shared_ptr<Transfer>> due, late;
  for (const Restart& restart : restarts_) {
    if (until(restart.transfer->deadline)) {
      late.push_back(restart.transfer);
    } else if (until(restart.at)) {
      due.push_back(restart.transfer);
    }
  }
  for (const auto& transfer : late) endWaiting(*transfer, EndReason::TimedOut, CURLE_OPERATION_TIMEDOUT);
  for (const auto& transfer : due) {
    std::erase_if(restarts_, [&](const Restart& restart) { return restart.transfer == transfer; });
    transfer->waitingToRestart_ = false;
    begin(transfer);
  }
  return overdue.empty() && late.empty() && due.empty() ? limit : Clock::duration::zero();
}

}  // namespace vkq::platform
