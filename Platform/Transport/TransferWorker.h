// The thread that drives every exchange of one session: a libcurl multi handle polled
// with curl_multi_poll() and woken with curl_multi_wakeup(). Internal to the transport.
//
// Transfers are handed over with add() and stopped with cancel() from any thread; all
// of a transfer's hooks run on the worker thread. The worker also owns the share
// handle through which its transfers share cookies, DNS answers and TLS sessions, lends
// each running transfer an easy handle (kept and lent again afterwards, so that an
// exchange does not pay for making and configuring a new one), and enforces each
// transfer's idle time-out.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <curl/curl.h>

#include "Platform/Base/HandoffBatch.h"
#include "Platform/Transport/CurlHandles.h"

namespace vkq::platform {

class TransferWorker {
 public:
  using Clock = std::chrono::steady_clock;

  // Why a transfer ended.
  enum class EndReason {
    Done,       // libcurl finished it; see the code
    Cancelled,  // cancel(), or the worker shut down
    TimedOut,   // no activity for its idle time-out, or its deadline passed
  };

  // One exchange. The worker holds it (shared) from add() until end() has returned.
  class Transfer {
   public:
    virtual ~Transfer() = default;

    // Worker thread: configures `easy` for this exchange. The worker lends the handle
    // until end() has returned; it comes with the worker's HandlePreparation done and
    // otherwise with the options the previous exchange on it set, so a transfer sets
    // every option it varies. False when the transfer cannot start; it has then
    // finished by itself and the worker drops it.
    virtual bool start(EasyHandle& easy) noexcept = 0;
    // Worker thread: the exchange ended; the easy handle is no longer in the multi
    // handle but may still be read. True asks the worker to start() the transfer again
    // after restartDelay (a restarted download, a retry). Also called without start()
    // when no easy handle could be made (CURLE_OUT_OF_MEMORY), and without a handle
    // for a transfer cancelled or overdue while it waited to start again.
    virtual bool end(EndReason reason, CURLcode code) noexcept = 0;

    // Worker thread, from the transfer's callbacks: data moved. It counts as of the
    // start of the worker's current round, which lasts far less than any time-out:
    // the clock is read once per round rather than once per callback.
    void markActive() { lastActivity = *roundStart_; }

    Clock::time_point lastActivity;  // worker thread
    // Zero: no idle time-out.
    Clock::duration idleTimeout{};
    // The transfer ends with EndReason::TimedOut at this time, whatever it is doing.
    Clock::time_point deadline = Clock::time_point::max();
    // How long to wait before starting again when end() asks for it.
    Clock::duration restartDelay{};

   private:
    friend class TransferWorker;
    const Clock::time_point* roundStart_ = nullptr;  // the worker's, from begin() on
    static constexpr std::size_t kNotRunning = static_cast<std::size_t>(-1);
    std::size_t runningSlot_ = kNotRunning;  // worker thread: its place in running_
    bool paused_ = false;                    // worker thread
    bool waitingToRestart_ = false;          // worker thread: in restarts_
  };

  // Sets the options shared by every exchange on a new easy handle (worker thread);
  // the share handle is the worker's.
  using HandlePreparation = std::function<void(EasyHandle& easy, CURLSH* share)>;

  // `beforeWait` runs on the worker thread whenever it has handled what was pending and
  // is about to wait, and once more after the last transfer has ended.
  TransferWorker(std::function<void()> beforeWait, HandlePreparation prepareHandle);
  // Ends the transfers still running with EndReason::Cancelled, then joins the thread.
  ~TransferWorker();
  TransferWorker(const TransferWorker&) = delete;
  TransferWorker& operator=(const TransferWorker&) = delete;

  // Thread-safe. The transfer starts on the worker thread soon after: at once, or when
  // the HandoffBatch open on the calling thread closes. The same holds for cancel(),
  // pause() and unpause().
  void add(std::shared_ptr<Transfer> transfer);
  // Thread-safe. Ends the transfer with EndReason::Cancelled unless it already ended.
  void cancel(std::shared_ptr<Transfer> transfer);
  // Thread-safe. Pauses a running transfer: no data moves in either direction and its
  // idle time-out stops, until unpause(). No effect on a transfer that is not running.
  void pause(std::shared_ptr<Transfer> transfer);
  void unpause(std::shared_ptr<Transfer> transfer);

 private:
  struct Command {
    enum class Kind { Start, Cancel, Pause, Unpause };
    Kind kind;
    std::shared_ptr<Transfer> transfer;
  };

  void post(Command command);
  // Wakes the worker if it waits in curl_multi_poll().
  void wakeIfWaiting();
  void run();
  void apply(Command& command);
  void begin(const std::shared_ptr<Transfer>& transfer);
  void finish(Transfer& transfer, EndReason reason, CURLcode code);
  // A handle to lend: an idle one, or a new one (null when none can be made).
  std::unique_ptr<EasyHandle> takeHandle() noexcept;
  // Keeps a handle whose transfer is over for the next one, unless enough are idle.
  void keepHandle(std::unique_ptr<EasyHandle> easy);
  // Ends the transfers that were idle too long or are past their deadline, and starts
  // those whose restart delay is over; returns the time until the next such event (or
  // `limit`).
  Clock::duration handleTimers(Clock::duration limit);
  // Removes a transfer that waits to start again from restarts_ and ends it.
  void endWaiting(Transfer& transfer, EndReason reason, CURLcode code);

  const std::function<void()> beforeWait_;
  const HandlePreparation prepareHandle_;
  MultiHandle multi_;
  ShareHandle share_;

  std::mutex mutex_;
  std::vector<Command> commands_;  // guarded by mutex_
  bool stopping_ = false;          // guarded by mutex_
  bool waiting_ = false;           // guarded by mutex_: in curl_multi_poll(), not yet woken
  const std::shared_ptr<Waker> waker_;

  struct Running {
    std::shared_ptr<Transfer> transfer;
    std::unique_ptr<EasyHandle> easy;
  };
  // Worker thread only: the running transfers (each knows its slot, and its easy
  // handle's owner is the transfer), and handles ready for reuse
  // (declared after share_, so they go before it).
  std::vector<Running> running_;
  std::vector<std::unique_ptr<EasyHandle>> idleHandles_;
  struct Restart {
    Clock::time_point at;
    std::shared_ptr<Transfer> transfer;
  };
  std::vector<Restart> restarts_;  // worker thread: transfers waiting to start again
  std::size_t mostRunning_ = 0;
  Clock::time_point roundStart_;  // worker thread: when the current round began

  std::thread thread_;
};

}  // namespace vkq::platform
