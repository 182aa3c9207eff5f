#include "Platform/Session/HTTPSessionManager.h"

#include <plist/plist.h>

#include <cstdint>
#include <limits>
#include <system_error>

#include "Platform/Base/PrivateFolder.h"
#include "Platform/Transport/DataTaskBody.h"
#include "Platform/Transport/DownloadTaskBody.h"
#include "Platform/Transport/ResumeData.h"
#include "Platform/Transport/SessionEngine.h"
#include "Platform/Transport/SessionTransfer.h"

namespace vkq::platform {
namespace {

namespace fs = std::filesystem;

// libcurl's receive buffer for downloads: pieces large enough to go to the file
// directly, small enough to stay in the core's cache between the receive and the write
// (512 KiB measured slower).
constexpr long kDownloadBufferSize = 100 * 1024;

// Whether the resume data's partial file lies in our folder and holds exactly the bytes
// the data counts; the refusal in `error` when not.
[[nodiscard]] bool checkPartialFile(const ResumeData& resume, ErrorPtr* error) {
  const auto refuse = [error](std::string_view reason) {
    setError(error, makeResumeDataRefusal(reason));
    return false;
  };
  const fs::path file = resume.partialFilePath;
  if (!DownloadTaskBody::isInPartialDownloadsFolder(file)) {
    return refuse("the partial file is not in the partial downloads folder");
  }
  std::error_code failure;
  if (!fs::is_regular_file(file, failure)) return refuse("the partial file is missing");
  const auto size = fs::file_size(file, failure);
  if (failure || size != static_cast<std::uintmax_t>(resume.bytesReceived)) {
    return refuse("the partial file's size differs from the resume data");
  }
  return true;
}

// A task of type Task over a new transfer of `request` into a body of type Body.
template <typename Task, typename Body, typename... BodyArguments>
std::shared_ptr<Task> makeTask(const std::shared_ptr<SessionEngine>& engine, std::shared_ptr<const URLRequest> request,
                               SessionTransfer::Options options, BodyArguments&&... bodyArguments) {
  return std::make_shared<Task>(std::make_shared<SessionTransferWith<Body>>(
      engine, std::move(request), std::move(options), std::forward<BodyArguments>(bodyArguments)...));
}

}  // namespace

std::shared_ptr<HTTPSessionManager> HTTPSessionManager::manager() { return std::make_shared<HTTPSessionManager>(); }

HTTPSessionManager::HTTPSessionManager()
    : engine_(std::make_shared<SessionEngine>()), reachability_(std::make_shared<NetworkReachabilityManager>()) {}

HTTPSessionManager::~HTTPSessionManager() = default;

std::shared_ptr<HTTPResponseSerializer> HTTPSessionManager::responseSerializer() const {
  return engine_->responseSerializer()->get();
}

void HTTPSessionManager::setResponseSerializer(std::shared_ptr<HTTPResponseSerializer> serializer) {
  engine_->responseSerializer()->set(serializer ? std::move(serializer) : HTTPResponseSerializer::serializer());
}

fs::path HTTPSessionManager::partialDownloadsFolder() { return privateFolderPath("vkq-partial-downloads"); }

bool HTTPSessionManager::hasResumeDataForm(const Bytes& data) {
  if (data.empty() || data.size() > std::numeric_limits<std::uint32_t>::max()) return false;
  plist_t parsed = nullptr;
  plist_from_memory(reinterpret_cast<const char*>(data.data()), static_cast<std::uint32_t>(data.size()), &parsed);
  if (parsed == nullptr) return false;
  plist_free(parsed);
  return true;
}

std::shared_ptr<URLSessionDataTask> HTTPSessionManager::dataTaskWithRequest(const URLRequest& request,
                                                                            ProgressBlock uploadProgress,
                                                                            ProgressBlock downloadProgress,
                                                                            DataTaskCompletion completionHandler) {
  auto shared = std::make_shared<const URLRequest>(request);
  return makeTask<URLSessionDataTask, DataTaskBody>(engine_, shared,
                                                    {std::move(uploadProgress), std::move(downloadProgress), 0},
                                                    shared, engine_->responseSerializer(),
                                                    std::move(completionHandler));
}

std::shared_ptr<URLSessionDownloadTask> HTTPSessionManager::downloadTaskWithRequest(
    const URLRequest& request, ProgressBlock progress, DownloadDestination destination,
    DownloadTaskCompletion completionHandler) {
  return makeTask<URLSessionDownloadTask, DownloadTaskBody>(
      engine_, std::make_shared<const URLRequest>(request), {nullptr, std::move(progress), kDownloadBufferSize, /*checksExcessBody=*/true},
      partialDownloadsFolder(), request,
      DownloadTaskBody::Callbacks{engine_->responseSerializer(), std::move(destination), std::move(completionHandler)});
}

std::shared_ptr<URLSessionDownloadTask> HTTPSessionManager::downloadTaskWithResumeData(
    const Bytes& resumeData, ProgressBlock progress, DownloadDestination destination,
    DownloadTaskCompletion completionHandler, ErrorPtr* error, const URLRequest* settings) {
  const auto resume = ResumeData::decode(resumeData, error);
  if (!resume) return nullptr;
  URLRequest request = DownloadTaskBody::requestForResumeData(*resume);
  if (settings) {
    request.retryPolicy = settings->retryPolicy;
    request.deadlineInterval = settings->deadlineInterval;
  }
  if (!request.url || (request.url->scheme() != "http" && request.url->scheme() != "https")) {
    setError(error, makeResumeDataRefusal("not an HTTP URL"));
    return nullptr;
  }
  if (!checkPartialFile(*resume, error)) return nullptr;

  return makeTask<URLSessionDownloadTask, DownloadTaskBody>(
      engine_, std::make_shared<const URLRequest>(std::move(request)),
      {nullptr, std::move(progress), kDownloadBufferSize, /*checksExcessBody=*/true}, *resume,
      DownloadTaskBody::Callbacks{engine_->responseSerializer(), std::move(destination), std::move(completionHandler)});
}

}  // namespace vkq::platform
