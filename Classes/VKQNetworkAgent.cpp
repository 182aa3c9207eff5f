#include "Classes/VKQNetworkAgent.h"

#include <openssl/evp.h>
#include <plist/plist.h>

#include <cstdio>
#include <filesystem>
#include <limits>
#include <utility>

#include "Classes/Serialization/Request/VKQJSONRequestSerializer.h"
#include "Classes/Serialization/Request/VKQKXPRequestSerializer.h"
#include "Classes/Serialization/Response/VKQJSONResponseSerializer.h"
#include "Classes/Serialization/Response/VKQKXPResponseSerializer.h"
#include "Classes/VKQResumeDataStore.h"
#include "Classes/VKQVeskRequest.h"
#include "Classes/VKQVeskResult.h"
#include "Platform/Base/Assert.h"
#include "Platform/Session/HTTPSessionManager.h"
#include "Platform/Base/Log.h"
#include "Platform/Base/MainQueue.h"
#include "Platform/Session/URLSessionTask.h"

namespace fs = std::filesystem;
using vkq::platform::Bytes;
using vkq::platform::ErrorPtr;
using vkq::platform::HTTPRequestSerializer;
using vkq::platform::MainQueue;
using vkq::platform::Object;
using vkq::platform::URL;
using vkq::platform::URLSessionDataTask;
using vkq::platform::URLSessionDownloadTask;
using vkq::platform::URLSessionTask;

namespace {

constexpr const char* kRequestNotNil = "Invalid parameter not satisfying: request != nil";

// The HTTP method of a JSON request's method; null outside the enumeration.
const char* httpMethodName(VKQRequestMethod method) {
  switch (method) {
    case VKQRequestMethodGET: return "GET";
    case VKQRequestMethodPOST: return "POST";
    case VKQRequestMethodHEAD: return "HEAD";
    case VKQRequestMethodPUT: return "PUT";
    case VKQRequestMethodDELETE: return "DELETE";
    case VKQRequestMethodPATCH: return "PATCH";
  }
  return nullptr;
}

bool isAbsoluteURL(const std::string& text) {
  const auto url = URL::URLWithString(text);
  return url && !url->scheme().empty() && !url->host().empty();
}

// Calls an application callback; what it throws is logged, not passed on, so the
// delivery that called it still finishes.
void callResultBlock(const VKQVeskRequest::ResultBlock& block, const std::shared_ptr<VKQVeskResult>& result) {
  if (!block) return;
  const VKQVeskRequest::ResultBlock copy = block;  // the callback may replace or clear its own slot
  try {
    copy(result);
  } catch (const std::exception& e) {
    DDDebug("request callback threw, reason = ", e.what());
  } catch (...) {
    DDDebug("request callback threw");
  }
}

// A file name that keeps a download inside its folder.
bool isContainedFileName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

// The settings text of the debug log: a line break, then one line per setting of
// 27 spaces, the label padded to 20 characters, "=", two spaces and the value.
class DebugSettingsText {
 public:
  DebugSettingsText& add(std::string_view label, std::string_view value) {
    text_.append(27, ' ');
    text_ += label;
    text_.append(label.size() < 20 ? 20 - label.size() : 0, ' ');
    text_ += "=  ";
    text_ += value;
    text_ += '\n';
    return *this;
  }
  std::string str() const { return text_; }

 private:
  std::string text_ = "\n";
};

// An error of `domain` and `code` with a localized description.
ErrorPtr describedError(const char* domain, std::int64_t code, std::string description,
                        std::optional<std::string> failingURL = std::nullopt) {
  vkq::platform::ErrorUserInfo info;
  info.localizedDescription = std::move(description);
  info.failingURL = std::move(failingURL);
  return vkq::platform::makeError(domain, code, std::move(info));
}

// What a serializer reported when building a URL request, or a plain error when it
// gave no request and said nothing.
ErrorPtr requestBuildError(ErrorPtr reported) {
  if (reported) return reported;
  return describedError(vkq::platform::kURLRequestSerializationErrorDomain, vkq::platform::kURLErrorBadURL,
                        "The URL request could not be built.");
}

const char* yesNo(bool value) { return value ? "YES" : "NO"; }

std::string upperHex(unsigned value) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "0x%X", value);
  return buffer;
}

}  // namespace

// ---- Life ----

VKQNetworkAgent& VKQNetworkAgent::sharedAgent() {
  // Never destroyed: requests may still complete while the process exits.
  static VKQNetworkAgent* const agent = new VKQNetworkAgent();
  return *agent;
}

VKQNetworkAgent::VKQNetworkAgent() : manager_(vkq::platform::HTTPSessionManager::manager()) {
  manager_->reachabilityManager()->startMonitoring();
  // The transport hands back the raw body and rejects statuses outside 200-299; the
  // body is decoded later by the request's own response serializer.
  manager_->setResponseSerializer(vkq::platform::HTTPResponseSerializer::serializer());
}

// ---- Starting and cancelling ----

void VKQNetworkAgent::addRequest(const std::shared_ptr<VKQVeskRequest>& request) {
  VKQAssert(request != nullptr, kRequestNotNil);

  ErrorPtr error;
  std::shared_ptr<URLSessionTask> task;
  try {
    task = sessionTaskForRequest(request, &error);
  } catch (const vkq::platform::InternalInconsistencyException&) {
    throw;  // programming errors stay fatal
  } catch (const std::exception& e) {
    // A request the serializers cannot handle is a failed request, not a crash.
    error = describedError(vkq::platform::kURLRequestSerializationErrorDomain, vkq::platform::kURLErrorBadURL,
                           std::string("The request could not be built: ") + e.what());
  }
  request->setRequestTask(task);

  if (error) {
    request->setError(error);
    requestDidFailWithRequest(request, error, VKQResponseCodeHTTPError);
    return;
  }
  VKQAssert(request->requestTask() != nullptr, "requestTask should not be nil");

  if (manager_->reachabilityManager()->networkReachabilityStatus() ==
      vkq::platform::NetworkReachabilityStatus::NotReachable) {
    DDDebug("network is not reachable");
    requestDidFailWithRequest(request, nullptr, VKQResponseCodeNetworkError);
    return;
  }
  addRequestToRecord(request);
  request->requestTask()->resume();
}

void VKQNetworkAgent::cancelRequest(const std::shared_ptr<VKQVeskRequest>& request) {
  VKQAssert(request != nullptr, kRequestNotNil);

  // Forgotten before the task is cancelled: the cancelled task completes on the
  // completion queue, possibly before cancel() returns here, and must find nothing.
  removeRequestFromRecord(request);
  const std::shared_ptr<URLSessionTask> task = request->requestTask();
  const auto download = std::dynamic_pointer_cast<URLSessionDownloadTask>(task);
  if (download && request->resumableDownloadPath()) {
    // Keep what was received so that the next download of the same path continues.
    const std::string path = *request->resumableDownloadPath();
    std::string target = path;
    std::error_code ec;
    if (fs::is_directory(path, ec)) {
      auto sent = download->originalRequest();
      if (!sent || !sent->url) sent = download->currentRequest();
      if (sent && sent->url) target = (fs::path(path) / sent->url->lastPathComponent()).string();
    }
    download->cancelByProducingResumeData([this, path, target](std::optional<Bytes> resumeData) {
      if (resumeData) VKQResumeDataStore::store(path, target, *resumeData);
    });
  } else if (task) {
    task->cancel();
  }
}

// ---- Registry ----

void VKQNetworkAgent::addRequestToRecord(const std::shared_ptr<VKQVeskRequest>& request) {
  if (const auto& task = request->requestTask()) record_.insert(task->taskIdentifier(), request);
}

void VKQNetworkAgent::removeRequestFromRecord(const std::shared_ptr<VKQVeskRequest>& request) {
  if (const auto& task = request->requestTask()) record_.remove(task->taskIdentifier());
}

// ---- Completion paths ----

void VKQNetworkAgent::requestDidFailWithRequest(const std::shared_ptr<VKQVeskRequest>& request, ErrorPtr error,
                                                std::int64_t code) {
  request->setError(std::move(error));
  auto result = VKQVeskResult::resultWithErrorCode(code, request);
  MainQueue::async([request, result = std::move(result)] {
    callResultBlock(request->completionResultBlock(), result);
    callResultBlock(request->failureResultBlock(), result);
  });
}

void VKQNetworkAgent::handleRequestResult(const std::shared_ptr<URLSessionTask>& task, Object responseObject,
                                          ErrorPtr error) {
  if (!task) {
    DDDebug("request has cancel");
    return;
  }
  const std::uint64_t taskIdentifier = task->taskIdentifier();
  const std::shared_ptr<VKQVeskRequest> request = record_.find(taskIdentifier);
  if (!request) {
    DDDebug("request has cancel");
    return;
  }

  std::shared_ptr<VKQVeskResult> result;
  try {
    request->setResponseData(std::move(responseObject));
    request->setError(error);
    switch (request->responseSerializerType()) {
      case VKQResponseSerializerTypeJSON:
        result = jsonResponseSerializer()->deserialize(request, &error);
        break;
      case VKQResponseSerializerTypeKXP:
        result = kxpResponseSerializer()->deserialize(request, &error);
        break;
      default:
        break;  // no decoder: the callbacks get no result
    }
  } catch (const std::exception& e) {
    // Decoders don't throw; should one do so anyway, the request still gets its one outcome.
    DDDebug("response decoding failed, reason = ", e.what());
    result = VKQVeskResult::resultWithErrorCode(VKQResponseCodeHTTPError, request);
  }
  MainQueue::async([this, taskIdentifier, request, result = std::move(result)] {
    deliverResult(taskIdentifier, request, result);
  });
}

void VKQNetworkAgent::deliverResult(std::uint64_t taskIdentifier, const std::shared_ptr<VKQVeskRequest>& request,
                                    const std::shared_ptr<VKQVeskResult>& result) {
  callResultBlock(request->completionResultBlock(), result);
  // An absent result reads as code 0, so it goes to the success callback.
  const bool success = !result || !result->responseCode() || result->responseCode()->code() == VKQResponseCodeSuccess;
  callResultBlock(success ? request->successResultBlock() : request->failureResultBlock(), result);
  record_.remove(taskIdentifier);
  request->clearCompletionBlock();
}

// ---- URL and serializers ----

std::optional<std::string> VKQNetworkAgent::buildRequestUrl(const VKQVeskRequest& request) const {
  const std::string url = request.url();
  if (isAbsoluteURL(url)) return url;
  const std::string path = request.path();
  if (isAbsoluteURL(path)) return path;

  const std::string base = request.host();
  std::optional<URL> baseURL = base.empty() ? std::nullopt : URL::URLWithString(base);
  // Without a trailing "/" a relative path would replace the base's last segment.
  if (baseURL && base.back() != '/') baseURL = baseURL->URLByAppendingPathComponent("");
  const auto resolved = baseURL ? URL::URLWithString(path, *baseURL) : URL::URLWithString(path);
  if (!resolved) return std::nullopt;
  return resolved->absoluteString();
}

std::shared_ptr<VKQHTTPRequestSerializer> VKQNetworkAgent::requestSerializerForRequest(
    const std::shared_ptr<VKQVeskRequest>& request) const {
  std::shared_ptr<VKQHTTPRequestSerializer> serializer;
  switch (request->requestSerializerType()) {
    case VKQRequestSerializerTypeJSON:
      serializer = VKQJSONRequestSerializer::serializerWithRequest(request);
      break;
    case VKQRequestSerializerTypeKXP:
      serializer = VKQKXPRequestSerializer::serializerWithRequest(request);
      break;
    default:
      return nullptr;
  }
  serializer->setTimeoutInterval(request->requestTimeoutInterval());
  serializer->setAllowsCellularAccess(request->allowsCellularAccess());
  // First element the user name, last the password; an empty array names nobody.
  if (const auto credentials = request->requestAuthorizationHeaderFieldArray(); credentials && !credentials->empty()) {
    serializer->setAuthorizationHeaderFieldWithUsername(credentials->front(), credentials->back());
  }
  // Applied last, so an "Authorization" field here wins over the one made above.
  if (const auto headers = request->requestHeaderFieldValueDictionary()) {
    for (const auto& [field, value] : *headers) {
      if (!serializer->setValue(value, field)) DDDebug("header field refused:", field);
    }
  }
  return serializer;
}

const std::shared_ptr<VKQJSONResponseSerializer>& VKQNetworkAgent::jsonResponseSerializer() {
  std::call_once(jsonResponseSerializerOnce_, [this] {
    jsonResponseSerializer_ = VKQJSONResponseSerializer::serializer();
    // Every status: the transport's own validation has judged it already.
    jsonResponseSerializer_->setAcceptableStatusCodes(std::nullopt);
  });
  return jsonResponseSerializer_;
}

const std::shared_ptr<VKQKXPResponseSerializer>& VKQNetworkAgent::kxpResponseSerializer() {
  std::call_once(kxpResponseSerializerOnce_, [this] { kxpResponseSerializer_ = VKQKXPResponseSerializer::serializer(); });
  return kxpResponseSerializer_;
}

// ---- Tasks ----

std::shared_ptr<URLSessionTask> VKQNetworkAgent::sessionTaskForRequest(const std::shared_ptr<VKQVeskRequest>& request,
                                                                      ErrorPtr* error) {
  const VKQRequestMethod method = request->requestMethod();
  const std::string urlString = buildRequestUrl(*request).value_or("");
  const std::shared_ptr<VKQHTTPRequestSerializer> serializer = requestSerializerForRequest(request);
  const Object parameters = request->requestArgument();

  switch (request->requestSerializerType()) {
    case VKQRequestSerializerTypeJSON: {
      if (method == VKQRequestMethodGET && request->resumableDownloadPath()) {
        return downloadTaskWithDownloadPath(*request->resumableDownloadPath(), *serializer, urlString, parameters,
                                            request->resumableDownloadProgressBlock(), error);
      }
      const char* name = httpMethodName(method);
      if (name == nullptr) return nullptr;
      return dataTaskWithHTTPMethod(name, *serializer, urlString, parameters, error);
    }
    case VKQRequestSerializerTypeKXP:
      sessionDebugWithRequest(*serializer);
      return dataTaskWithHTTPMethod("POST", *serializer, urlString, parameters, error);
    default:
      return nullptr;
  }
}

std::shared_ptr<URLSessionDataTask> VKQNetworkAgent::dataTaskWithHTTPMethod(std::string_view method,
                                                                            const HTTPRequestSerializer& serializer,
                                                                            std::string_view URLString,
                                                                            const Object& parameters, ErrorPtr* error) {
  return dataTaskWithHTTPMethod(method, serializer, URLString, parameters, nullptr, error);
}

std::shared_ptr<URLSessionDataTask> VKQNetworkAgent::dataTaskWithHTTPMethod(
    std::string_view method, const HTTPRequestSerializer& serializer, std::string_view URLString,
    const Object& parameters, const vkq::platform::MultipartBodyBlock& block, ErrorPtr* error) {
  ErrorPtr buildError;
  const auto urlRequest = block ? serializer.multipartFormRequestWithMethod(method, URLString, parameters, block,
                                                                            &buildError)
                                : serializer.requestWithMethod(method, URLString, parameters, &buildError);
  // A request that could not be built gets no task: it would never be sent.
  if (buildError || !urlRequest) {
    vkq::platform::setError(error, requestBuildError(buildError));
    return nullptr;
  }

  // The completion looks the task up by identity; a weak slot, so that a task that is
  // never resumed does not keep itself alive through its own handler.
  auto slot = std::make_shared<std::weak_ptr<URLSessionTask>>();
  auto task = manager_->dataTaskWithRequest(
      *urlRequest, nullptr, nullptr,
      [this, slot](std::shared_ptr<const vkq::platform::HTTPResponse>, Object responseObject, ErrorPtr taskError) {
        handleRequestResult(slot->lock(), std::move(responseObject), std::move(taskError));
      });
  *slot = task;
  return task;
}

// ---- Downloads ----

std::shared_ptr<URLSessionDownloadTask> VKQNetworkAgent::downloadTaskWithDownloadPath(
    const std::string& path, const HTTPRequestSerializer& requestSerlizer, std::string_view URLString,
    const Object& parameters, vkq::platform::ProgressBlock progress, ErrorPtr* error) {
  ErrorPtr buildError;
  const auto urlRequest = requestSerlizer.requestWithMethod("GET", URLString, parameters, &buildError);
  if (buildError || !urlRequest || !urlRequest->url) {
    vkq::platform::setError(error, requestBuildError(buildError));
    return nullptr;
  }

  std::error_code ec;
  std::string target = path;
  if (fs::is_directory(path, ec)) {
    const std::string name = urlRequest->url->lastPathComponent();
    if (!isContainedFileName(name)) {
      vkq::platform::setError(error, describedError(vkq::platform::kURLErrorDomain,
                                                    vkq::platform::kURLErrorCannotCreateFile,
                                                    "The download's file name \"" + name +
                                                        "\" would leave the folder " + path,
                                                    urlRequest->url->absoluteString()));
      return nullptr;
    }
    target = (fs::path(path) / name).string();
  }
  // An earlier file is gone even if this download fails; a failure to remove is ignored.
  fs::remove_all(target, ec);

  std::optional<Bytes> resumeData = VKQResumeDataStore::load(path, target);

  auto destination = [target](const URL&, std::shared_ptr<const vkq::platform::HTTPResponse>) {
    return URL::fileURLWithPath(target, false);
  };
  auto slot = std::make_shared<std::weak_ptr<URLSessionTask>>();
  auto completion = [this, slot, path, target](std::shared_ptr<const vkq::platform::HTTPResponse>,
                                               std::optional<URL> file, ErrorPtr taskError) {
    if (!taskError) {
      VKQResumeDataStore::remove(path, target);
    } else if (taskError->userInfo().resumeData) {
      VKQResumeDataStore::store(path, target, *taskError->userInfo().resumeData);
    }
    handleRequestResult(slot->lock(), file ? Object(std::move(*file)) : Object(), std::move(taskError));
  };

  std::shared_ptr<URLSessionDownloadTask> task;
  if (validateResumeData(resumeData)) {
    try {
      task = manager_->downloadTaskWithResumeData(*resumeData, progress, destination, completion);
    } catch (const std::exception& e) {
      DDDebug("Resume download failed, reason = ", e.what());
    }
  }
  if (!task) task = manager_->downloadTaskWithRequest(*urlRequest, progress, destination, completion);
  *slot = task;
  return task;
}

std::optional<std::string> VKQNetworkAgent::incompleteDownloadTempCacheFolder() const {
  return VKQResumeDataStore::folder();
}

std::optional<URL> VKQNetworkAgent::incompleteDownloadTempPathForDownloadPath(std::string_view path) const {
  return VKQResumeDataStore::fileForName(path);
}

bool VKQNetworkAgent::validateResumeData(const std::optional<Bytes>& data) {
  if (!data || data->empty() || data->size() > std::numeric_limits<std::uint32_t>::max()) return false;
  plist_t plist = nullptr;
  plist_from_memory(reinterpret_cast<const char*>(data->data()), static_cast<std::uint32_t>(data->size()), &plist);
  if (plist == nullptr) return false;
  plist_free(plist);
  return true;
}

std::string VKQNetworkAgent::md5StringFromString(std::string_view string) {
  VKQAssert(!string.empty(), "Invalid parameter not satisfying: string != nil && [string length] > 0");
  // The text up to its first NUL, as a C string would be.
  const std::string_view text = string.substr(0, string.find('\0'));
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  const bool digested = EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr) == 1;
  VKQAssert(digested && length == 16, "MD5 digest unavailable");
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(32);
  for (unsigned int i = 0; i < length; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 0x0F];
  }
  return hex;
}


// ---- Debug log ----

void VKQNetworkAgent::sessionDebugWithRequest(const VKQHTTPRequestSerializer& serializer) const {
  // The settings text is only rendered when the log is on.
  class Settings {
   public:
    Settings(const VKQNetworkAgent& agent, const VKQHTTPRequestSerializer& serializer)
        : agent_(agent), serializer_(serializer) {}
    std::string description() const {
      const std::shared_ptr<VKQVeskRequest>& request = serializer_.request();
      const std::optional<std::string> url = request ? agent_.buildRequestUrl(*request) : std::nullopt;
      constexpr const char* kAbsent = "(null)";
      // An unbound serializer shows every setting as zero, NO or absent.
      DebugSettingsText text;
      text.add("url", url.value_or(kAbsent))
          .add("version", std::to_string(request ? request->version() : 0))
          .add("xorKey", upperHex(request ? request->xorKey() : 0))
          .add("compress", yesNo(request && request->compress()))
          .add("insertAtBeginBody", std::to_string(request ? request->insertAtBeginBody() : 0))
          .add("uploadOSType", yesNo(request && request->uploadOSType()))
          .add("packageName", (request ? request->packageName() : std::nullopt).value_or(kAbsent))
          .add("releaseVersion", std::to_string(request ? request->releaseVersion() : 0))
          .add("bigTndian", yesNo(request && request->bigEndian()))
          .add("nonProtocol", yesNo(request && request->nonProtocol()))
          .add("header", serializer_.HTTPRequestHeaders().description());
      return text.str();
    }

   private:
    const VKQNetworkAgent& agent_;
    const VKQHTTPRequestSerializer& serializer_;
  };

  DDDebug("======================== start request ========================");
  DDDebug(Settings(*this, serializer));
  DDDebug("======================== end   request ========================");
}
