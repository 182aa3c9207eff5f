#include "Platform/TransferWorker.h"

#include <algorithm>
#include <vector>

#include <pthread.h>

namespace vkq::platform {
namespace {

// Longest sleep of the worker, so that idle deadlines are looked at now and then even
// when libcurl has nothing to say.
constexpr std::chrono::milliseconds kMaximumPoll{1000};

}  // namespace

TransferWorker::TransferWorker(std::function<void()> beforeWait)
    : beforeWait_(std::move(beforeWait)), multi_(makeMultiHandle()), share_(makeShareHandle()) {
  // The share handle is only used on the worker thread, so it needs no lock callbacks.
  curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
  curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
  curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  thread_ = std::thread([this] { run(); });
}

TransferWorker::~TransferWorker() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  curl_multi_wakeup(multi_.get());
  thread_.join();
}

void TransferWorker::add(std::shared_ptr<Transfer> transfer) { post({false, std::move(transfer)}); }

void TransferWorker::cancel(std::shared_ptr<Transfer> transfer) { post({true, std::move(transfer)}); }

void TransferWorker::post(Command command) {
  bool wake;
  {
    std::lock_guard lock(mutex_);
    // Commands already waiting mean a wake-up is already on its way.
    wake = commands_.empty();
    commands_.push_back(std::move(command));
  }
  if (wake) curl_multi_wakeup(multi_.get());
}

void TransferWorker::run() {
  pthread_setname_np(pthread_self(), "vkq.transfer");
  for (;;) {
    std::deque<Command> commands;
    bool stopping;
    {
      std::lock_guard lock(mutex_);
      commands.swap(commands_);
      stopping = stopping_;
    }
    for (Command& command : commands) {
      if (stopping && !command.cancel) {
        command.transfer->end(EndReason::Cancelled, CURLE_OK);  // never started
      } else {
        apply(command);
      }
    }
    if (stopping) break;

    int stillRunning = 0;
    curl_multi_perform(multi_.get(), &stillRunning);
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_.get(), &queued)) {
      if (message->msg != CURLMSG_DONE) continue;
      CURL* easy = message->easy_handle;
      const CURLcode code = message->data.result;  // `message` dies with the removal
      finish(easy, EndReason::Done, code);
    }

    long curlTimeout = -1;
    curl_multi_timeout(multi_.get(), &curlTimeout);
    Clock::duration limit = kMaximumPoll;
    if (curlTimeout >= 0) limit = std::min<Clock::duration>(limit, std::chrono::milliseconds(curlTimeout));
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(expireIdle(limit));
    beforeWait_();
    curl_multi_poll(multi_.get(), nullptr, 0, static_cast<int>(wait.count()), nullptr);
  }

  while (!running_.empty()) finish(running_.begin()->first, EndReason::Cancelled, CURLE_OK);
  beforeWait_();
}

void TransferWorker::apply(Command& command) {
  if (!command.cancel) {
    begin(command.transfer);
    return;
  }
  CURL* easy = command.transfer->easyHandle();
  const auto it = running_.find(easy);
  if (it != running_.end() && it->second == command.transfer) finish(easy, EndReason::Cancelled, CURLE_OK);
}

void TransferWorker::begin(const std::shared_ptr<Transfer>& transfer) {
  transfer->lastActivity = Clock::now();
  if (!transfer->start(share_.get())) return;
  CURL* easy = transfer->easyHandle();
  running_[easy] = transfer;
  curl_multi_add_handle(multi_.get(), easy);
}

void TransferWorker::finish(CURL* easy, EndReason reason, CURLcode code) {
  const auto it = running_.find(easy);
  if (it == running_.end()) return;
  std::shared_ptr<Transfer> transfer = std::move(it->second);
  running_.erase(it);
  curl_multi_remove_handle(multi_.get(), easy);
  if (transfer->end(reason, code)) begin(transfer);
}

TransferWorker::Clock::duration TransferWorker::expireIdle(Clock::duration limit) {
  const auto now = Clock::now();
  std::vector<CURL*> expired;
  for (const auto& [easy, transfer] : running_) {
    if (transfer->idleTimeout == Clock::duration::zero()) continue;
    const auto deadline = transfer->lastActivity + transfer->idleTimeout;
    if (deadline <= now) {
      expired.push_back(easy);
    } else {
      limit = std::min(limit, deadline - now);
    }
  }
  for (CURL* easy : expired) finish(easy, EndReason::TimedOut, CURLE_OPERATION_TIMEDOUT);
  return expired.empty() ? limit : Clock::duration::zero();
}

}  // namespace vkq::platform
