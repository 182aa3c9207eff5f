// Session tasks: the handle an application keeps for one HTTP exchange run by an
// HTTPSessionManager.
//
// A task is an identity object made by a session manager, never by the application. It
// is created suspended; resume() starts the exchange, suspend() pauses it, cancel()
// stops it. Every accessor and operation is thread-safe and may be called from any
// thread, including from the manager's completion handlers. The manager delivers the
// outcome (exactly once per task, also after cancel()) to the completion handler given
// when the task was made.
//
// Keeping a task alive is not needed for it to run: once resumed, the exchange keeps
// what it needs until its completion handler has run.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Base/Bytes.h"
#include "Platform/Base/Error.h"
#include "Platform/HTTP/HTTPResponse.h"
#include "Platform/HTTP/URLRequest.h"
#include "Platform/Session/URLSessionTaskMetrics.h"

namespace vkq::platform {

class DownloadTaskBody;
class SessionTransfer;
struct TaskRecord;

// Where a task is in its life: made Suspended, then Running, then Completed (through
// Canceling when cancelled).
enum class URLSessionTaskState { Running = 0, Suspended = 1, Canceling = 2, Completed = 3 };

class URLSessionTask : public std::enable_shared_from_this<URLSessionTask> {
 public:
  virtual ~URLSessionTask();
  URLSessionTask(const URLSessionTask&) = delete;
  URLSessionTask& operator=(const URLSessionTask&) = delete;

  // Unique within the process and increasing in the order tasks are made; never 0.
  std::uint64_t taskIdentifier() const;

  // Starts a suspended task, or lets a task paused by suspend() go on. No effect on a
  // task that runs, is being cancelled or has completed.
  void resume();
  // Pauses a running task: no data moves and its idle time-out stops until resume();
  // the server may give up on it meanwhile. No effect on a task in any other state.
  void suspend();
  // Stops the task: its completion handler runs with kURLErrorCancelled, unless the
  // exchange had already finished. A task never resumed is cancelled without being sent.
  // No effect on a task that is being cancelled or has completed.
  void cancel();

  // The task's state now.
  URLSessionTaskState state() const;
  // The request the task was made with; absent when made from resume data that holds
  // no request, or when the manager was given none.
  std::optional<URLRequest> originalRequest() const;
  // The request as it is being sent: the original one, or the one a resumed download
  // sends (with its Range and If-Range fields), after redirects the followed URL.
  std::optional<URLRequest> currentRequest() const;
  // The head of the final answer (after redirects); absent until it has arrived.
  std::shared_ptr<const HTTPResponse> response() const;
  // The error the task completed with; absent while it runs and after a success.
  ErrorPtr error() const;

  // Body bytes received so far (after content decoding; for a resumed download,
  // including the bytes that were already on disk).
  std::int64_t countOfBytesReceived() const;
  // Timings and counts of the task's exchanges so far (URLSessionTaskMetrics.h);
  // complete once the completion handler runs.
  URLSessionTaskMetrics metrics() const;

 protected:
  // Made by the session manager; `transfer` carries out the exchange.
  explicit URLSessionTask(std::shared_ptr<SessionTransfer> transfer);

  // The transfer behind the task.
  const std::shared_ptr<SessionTransfer>& transfer() const { return transfer_; }

 private:
  std::shared_ptr<SessionTransfer> transfer_;
  TaskRecord& record_;  // the transfer's
};

// A task whose answer body is collected in memory and handed to the completion handler.
class URLSessionDataTask : public URLSessionTask {
 public:
  // Made by the session manager only.
  explicit URLSessionDataTask(std::shared_ptr<SessionTransfer> transfer);
};

// A task whose answer body is written to a temporary file, then moved where the
// manager's destination callback says.
class URLSessionDownloadTask : public URLSessionTask {
 public:
  // Made by the session manager only.
  explicit URLSessionDownloadTask(std::shared_ptr<SessionTransfer> transfer);

  // Cancels the task; `handler` then runs on the manager's completion queue, before the
  // completion handler, with resume data, or with absent when the download cannot be
  // resumed (no validator from the server, no bytes written, completed). Called after
  // the download has ended, it hands over the resume data the download ended with.
  void cancelByProducingResumeData(std::function<void(std::optional<Bytes> resumeData)> handler);
  // Cancels the task like the handler form; the future holds the same resume data (or
  // absent) as soon as the transfer has stopped, before the completion queue hears of
  // it. Called again, or after the download has ended, it holds the same. Waiting for it
  // waits only for the manager's worker thread to stop the transfer (the worker runs no
  // callbacks), so it may be done on any thread, in callbacks too; it ends also when
  // the manager is gone.
  std::shared_future<std::optional<Bytes>> cancelByProducingResumeData();

  // The partial file that `resumeData` continues, when it is resume data of this
  // transport and the file lies in HTTPSessionManager::partialDownloadsFolder(); absent
  // otherwise. For removing the file of resume data that will not be used.
  static std::optional<std::filesystem::path> partialFileOfResumeData(const Bytes& resumeData);
  // The URL whose download `resumeData` continues; absent when it is not resume data
  // of this transport. For refusing resume data stored for another request.
  static std::optional<std::string> URLOfResumeData(const Bytes& resumeData);

 private:
  DownloadTaskBody& body() const;
};

}  // namespace vkq::platform
