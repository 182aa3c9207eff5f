#include "Platform/Transport/SessionTransfer.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "Platform/Base/Assert.h"
#include "Platform/Transport/CurlErrors.h"
#include "Platform/Transport/ExchangeMetrics.h"
#include "Platform/Transport/SessionEngine.h"

namespace vkq::platform {
namespace {

using Clock = TransferWorker::Clock;

constexpr auto kProgressInterval = std::chrono::milliseconds(50);
constexpr std::int64_t kProgressStep = std::int64_t{1} << 20;
constexpr int kMaximumRedirects = 16;
// What libcurl says when an answer holds more body bytes than its Content-Length: it
// drops them and closes the connection, and says so only in its verbose text.
constexpr std::string_view kExcessText = "Excess found";
// Room for the header lines of a typical answer, so that they are gathered without
// reallocating.
constexpr std::size_t kTypicalHeaderBytes = 512;

bool sameLetters(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return (x | 0x20) == (y | 0x20);
         });
}

// Only the two schemes of the web, with a host: anything else (a URL without a
// scheme, which libcurl would guess to be plain HTTP; file, ftp, ...) is never sent.
bool isWebURL(const URL& url) {
  return (sameLetters(url.scheme(), "http") || sameLetters(url.scheme(), "https")) && !url.host().empty();
}

// Whether an answer of `status` is a redirect that is followed.
bool isFollowedRedirect(long status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

// A Content-Length value is one decimal number that fits the byte counts.
bool isValidContentLength(std::string_view value) {
  std::int64_t length = 0;
  const auto [end, failure] = std::from_chars(value.data(), value.data() + value.size(), length);
  return !value.empty() && value.front() != '-' && failure == std::errc() && end == value.data() + value.size();
}

// The policy of a transfer without a request.
const RetryPolicy kNoRetries;

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
      checksExcessBody_(options.checksExcessBody),
      uploadProgress_(std::move(options.uploadProgress)),
      downloadProgress_(std::move(options.downloadProgress)),
      retrier_(request_ ? request_->retryPolicy : kNoRetries, request_ ? request_->HTTPMethod : "GET") {}

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
    SharedRequest request = redirected_ ? redirected_ : request_;
    ErrorPtr refused = sink().willSend(request);
    if (!refused) refused = refusalOf(*request);
    if (refused) {
      conclude(std::move(refused), false);
      return false;
    }
    {
      std::lock_guard lock(record_.mutex);
      record_.currentRequest = request;
    }
    sent_ = std::move(request);
    if (!deadlineSet_ && sent_->deadlineInterval) {
      const double seconds = std::clamp(*sent_->deadlineInterval, kMinimumTimeoutInterval, kMaximumTimeoutInterval);
      deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    }
    deadlineSet_ = true;
    startedFrom_ = sink().length();
    fieldLines_.clear();
    headEnded_ = redirecting_ = excessBody_ = false;
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

ErrorPtr SessionTransfer::refusalOf(const URLRequest& request) const {
  if (!isWebURL(*request.url)) {
    return makeTransportError(kURLErrorUnsupportedURL, "Only http and https URLs with a host are sent.",
                              failingURL());
  }
  if (const auto field = firstInvalidHeaderField(request.allHTTPHeaderFields)) {
    return makeTransportError(kURLErrorBadURL,
                              "The request header field \"" + *field +
                                  "\" contains a line break, NUL or colon; the request was not sent.",
                              failingURL());
  }
  return nullptr;
}

void SessionTransfer::prepareHandle(EasyHandle& easy, CURLSH* share) {
  CURL* handle = easy.get();
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  // Redirects are followed by the transfer itself (followRedirect()): libcurl would
  // repeat a custom method, such as DELETE, at the location a 303 names.
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
  // Verbose (Options::checksExcessBody) only so that onDebug() hears of excess body
  // bytes; nothing is printed.
  curl_easy_setopt(handle, CURLOPT_DEBUGFUNCTION, &SessionTransfer::onDebug);
  curl_easy_setopt(handle, CURLOPT_DEBUGDATA, &easy);
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
  curl_easy_setopt(easy_->get(), CURLOPT_VERBOSE, checksExcessBody_ ? 1L : 0L);
  easy_->setMethod(request.HTTPMethod, request.HTTPBody ? &*request.HTTPBody : nullptr);

  for (const auto& [name, value] : request.allHTTPHeaderFields) easy_->addHeader(name, value);
  // libcurl would hold bodies over 1 MiB back for a "100 Continue" first, and give a
  // POST a form content type of its own.
  if (request.HTTPBody && !request.allHTTPHeaderFields.contains("Expect")) easy_->suppressHeader("Expect");
  if (!request.allHTTPHeaderFields.contains("Content-Type")) easy_->suppressHeader("Content-Type");
  easy_->applyHeaders();

  const double seconds = std::clamp(request.timeoutInterval, kMinimumTimeoutInterval, kMaximumTimeoutInterval);
  idleTimeout = request.timeoutInterval > 0
                    ? std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds))
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

int SessionTransfer::onDebug(CURL*, curl_infotype type, char* data, std::size_t size, void* easy) {
  // Also called while no transfer owns the handle (a cached connection closing).
  if (type == CURLINFO_TEXT && static_cast<EasyHandle*>(easy)->owner() != nullptr &&
      std::string_view(data, size).starts_with(kExcessText)) {
    of(easy).excessBody_ = true;
  }
  return 0;
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
    // An answer starts: drop the lines of an interim answer that came before. The
    // lines are parsed only if someone reads the fields.
    fieldLines_.clear();
    fieldLines_.reserve(kTypicalHeaderBytes);
    headEnded_ = false;
  } else if (line == "\r\n" || line == "\n") {
    headEnded_ = true;
    long status = 0;
    curl_easy_getinfo(easy_->get(), CURLINFO_RESPONSE_CODE, &status);
    redirecting_ = isFollowedRedirect(status) && HTTPHeaders::firstValueInFieldLines(fieldLines_, "Location");
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
  ErrorPtr unframed = framingErrorOfHead();
  auto response = HTTPResponse::withFieldLines(std::move(url), static_cast<int>(status), std::move(fieldLines_));
  fieldLines_.clear();  // a moved-from string holds nothing specified
  response_ = response;
  if (unframed) return unframed;

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

ErrorPtr SessionTransfer::framingErrorOfHead() const {
  const auto length = HTTPHeaders::firstValueInFieldLines(fieldLines_, "Content-Length");
  if (length && !isValidContentLength(*length)) {
    return makeTransportError(kURLErrorBadServerResponse,
                              "The answer's Content-Length \"" + std::string(*length) + "\" is not a byte count.",
                              failingURL());
  }
  return nullptr;
}

std::size_t SessionTransfer::receiveBody(const char* data, std::size_t length) {
  markActive();
  if (redirecting_) return length;  // the redirect's own body: nobody reads it
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
        if (code == CURLE_OK && redirecting_) {
          error = followRedirect();
          if (!error) {
            recordMetrics();
            easy_ = nullptr;
            return true;
          }
        } else {
          error = outcomeOfExchange(code);
        }
        break;
    }
    recordMetrics();
    easy_ = nullptr;  // back to the worker once this returns; a restart gets one anew
    if (!cancelled && retry(error)) return true;
    if (reason == TransferWorker::EndReason::Done && sink().shouldRestart()) {
      redirected_.reset();  // the sink starts over from the original request
      redirects_ = 0;
      return true;
    }
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
  if (!response_ && easy_ && !redirecting_) {
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
  } else if (!headEnded_) {
    // libcurl takes a connection closed inside the head for the end of the answer.
    error = makeTransportError(kURLErrorNetworkConnectionLost,
                               "The connection closed before the answer's head was complete.", failingURL());
  } else if (excessBody_) {
    error = makeTransportError(kURLErrorBadServerResponse, "The answer's body is longer than its Content-Length.",
                               failingURL());
  }
  return error;
}

ErrorPtr SessionTransfer::followRedirect() {
  if (++redirects_ > kMaximumRedirects) {
    return makeTransportError(kURLErrorHTTPTooManyRedirects,
                              "More than " + std::to_string(kMaximumRedirects) + " redirects.", failingURL());
  }
  char* location = nullptr;
  curl_easy_getinfo(easy_->get(), CURLINFO_REDIRECT_URL, &location);
  std::optional<URL> url = location != nullptr ? URL::URLWithString(location) : std::nullopt;
  if (!url) {
    return makeTransportError(kURLErrorBadServerResponse, "The redirect names no valid location.", failingURL());
  }
  if (!isWebURL(*url)) {
    return makeTransportError(kURLErrorUnsupportedURL,
                              "The redirect leads to " + url->absoluteString() + ", which is not an http or https URL.",
                              failingURL());
  }
  long status = 0;
  curl_easy_getinfo(easy_->get(), CURLINFO_RESPONSE_CODE, &status);
  auto next = std::make_shared<URLRequest>(*sent_);
  // 303 asks for another resource, fetched (or its head read) whatever the method was;
  // 301 and 302 turn a POST into a GET as every browser does. 307 and 308 repeat the
  // request as it was.
  const std::string& method = sent_->HTTPMethod;
  if ((status == 303 && method != "HEAD") || ((status == 301 || status == 302) && method == "POST")) {
    next->HTTPMethod = "GET";
    next->HTTPBody.reset();
    next->allHTTPHeaderFields.remove("Content-Type");
    next->allHTTPHeaderFields.remove("Content-Length");
  }
  // Credentials go to the origin they were given for only.
  const URL& from = *sent_->url;
  if (!sameLetters(from.scheme(), url->scheme()) || !sameLetters(from.host(), url->host()) ||
      from.port() != url->port()) {
    next->allHTTPHeaderFields.remove("Authorization");
    next->allHTTPHeaderFields.remove("Cookie");
  }
  next->url = std::move(url);
  redirected_ = std::move(next);
  return nullptr;
}

bool SessionTransfer::retry(const ErrorPtr& error) {
  const bool answered = response_ && !abortError_;
  if (!error && !answered) return false;
  const auto wait = retrier_.retryAfter(error, answered ? response_.get() : nullptr, deadline);
  if (!wait || !sink().prepareRetry()) return false;
  restartDelay = *wait;
  redirected_.reset();  // the retry starts over from the original request
  redirects_ = 0;
  std::lock_guard lock(record_.mutex);
  record_.metrics.retries = retrier_.retries();
  return true;
}

void SessionTransfer::recordMetrics() {
  if (easy_ == nullptr) return;  // no exchange took place
  std::lock_guard lock(record_.mutex);
  recordExchangeMetrics(easy_->get(), record_.metrics);
  record_.metrics.resumedFromByte = startedFrom_;
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
