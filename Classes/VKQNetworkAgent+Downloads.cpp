// Resumable downloads: where a download lands, when it may continue from stored resume
// data, how resume data is kept when a download fails or is cancelled, and how a fresh
// start discards what it supersedes.
#include "Classes/VKQNetworkAgent.h"

#include <filesystem>
#include <utility>

#include "Classes/VKQNetworkAgent+Private.h"
#include "Classes/VKQResumeDataStore.h"
#include "Platform/Base/Assert.h"
#include "Platform/Base/Log.h"
#include "Platform/Session/HTTPSessionManager.h"
#include "Platform/Session/URLSessionTask.h"

namespace fs = std::filesystem;
using vkq::platform::Bytes;
using vkq::platform::ErrorPtr;
using vkq::platform::HTTPRequestSerializer;
using vkq::platform::Object;
using vkq::platform::URL;
using vkq::platform::URLSessionDownloadTask;
using vkq::platform::URLSessionTask;

namespace {

// The name a download of `url` gets inside `downloadPath` when that is an existing
// folder; absent when it is not one (the download then writes the path itself).
std::optional<std::string> fileNameInFolder(const std::string& downloadPath, const URL& url) {
  std::error_code ec;
  if (!fs::is_directory(downloadPath, ec)) return std::nullopt;
  return url.lastPathComponent();
}

// A file name that keeps a download inside its folder.
bool isContainedFileName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

}  // namespace

std::shared_ptr<URLSessionDownloadTask> VKQNetworkAgent::downloadTaskWithDownloadPath(
    const std::string& path, const HTTPRequestSerializer& requestSerlizer, std::string_view URLString,
    const Object& parameters, vkq::platform::ProgressBlock progress, ErrorPtr* error) {
  ErrorPtr buildError;
  const auto urlRequest = requestSerlizer.requestWithMethod("GET", URLString, parameters, &buildError);
  if (buildError || !urlRequest || !urlRequest->url) {
    vkq::platform::setError(error, VKQNetworkAgentSupport::requestBuildError(buildError));
    return nullptr;
  }

  std::string target = path;
  if (const auto name = fileNameInFolder(path, *urlRequest->url)) {
    if (!isContainedFileName(*name)) {
      vkq::platform::setError(error, VKQNetworkAgentSupport::describedError(
                                         vkq::platform::kURLErrorDomain, vkq::platform::kURLErrorCannotCreateFile,
                                         "The download's file name \"" + *name + "\" would leave the folder " + path,
                                         urlRequest->url->absoluteString()));
      return nullptr;
    }
    target = (fs::path(path) / *name).string();
  }
  // What is at the target stays until the new file is complete and replaces it; a
  // folder is never replaced.
  if (std::error_code ec; fs::is_directory(fs::symlink_status(target, ec))) {
    vkq::platform::setError(error, VKQNetworkAgentSupport::describedError(
                                       vkq::platform::kURLErrorDomain, vkq::platform::kURLErrorCannotCreateFile,
                                       "The download's target " + target + " is a folder",
                                       urlRequest->url->absoluteString()));
    return nullptr;
  }

  VKQAssert(!path.empty(), VKQNetworkAgentSupport::kStringNotEmpty);
  std::optional<Bytes> resumeData = VKQResumeDataStore::load(path, target);
  if (resumeData && URLSessionDownloadTask::URLOfResumeData(*resumeData) != urlRequest->url->absoluteString()) {
    // Stored by a download of another URL to this path: continuing it would save that
    // URL's file. It is discarded below, with its partial file.
    DDDebug("Resume data refused: it continues a download of another URL");
    resumeData.reset();
  }

  auto destination = [target](const URL&, std::shared_ptr<const vkq::platform::HTTPResponse>) {
    return URL::fileURLWithPath(target, false);
  };
  auto slot = std::make_shared<std::weak_ptr<URLSessionTask>>();
  auto completion = [this, slot, path, target](std::shared_ptr<const vkq::platform::HTTPResponse>,
                                               std::optional<URL> file, ErrorPtr taskError) {
    if (!taskError) {
      VKQResumeDataStore::remove(path, target);
    } else if (taskError->userInfo().resumeData && taskError->code() != vkq::platform::kURLErrorCancelled) {
      // A cancellation's resume data was stored by cancelDownloadTask(); storing it again
      // here, later, could overwrite the data of a download that has continued since.
      VKQResumeDataStore::store(path, target, *taskError->userInfo().resumeData);
    }
    handleRequestResult(slot->lock(), file ? Object(std::move(*file)) : Object(), std::move(taskError));
  };

  std::shared_ptr<URLSessionDownloadTask> task;
  if (validateResumeData(resumeData)) {
    ErrorPtr refusal;
    task = manager_->downloadTaskWithResumeData(*resumeData, progress, destination, completion, &refusal,
                                                &*urlRequest);
    if (!task) DDDebug("Resume download failed, reason = ", refusal->localizedDescription());
  }
  if (!task) {
    // Starting afresh supersedes an earlier attempt at the target: its partial file goes.
    VKQResumeDataStore::discard(path, target);
    task = manager_->downloadTaskWithRequest(*urlRequest, progress, destination, completion);
  }
  *slot = task;
  return task;
}

void VKQNetworkAgent::cancelDownloadTask(const std::shared_ptr<URLSessionDownloadTask>& task,
                                         const std::string& path) {
  // The target as the task was made: the URL that was sent names the file in a folder.
  std::string target = path;
  auto sent = task->originalRequest();
  if (!sent || !sent->url) sent = task->currentRequest();
  if (sent && sent->url) {
    if (const auto name = fileNameInFolder(path, *sent->url)) target = (fs::path(path) / *name).string();
  }
  // Waits for the transport's worker to stop the transfer, never for a queue.
  const std::optional<Bytes> resumeData = task->cancelByProducingResumeData().get();
  if (resumeData) VKQResumeDataStore::store(path, target, *resumeData);
}

std::optional<std::string> VKQNetworkAgent::incompleteDownloadTempCacheFolder() const {
  return VKQResumeDataStore::folder();
}

std::optional<URL> VKQNetworkAgent::incompleteDownloadTempPathForDownloadPath(std::string_view path) const {
  VKQAssert(!path.empty(), VKQNetworkAgentSupport::kStringNotEmpty);
  return VKQResumeDataStore::fileForName(path);
}

bool VKQNetworkAgent::validateResumeData(const std::optional<Bytes>& data) {
  return data && vkq::platform::HTTPSessionManager::hasResumeDataForm(*data);
}
