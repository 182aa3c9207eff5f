#include "Platform/Session/URLSessionTask.h"

#include "Platform/Transport/DownloadTaskBody.h"
#include "Platform/Transport/ResumeData.h"
#include "Platform/Transport/SessionTransfer.h"

namespace vkq::platform {

URLSessionTask::URLSessionTask(std::shared_ptr<SessionTransfer> transfer)
    : transfer_(std::move(transfer)), record_(transfer_->record()) {}

URLSessionTask::~URLSessionTask() = default;

std::uint64_t URLSessionTask::taskIdentifier() const { return record_.identifier; }

void URLSessionTask::resume() { transfer_->resume(); }

void URLSessionTask::suspend() { transfer_->suspend(); }

void URLSessionTask::cancel() { transfer_->cancel(); }

URLSessionTaskState URLSessionTask::state() const {
  std::lock_guard lock(record_.mutex);
  return record_.state();
}

std::optional<URLRequest> URLSessionTask::originalRequest() const {
  if (!record_.originalRequest) return std::nullopt;
  return *record_.originalRequest;
}

std::optional<URLRequest> URLSessionTask::currentRequest() const {
  SharedRequest current;
  {
    std::lock_guard lock(record_.mutex);
    current = record_.currentRequest;
  }
  if (!current) return std::nullopt;
  return *current;
}

std::shared_ptr<const HTTPResponse> URLSessionTask::response() const {
  std::lock_guard lock(record_.mutex);
  return record_.response;
}

ErrorPtr URLSessionTask::error() const {
  std::lock_guard lock(record_.mutex);
  return record_.error;
}

std::int64_t URLSessionTask::countOfBytesReceived() const {
  return record_.bytesReceived.load(std::memory_order_relaxed);
}

URLSessionTaskMetrics URLSessionTask::metrics() const {
  std::lock_guard lock(record_.mutex);
  return record_.metrics;
}

URLSessionDataTask::URLSessionDataTask(std::shared_ptr<SessionTransfer> transfer)
    : URLSessionTask(std::move(transfer)) {}

URLSessionDownloadTask::URLSessionDownloadTask(std::shared_ptr<SessionTransfer> transfer)
    : URLSessionTask(std::move(transfer)) {}

DownloadTaskBody& URLSessionDownloadTask::body() const {
  // Download tasks are only ever made with a download body.
  return static_cast<DownloadTaskBody&>(transfer()->sink());
}

void URLSessionDownloadTask::cancelByProducingResumeData(std::function<void(std::optional<Bytes>)> handler) {
  if (!body().requestResumeData(handler)) {
    // Ended already: the handler hears how (resume data only when it ended failing).
    transfer()->postToCompletionQueue([handler = std::move(handler), ending = body().endingResumeData()] {
      try {
        if (handler) handler(ending.get());
      } catch (...) {
        // As for every callback of the queue.
      }
    });
  }
  cancel();
}

std::shared_future<std::optional<Bytes>> URLSessionDownloadTask::cancelByProducingResumeData() {
  // Once the download has ended, the future already holds what it ended with.
  body().requestResumeData(nullptr);
  cancel();
  return body().endingResumeData();
}

std::optional<std::filesystem::path> URLSessionDownloadTask::partialFileOfResumeData(const Bytes& resumeData) {
  const auto resume = ResumeData::decode(resumeData, nullptr);
  if (!resume || !DownloadTaskBody::isInPartialDownloadsFolder(resume->partialFilePath)) return std::nullopt;
  return resume->partialFilePath;
}

std::optional<std::string> URLSessionDownloadTask::URLOfResumeData(const Bytes& resumeData) {
  auto resume = ResumeData::decode(resumeData, nullptr);
  if (!resume) return std::nullopt;
  return std::move(resume->url);
}

}  // namespace vkq::platform
