#include "Platform/Transport/SessionTransfer.h"

#include <algorithm>

#include "Platform/Base/Assert.h"
#include "Platform/Transport/CurlErrors.h"
#include "Platform/Transport/SessionEngine.h"

namespace vkq::platform {
namespace {

using Clock = TransferWorker::Clock;

constexpr auto kProgressInterval = std::chrono::milliseconds(50);
constexpr std::int64_t kProgressStep = std::int64_t{1} << 20;
constexpr long kMaximumRedirects = 16;
// Room for the header lines of a typical answer, so that they are gathered without
// reallocating.
constexpr std::size_t kTypicalHeaderBytes = 512;

std::uint64_t nextTaskIdentifier() {
  static std::atomic<std::uint64_t> counter{0};
  return counter.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace

TaskRecord::TaskRecord(SharedRequest request)
    : identifier(nextTaskIdentifier()), originalRequest(request), currentRequest(std::move(request)) {}

void TaskRecord::moveTo(URLSessionTaskState next) {
  using enum URLSessionTaskState;
  bool legal = false;
  switch (state_) {
    case Suspended:
      legal = next == Running || next == Canceling || next == Completed;
      break;
    case Running:
      legal = next == Suspended || next == Canceling || next == Completed;
      break;
    case Canceling:
      legal = next == Completed;
      break;
    case Completed:
      break;
  }
  VKQAssert(legal, "illegal task state transition");
  state_ = next;
}

SessionTransfer::SessionTransfer(const std::shared_ptr<SessionEngine>& engine, SharedRequest request,
                                 Options options)
    : engine_(engine),
      outbox_(&engine->outbox()),
      record_(request),
      request_(std::move(request)),
      hasUploadProgress_(static_cast<bool>(options.uploadProgress)),
      hasDownloadProgress_(static_cast<bool>(options.downloadProgress)),
      receiveBufferSize_(options.receiveBufferSize),
      uploadProgress_(std::move(options.uploadProgress)),
      downloadProgress_(std::move(options.downloadProgress)) {}

SessionTransfer::~SessionTransfer() = default;

std::string SessionTransfer::failingURL() const {
  return request_ && request_->url ? request_->url->absoluteString() : std::string();
}

void SessionTransfer::resume() {
  const auto engine = engine_.lock();  // released after the record's lock
  std::unique_lock lock(record_.mutex);
  if (record_.state() != URLSessionTaskState::Suspended) return;
  if (!engine) {
    // A task on the worker is ended by the engine's shutdown; one never handed over is
    // cancelled here, so that its body finishes too.
    if (!record_.started) {
      lock.unlock();
      cancel();
    }
    return;
  }
  record_.moveTo(URLSessionTaskState::Running);
  // Queued under the lock so that a concurrent cancel() or suspend() reaches the worker
  // after it.
  if (record_.started) {
    engine->worker().unpause(shared_from_this());
  } else {
    record_.started = true;
    engine->worker().add(shared_from_this());
  }
}

void SessionTransfer::suspend() {
  const auto engine = engine_.lock();  // released after the record's lock
  std::lock_guard lock(record_.mutex);
  if (record_.state() != URLSessionTaskState::Running || !engine) return;
  record_.moveTo(URLSessionTaskState::Suspended);
  engine->worker().pause(shared_from_this());
}

void SessionTransfer::cancel() {
  const auto engine = engine_.lock();  // released after the record's lock
  std::unique_lock lock(record_.mutex);
  const URLSessionTaskState state = record_.state();
  if (state != URLSessionTaskState::Suspended && state != URLSessionTaskState::Running) return;
  record_.moveTo(URLSessionTaskState::Canceling);
  if (record_.started) {
    if (engine) engine->worker().cancel(shared_from_this());
    return;
  }
  lock.unlock();
  // Never started: nothing runs on the worker, so the exchange ends here.
  ErrorPtr error = sink().didFinish(makeTransportError(kURLErrorCancelled, "cancelled", failingURL()), true);
  if (engine) {
    engine->completionQueue().async([self = shared_from_this(), error] { self->complete(nullptr, error); });
  } else {
    std::lock_guard relock(record_.mutex);
    record_.moveTo(URLSessionTaskState::Completed);
    record_.error = error;
  }
}

void SessionTransfer::postToCompletionQueue(std::function<void()> job) {
  if (const auto engine = engine_.lock()) engine->completionQueue().async(std::move(job));
}

bool SessionTransfer::start(EasyHandle& easy) noexcept {
  try {
    if (!request_ || !request_->url) {
      conclude(makeTransportError(kURLErrorBadURL, "The request has no URL.", ""), false);
      return false;
    }
    SharedRequest request = request_;
    if (ErrorPtr refused = sink().willSend(request)) {
      conclude(std::move(refused), false);
      return false;
    }
    if (const auto field = firstInvalidHeaderField(request->allHTTPHeaderFields)) {
      conclude(makeTransportError(kURLErrorBadURL,
                                  "The request header field \"" + *field +
                                      "\" contains a line break, NUL or colon; the request was not sent.",
                                  failingURL()),
               false);
      return false;
    }
    {
      std::lock_guard lock(record_.mutex);
      record_.currentRequest = request;
    }
    sent_ = std::move(request);
    fieldLines_.clear();
    response_.reset();
    abortError_.reset();
    expectedLength_ = -1;
    easy_ = &easy;
    configure(*sent_);
    return true;
  } catch (const std::exception& failure) {
    easy_ = nullptr;
    conclude(makeTransportError(kURLErrorUnknown, failure.what(), failingURL()), false);
    return false;
  }
}

void SessionTransfer::prepareHandle(EasyHandle& easy, CURLSH* share) {
  CURL* handle = easy.get();
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(handle, CURLOPT_MAXREDIRS, kMaximumRedirects);
  curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, "");  // every encoding libcurl decodes
  curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
  curl_easy_setopt(handle, CURLOPT_SHARE, share);
  curl_easy_setopt(handle, CURLOPT_COOKIEFILE, "");  // cookie engine on, nothing read from disk
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &SessionTransfer::onHeader);
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &SessionTransfer::onBody);
  curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, &SessionTransfer::onProgress);
}

void SessionTransfer::configure(const URLRequest& request) {
  // Sets every option prepareHandle() leaves out, so that nothing of an earlier
  // exchange on the same handle stays.
  easy_->setURL(request.url->absoluteString());
  easy_->setReceiveBufferSize(receiveBufferSize_ > 0 ? receiveBufferSize_ : CURL_MAX_WRITE_SIZE);
  easy_->setMethod(request.HTTPMethod, request.HTTPBody ? &*request.HTTPBody : nullptr);

  for (const auto& [name, value] : request.allHTTPHeaderFields) easy_->addHeader(name, value);
  // libcurl would hold bodies over 1 MiB back for a "100 Continue" first.
  if (request.HTTPBody && !request.allHTTPHeaderFields.contains("Expect")) easy_->suppressHeader("Expect");
  easy_->applyHeaders();

  idleTimeout = request.timeoutInterval > 0
                    ? std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(request.timeoutInterval))
                    : Clock::duration::zero();
}

SessionTransfer& SessionTransfer::of(void* easy) {
  auto* transfer = static_cast<TransferWorker::Transfer*>(static_cast<EasyHandle*>(easy)->owner());
  return *static_cast<SessionTransfer*>(transfer);
}

std::size_t SessionTransfer::onHeader(char* data, std::size_t size, std::size_t count, void* easy) {
  return of(easy).receiveHeader(std::string_view(data, size * count));
}

std::size_t SessionTransfer::onBody(char* data, std::size_t size, std::size_t count, void* easy) {
  return of(easy).receiveBody(data, size * count);
}

int SessionTransfer::onProgress(void* easy, curl_off_t, curl_off_t, curl_off_t uploadTotal, curl_off_t uploaded) {
  SessionTransfer* transfer = &of(easy);
  if (uploaded != transfer->uploaded_) {
    transfer->markActive();
    transfer->reportUpload(uploaded, uploadTotal > 0 ? uploadTotal : -1, false);
  }
  return 0;
}

std::size_t SessionTransfer::receiveHeader(std::string_view line) {
  markActive();
  if (response_) return line.size();  // trailers of the final answer
  if (line.starts_with("HTTP/")) {
    // An answer starts: drop the lines of an interim answer or a redirect that came
    // before. The lines are parsed only if someone reads the fields.
    fieldLines_.clear();
    fieldLines_.reserve(kTypicalHeaderBytes);
  } else {
    fieldLines_.append(line);
  }
  return line.size();
}

ErrorPtr SessionTransfer::takeResponse() {
  CURL* handle = easy_->get();
  long status = 0;
  curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
  char* effectiveURL = nullptr;
  curl_easy_getinfo(handle, CURLINFO_EFFECTIVE_URL, &effectiveURL);
  curl_off_t contentLength = -1;
  curl_easy_getinfo(handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &contentLength);

  std::optional<URL> url;
  if (effectiveURL != nullptr && effectiveURL == sent_->url->absoluteString()) {
    url = sent_->url;  // no redirect: the URL sent, already parsed
  } else if (effectiveURL != nullptr) {
    url = URL::URLWithString(effectiveURL);
  }
  auto response = HTTPResponse::withFieldLines(std::move(url), static_cast<int>(status), std::move(fieldLines_));
  fieldLines_.clear();  // a moved-from string holds nothing specified
  response_ = response;

  // A decoded body has another length than the one announced.
  const std::int64_t bodyLength = contentLength >= 0 && !response->isContentEncoded() ? contentLength : -1;
  ErrorPtr error = sink().didReceiveResponse(*response, bodyLength);
  const std::int64_t held = sink().length();
  expectedLength_ = bodyLength >= 0 ? held + bodyLength : -1;
  std::lock_guard lock(record_.mutex);
  record_.response = response_;
  if (record_.currentRequest && response->url && record_.currentRequest->url != response->url) {
    auto redirected = std::make_shared<URLRequest>(*record_.currentRequest);
    redirected->url = response->url;
    record_.currentRequest = std::move(redirected);
  }
  record_.bytesReceived.store(held, std::memory_order_relaxed);
  return error;
}

std::size_t SessionTransfer::receiveBody(const char* data, std::size_t length) {
  markActive();
  if (!response_) {
    if ((abortError_ = takeResponse())) return CURL_WRITEFUNC_ERROR;
  }
  if ((abortError_ = sink().didReceiveData(data, length))) return CURL_WRITEFUNC_ERROR;
  record_.bytesReceived.store(sink().length(), std::memory_order_relaxed);
  reportDownload(false);
  return length;
}

void SessionTransfer::reportDownload(bool last) {
  if (!hasDownloadProgress_) return;
  const std::int64_t held = sink().length();
  const auto now = Clock::now();
  if (held == lastDownloadReported_) return;
  if (!last && held - lastDownloadReported_ < kProgressStep && now - lastDownloadReport_ < kProgressInterval) return;
  lastDownloadReport_ = now;
  lastDownloadReported_ = held;
  outbox_->post(shared_from_this(), {TransferEvent::Kind::DownloadProgress, Progress{held, expectedLength_}, {}, {}});
}

void SessionTransfer::reportUpload(std::int64_t sent, std::int64_t total, bool last) {
  uploaded_ = sent;
  if (total >= 0) uploadTotal_ = total;
  if (!hasUploadProgress_ || sent == lastUploadReported_) return;
  const auto now = Clock::now();
  if (!last && sent - lastUploadReported_ < kProgressStep && now - lastUploadReport_ < kProgressInterval) return;
  lastUploadReport_ = now;
  lastUploadReported_ = sent;
  outbox_->post(shared_from_this(), {TransferEvent::Kind::UploadProgress, Progress{sent, uploadTotal_}, {}, {}});
}

bool SessionTransfer::end(TransferWorker::EndReason reason, CURLcode code) noexcept {
  try {
    ErrorPtr error;
    bool cancelled = false;
    switch (reason) {
      case TransferWorker::EndReason::Cancelled:
        error = makeTransportError(kURLErrorCancelled, "cancelled", failingURL());
        cancelled = true;
        break;
      case TransferWorker::EndReason::TimedOut:
        error = makeTransportError(kURLErrorTimedOut, "The request timed out.", failingURL());
        break;
      case TransferWorker::EndReason::Done:
        error = outcomeOfExchange(code);
        break;
    }
    easy_ = nullptr;  // back to the worker once this returns; a restart gets one anew
    if (reason == TransferWorker::EndReason::Done && sink().shouldRestart()) return true;
    if (!error && hasUploadProgress_ && uploaded_ > 0) reportUpload(uploaded_, uploadTotal_, true);
    conclude(std::move(error), cancelled);
  } catch (const std::exception& failure) {
    easy_ = nullptr;
    try {
      conclude(makeTransportError(kURLErrorUnknown, failure.what(), failingURL()), false);
    } catch (...) {
      // Out of memory while failing: nothing more can be done for this task.
    }
  }
  return false;
}

ErrorPtr SessionTransfer::outcomeOfExchange(CURLcode code) {
  ErrorPtr error;
  if (!response_ && easy_) {
    long status = 0;
    curl_easy_getinfo(easy_->get(), CURLINFO_RESPONSE_CODE, &status);
    // An answer without a body (HEAD, 204) has not met the write callback.
    if (status > 0) {
      ErrorPtr refused = takeResponse();
      if (code == CURLE_OK) error = refused;
    }
  }
  if (code != CURLE_OK) {
    error = abortError_ ? abortError_ : makeCurlError(code, easy_ ? easy_->errorText() : "", failingURL());
  }
  return error;
}

void SessionTransfer::conclude(ErrorPtr error, bool cancelled) {
  error = sink().didFinish(std::move(error), cancelled);
  reportDownload(true);
  outbox_->post(shared_from_this(), {TransferEvent::Kind::Completion, {}, response_, std::move(error)});
}

void SessionTransfer::handle(TransferEvent event) {
  switch (event.kind) {
    case TransferEvent::Kind::UploadProgress:
    case TransferEvent::Kind::DownloadProgress: {
      const ProgressBlock& block =
          event.kind == TransferEvent::Kind::UploadProgress ? uploadProgress_ : downloadProgress_;
      try {
        if (block) block(event.progress);
      } catch (...) {
        // A progress callback's failure is the application's; the transfer goes on.
      }
      break;
    }
    case TransferEvent::Kind::Completion:
      complete(event.response, std::move(event.error));
      break;
  }
}

void SessionTransfer::complete(const std::shared_ptr<const HTTPResponse>& response, ErrorPtr error) {
  try {
    error = sink().settle(response, std::move(error));
  } catch (const std::exception& failure) {
    error = makeTransportError(kURLErrorUnknown, failure.what(), failingURL());
  }
  {
    std::lock_guard lock(record_.mutex);
    record_.moveTo(URLSessionTaskState::Completed);
    record_.error = error;
  }
  try {
    sink().deliver(response, error);
  } catch (...) {
    // A completion handler's exception must not reach the queue.
  }
  uploadProgress_ = nullptr;
  downloadProgress_ = nullptr;
}

}  // namespace vkq::platform
