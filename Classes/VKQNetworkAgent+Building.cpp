// From a request to a suspended task: the URL, the request serializer, the response
// serializers, and the data task whose completion comes back to the agent.
#include "Classes/VKQNetworkAgent.h"

#include <utility>

#include "Classes/Serialization/Request/VKQJSONRequestSerializer.h"
#include "Classes/Serialization/Request/VKQKXPRequestSerializer.h"
#include "Classes/Serialization/Response/VKQJSONResponseSerializer.h"
#include "Classes/Serialization/Response/VKQKXPResponseSerializer.h"
#include "Classes/VKQNetworkAgent+Private.h"
#include "Classes/VKQVeskRequest.h"
#include "Platform/Session/HTTPSessionManager.h"
#include "Platform/Session/URLSessionTask.h"

using vkq::platform::ErrorPtr;
using vkq::platform::HTTPRequestSerializer;
using vkq::platform::Object;
using vkq::platform::URL;
using vkq::platform::URLSessionDataTask;
using vkq::platform::URLSessionTask;

namespace {

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

}  // namespace

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
    const std::shared_ptr<VKQVeskRequest>& request, ErrorPtr* error) const {
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
  serializer->setRetryPolicy(request->retryPolicy());
  serializer->setDeadlineInterval(request->requestDeadlineInterval());
  serializer->setMaximumBodyLength(request->maximumResponseLength());
  // First element the user name, last the password; an empty array names nobody.
  if (const auto credentials = request->requestAuthorizationHeaderFieldArray(); credentials && !credentials->empty()) {
    serializer->setAuthorizationHeaderFieldWithUsername(credentials->front(), credentials->back());
  }
  // Applied last, so an "Authorization" field here wins over the one made above.
  if (const auto headers = request->requestHeaderFieldValueDictionary()) {
    for (const auto& [field, value] : *headers) {
      if (!serializer->setValue(value, field, error)) return nullptr;
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
  const std::shared_ptr<VKQHTTPRequestSerializer> serializer = requestSerializerForRequest(request, error);
  if (!serializer) return nullptr;
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
    vkq::platform::setError(error, VKQNetworkAgentSupport::requestBuildError(buildError));
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
