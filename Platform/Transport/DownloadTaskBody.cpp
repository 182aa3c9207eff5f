#include "Platform/Transport/DownloadTaskBody.h"

#include <cerrno>
#include <charconv>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

#include "Platform/Base/PrivateFolder.h"
#include "Platform/Transport/CurlErrors.h"

namespace vkq::platform {
namespace {

namespace fs = std::filesystem;

// Small pieces are gathered up to this size; memory stays flat whatever the size.
constexpr std::size_t kFileBufferSize = 512 * 1024;

// The validator If-Range may carry: a strong ETag, else Last-Modified.
std::string validatorOf(const HTTPResponse& response) {
  if (const auto etag = response.allHeaderFields().value("ETag"); etag && !etag->empty() && !etag->starts_with("W/")) {
    return *etag;
  }
  return response.allHeaderFields().value("Last-Modified").value_or("");
}

// Whether the answer names the entity by `validator`, as its ETag or, when that is
// what If-Range carried, its Last-Modified.
bool carriesValidator(const HTTPResponse& response, const std::string& validator) {
  return response.allHeaderFields().value("ETag") == validator ||
         response.allHeaderFields().value("Last-Modified") == validator;
}

// The first byte position of "Content-Range: bytes first-last/size", or absent.
std::optional<std::int64_t> rangeStart(const HTTPResponse& response) {
  const auto header = response.allHeaderFields().value("Content-Range");
  constexpr std::string_view prefix = "bytes ";
  if (!header || !header->starts_with(prefix)) return std::nullopt;
  std::int64_t first = -1;
  const char* begin = header->data() + prefix.size();
  const char* end = header->data() + header->size();
  const auto [next, failure] = std::from_chars(begin, end, first);
  if (failure != std::errc() || next == end || *next != '-') return std::nullopt;
  return first;
}

ErrorPtr withResumeData(const ErrorPtr& error, Bytes resumeData) {
  ErrorUserInfo info = error->userInfo();
  info.resumeData = std::move(resumeData);
  return makeError(error->domain(), error->code(), std::move(info));
}

}  // namespace

DownloadTaskBody::DownloadTaskBody(fs::path folder, const URLRequest& request, Callbacks callbacks)
    : folder_(std::move(folder)),
      url_(request.url ? request.url->absoluteString() : std::string()),
      isGET_(request.HTTPMethod == "GET"),
      headerFields_(request.allHTTPHeaderFields),
      timeoutInterval_(request.timeoutInterval),
      callbacks_(std::move(callbacks)) {}

DownloadTaskBody::DownloadTaskBody(const ResumeData& resume, Callbacks callbacks)
    : folder_(fs::path(resume.partialFilePath).parent_path()),
      url_(resume.url),
      isGET_(true),
      headerFields_(requestForResumeData(resume).allHTTPHeaderFields),
      timeoutInterval_(resume.timeoutInterval),
      callbacks_(std::move(callbacks)),
      path_(resume.partialFilePath),
      offset_(resume.bytesReceived),
      written_(resume.bytesReceived),
      validator_(resume.validator) {}

URLRequest DownloadTaskBody::requestForResumeData(const ResumeData& resume) {
  URLRequest request;
  request.url = URL::URLWithString(resume.url);
  for (const auto& [name, value] : resume.headerFields) request.allHTTPHeaderFields.set(name, value);
  request.timeoutInterval = resume.timeoutInterval;
  return request;
}

bool DownloadTaskBody::isInPartialDownloadsFolder(const fs::path& file) {
  std::error_code fileFailure, folderFailure;
  const fs::path resolved = fs::weakly_canonical(file, fileFailure);
  const fs::path folder = fs::weakly_canonical(HTTPSessionManager::partialDownloadsFolder(), folderFailure);
  return !fileFailure && !folderFailure && resolved.parent_path() == folder;
}

bool DownloadTaskBody::requestResumeData(ResumeDataHandler handler) {
  std::lock_guard lock(mutex_);
  if (finished_) return false;
  wantsResumeData_ = true;
  if (handler) resumeHandler_ = std::move(handler);
  return true;
}

ErrorPtr DownloadTaskBody::fileError(URLErrorCode code, const std::string& what, const ErrorPtr& cause) const {
  return makeTransportError(code, what + " (" + path_.string() + "): " + cause->localizedDescription(), url_);
}

ErrorPtr DownloadTaskBody::openFile() {
  // The folder is checked for a resumed download too: its partial file is trusted only
  // in a folder no one else can write to.
  if (ErrorPtr refusal; !preparePrivateFolder(folder_, &refusal)) {
    return makeTransportError(kURLErrorCannotCreateFile,
                              "Cannot keep the download file: " + refusal->localizedDescription(), url_);
  }
  int descriptor = -1;
  if (path_.empty()) {
    descriptor = createUniqueFile(folder_, "download-", path_);
    if (descriptor < 0) path_ = folder_;
  } else {
    descriptor = open(path_.c_str(), O_WRONLY | O_CLOEXEC);
  }
  if (descriptor < 0) {
    return fileError(kURLErrorCannotCreateFile, "Cannot open the download file", makePOSIXError("open", errno));
  }
  file_ = std::make_unique<FileWriter>(descriptor, kFileBufferSize);
  return truncateFile();
}

// Cuts the file to `offset_` bytes and writes on from there.
ErrorPtr DownloadTaskBody::truncateFile() {
  ErrorPtr failure;
  if (!file_->truncate(offset_, &failure)) {
    return fileError(kURLErrorCannotWriteToFile, "Cannot prepare the download file", failure);
  }
  written_ = offset_;
  return nullptr;
}

ErrorPtr DownloadTaskBody::willSend(SharedRequest& request) {
  if (!file_) {
    if (ErrorPtr error = openFile()) return error;
  }
  rangeSent_ = offset_ > 0 && !validator_.empty();
  if (rangeSent_) {
    auto ranged = std::make_shared<URLRequest>(*request);
    ranged->allHTTPHeaderFields.set("Range", "bytes=" + std::to_string(offset_) + "-");
    ranged->allHTTPHeaderFields.set("If-Range", validator_);
    request = std::move(ranged);
  }
  status_ = 0;
  discarding_ = false;
  return nullptr;
}

ErrorPtr DownloadTaskBody::didReceiveResponse(const HTTPResponse& response, std::int64_t) {
  status_ = response.statusCode;
  if (rangeSent_ && status_ == 416) {
    // Nothing left to send from our offset (or the server disagrees about the size):
    // the body is an error page; fetch the whole entity again.
    restartWanted_ = true;
    discarding_ = true;
    return nullptr;
  }
  if (rangeSent_ && status_ == 206) {
    // Appended only to the bytes of the same entity, right where they end; anything
    // else would splice two files into one.
    if (rangeStart(response) != offset_ || !carriesValidator(response, validator_)) {
      restartWanted_ = true;
      return makeTransportError(kURLErrorBadServerResponse,
                                "The server's partial answer does not continue the stored download "
                                "(another position or another validator).",
                                url_);
    }
    return nullptr;
  }
  // The whole entity (a changed one, or an answer that ignored the range), or an error
  // answer: the file starts over.
  offset_ = 0;
  validator_ = validatorOf(response);
  return truncateFile();
}

ErrorPtr DownloadTaskBody::didReceiveData(const char* data, std::size_t length) {
  if (discarding_) return nullptr;
  if (ErrorPtr failure; !file_->write(data, length, &failure)) {
    return fileError(kURLErrorCannotWriteToFile, "Cannot write the download file", failure);
  }
  written_ += static_cast<std::int64_t>(length);
  return nullptr;
}

bool DownloadTaskBody::shouldRestart() {
  if (!restartWanted_ || restarted_) return false;
  restarted_ = true;
  return startOver();
}

bool DownloadTaskBody::prepareRetry() {
  if (!file_) return true;  // nothing written yet
  if (isResumable()) {
    offset_ = written_;  // willSend() asks for the rest, guarded by the validator
    return true;
  }
  return startOver();
}

bool DownloadTaskBody::startOver() {
  restartWanted_ = false;
  offset_ = 0;
  validator_.clear();
  return truncateFile() == nullptr;
}

bool DownloadTaskBody::isResumable() const {
  const bool entityOnDisk = status_ == 0 || status_ == 200 || status_ == 206;
  return isGET_ && !restartWanted_ && !validator_.empty() && written_ > 0 && entityOnDisk && !path_.empty();
}

void DownloadTaskBody::removeFile() {
  if (path_.empty()) return;
  std::error_code ignored;
  fs::remove(path_, ignored);
}

ErrorPtr DownloadTaskBody::didFinish(ErrorPtr error, bool cancelled) {
  if (file_) {
    ErrorPtr failure;
    const bool closed = file_->close(&failure);
    file_.reset();
    if (!closed && !error) error = fileError(kURLErrorCannotWriteToFile, "Cannot write the download file", failure);
  }
  std::optional<Bytes> resumeData;
  {
    std::lock_guard lock(mutex_);
    finished_ = true;
    // A plain cancel() gives up the download; a failure or a cancel that asked for
    // resume data keeps what is on disk when it can be continued.
    if (error && (!cancelled || wantsResumeData_) && isResumable()) {
      ResumeData resume;
      resume.url = url_;
      resume.headerFields.assign(headerFields_.begin(), headerFields_.end());
      resume.timeoutInterval = timeoutInterval_;
      resume.bytesReceived = written_;
      resume.partialFilePath = path_.string();
      resume.validator = validator_;
      resumeData_ = resumeData = resume.encoded();
    }
  }
  // On success the file stays for settle() to move.
  if (error && !resumeData) removeFile();
  ending_.set_value(resumeData);
  return resumeData ? withResumeData(error, std::move(*resumeData)) : error;
}

bool DownloadTaskBody::moveFile(const fs::path& target, ErrorPtr& error) {
  std::error_code failure;
  fs::rename(path_, target, failure);
  if (!failure) return true;
  std::string reason = failure.message();
  if (failure == std::errc::cross_device_link) {
    ErrorPtr copyFailure;
    if (replaceFileWithCopy(path_, target, &copyFailure)) {
      removeFile();
      return true;
    }
    reason = copyFailure->localizedDescription();
  }
  error = makeTransportError(kURLErrorCannotWriteToFile,
                             "Cannot move the downloaded file to " + target.string() + ": " + reason, url_);
  return false;
}

ErrorPtr DownloadTaskBody::settle(const std::shared_ptr<const HTTPResponse>& response, ErrorPtr error) {
  if (error) return error;
  // Only a finished download has a file to hand over: every path below uses or removes it.
  ErrorPtr invalid;
  if (!callbacks_.serializer->get()->validateResponse(response.get(), Object(), &invalid)) {
    removeFile();
    return invalid;
  }
  if (!callbacks_.destination) {
    removeFile();
    return nullptr;
  }
  try {
    const URL target = callbacks_.destination(URL::fileURLWithPath(path_.string()), response);
    if (!moveFile(target.filePath(), error)) {
      removeFile();
      return error;
    }
    filePath_ = target;
    return nullptr;
  } catch (const std::exception& failure) {
    removeFile();
    return makeTransportError(kURLErrorCannotCreateFile,
                              std::string("The download destination failed: ") + failure.what(), url_);
  }
}

void DownloadTaskBody::deliver(const std::shared_ptr<const HTTPResponse>& response, const ErrorPtr& error) {
  ResumeDataHandler resumeHandler;
  std::optional<Bytes> resumeData;
  {
    std::lock_guard lock(mutex_);
    resumeHandler = std::move(resumeHandler_);
    resumeData = resumeData_;
  }
  auto completion = std::move(callbacks_.completion);
  callbacks_ = {};
  if (resumeHandler) {
    try {
      resumeHandler(std::move(resumeData));
    } catch (...) {
      // The completion handler still runs.
    }
  }
  if (completion) completion(response, filePath_, error);
}

}  // namespace vkq::platform
