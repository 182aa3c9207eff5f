// The thread that drives every exchange of one session: a libcurl multi handle polled
// with curl_multi_poll() and woken with curl_multi_wakeup(). Internal to the transport.
//
// Transfers are handed over with add() and stopped with cancel() from any thread; all
// of a transfer's hooks run on the worker thread. The worker also owns the share
// handle through which its transfers share cookies, DNS answers and TLS sessions, and
// enforces each transfer's idle time-out.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>

#include <curl/curl.h>

#include "Platform/CurlHandles.h"

namespace vkq::platform {

class TransferWorker {
 public:
  using Clock = std::chrono::steady_clock;

  // Why a transfer ended.
  enum class EndReason {
    Done,       // libcurl finished it; see the code
    Cancelled,  // cancel(), or the worker shut down
    TimedOut,   // no activity for its idle time-out
  };

  // One exchange. The worker holds it (shared) from add() until end() has returned.
  class Transfer {
   public:
    virtual ~Transfer() = default;

    // Worker thread: configures the easy handle (the share handle is the worker's).
    // False when the transfer cannot start; it has then finished by itself and the
    // worker drops it.
    virtual bool start(CURLSH* share) noexcept = 0;
    // Worker thread: the easy handle to drive; valid between start() and end().
    virtual CURL* easyHandle() noexcept = 0;
    // Worker thread: the exchange ended; the easy handle is no longer in the multi
    // handle. True asks the worker to start() the transfer again (a restarted download).
    virtual bool end(EndReason reason, CURLcode code) noexcept = 0;

    // Set by the transfer's callbacks whenever data moves (worker thread only).
    Clock::time_point lastActivity;
    // Zero: no idle time-out.
    Clock::duration idleTimeout{};
  };

  // `beforeWait` runs on the worker thread whenever it has handled what was pending and
  // is about to wait, and once more after the last transfer has ended.
  explicit TransferWorker(std::function<void()> beforeWait);
  // Ends the transfers still running with EndReason::Cancelled, then joins the thread.
  ~TransferWorker();
  TransferWorker(const TransferWorker&) = delete;
  TransferWorker& operator=(const TransferWorker&) = delete;

  // Thread-safe. The transfer starts on the worker thread soon after.
  void add(std::shared_ptr<Transfer> transfer);
  // Thread-safe. Ends the transfer with EndReason::Cancelled unless it already ended.
  void cancel(std::shared_ptr<Transfer> transfer);

  bool isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }

 private:
  struct Command {
    bool cancel;
    std::shared_ptr<Transfer> transfer;
  };

  void post(Command command);
  void run();
  void apply(Command& command);
  void begin(const std::shared_ptr<Transfer>& transfer);
  void finish(CURL* easy, EndReason reason, CURLcode code);
  // Ends the transfers that were idle too long; returns the time until the next
  // idle deadline (or `limit`).
  Clock::duration expireIdle(Clock::duration limit);

  const std::function<void()> beforeWait_;
  MultiHandle multi_;
  ShareHandle share_;

  std::mutex mutex_;
  std::deque<Command> commands_;  // guarded by mutex_
  bool stopping_ = false;         // guarded by mutex_

  // Worker thread only: running transfers by easy handle.
  std::unordered_map<CURL*, std::shared_ptr<Transfer>> running_;

  std::thread thread_;
};

}  // namespace vkq::platform
