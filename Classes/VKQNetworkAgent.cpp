#include "Classes/VKQNetworkAgent.h"

#include <utility>

#include "Classes/Serialization/Response/VKQJSONResponseSerializer.h"
#include "Classes/Serialization/Response/VKQKXPResponseSerializer.h"
#include "Classes/VKQNetworkAgent+Private.h"
#include "Classes/VKQResumeDataStore.h"
#include "Classes/VKQVeskRequest.h"
#include "Classes/VKQVeskResult.h"
#include "Platform/Base/Assert.h"
#include "Platform/Base/Log.h"
#include "Platform/Base/MainQueue.h"
#include "Platform/Reachability/NetworkReachabilityManager.h"
#include "Platform/Session/HTTPSessionManager.h"
#include "Platform/Session/URLSessionTask.h"

using vkq::platform::ErrorPtr;
using vkq::platform::MainQueue;
using vkq::platform::Object;
using vkq::platform::URLSessionDownloadTask;
using vkq::platform::URLSessionTask;

namespace {

constexpr const char* kRequestNotNil = "Invalid parameter not satisfying: request != nil";

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

// True when the task goes to a loopback host, which answers without a network.
bool sentToThisMachine(const URLSessionTask& task) {
  auto sent = task.originalRequest();
  if (!sent || !sent->url) sent = task.currentRequest();
  return sent && sent->url && vkq::platform::isLoopbackHost(sent->url->host());
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
    error = VKQNetworkAgentSupport::describedError(vkq::platform::kURLRequestSerializationErrorDomain,
                                                   vkq::platform::kURLErrorBadURL,
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
          vkq::platform::NetworkReachabilityStatus::NotReachable &&
      !sentToThisMachine(*request->requestTask())) {
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
  // A request that delivers its cancellation stays, and is delivered that completion.
  if (!request->deliversCancellation()) removeRequestFromRecord(request);
  const std::shared_ptr<URLSessionTask> task = request->requestTask();
  const auto download = std::dynamic_pointer_cast<URLSessionDownloadTask>(task);
  if (download && request->resumableDownloadPath()) {
    cancelDownloadTask(download, *request->resumableDownloadPath());
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
  // The callbacks leave the request now, as a delivered request's do: one that holds
  // its request would otherwise keep both alive for good. Each start of the request
  // gets the callbacks it was started with.
  MainQueue::async([completion = request->completionResultBlock(), failure = request->failureResultBlock(),
                    result = std::move(result)] {
    callResultBlock(completion, result);
    callResultBlock(failure, result);
  });
  request->clearCompletionBlock();
}

void VKQNetworkAgent::handleRequestResult(const std::shared_ptr<URLSessionTask>& task, Object responseObject,
                                          ErrorPtr error) {
  const std::shared_ptr<VKQVeskRequest> request = task ? record_.find(task->taskIdentifier()) : nullptr;
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
  if (result) result->setMetrics(task->metrics());
  MainQueue::async([this, taskIdentifier = task->taskIdentifier(), request, result = std::move(result)] {
    deliverResult(taskIdentifier, request, result);
  });
}

void VKQNetworkAgent::deliverResult(std::uint64_t taskIdentifier, const std::shared_ptr<VKQVeskRequest>& request,
                                    const std::shared_ptr<VKQVeskResult>& result) {
  // The callbacks leave the request before they run: a callback that starts the request
  // again gives it new callbacks, and clearing after the call would drop those.
  const VKQVeskRequest::ResultBlock completion = request->completionResultBlock();
  const VKQVeskRequest::ResultBlock success = request->successResultBlock();
  const VKQVeskRequest::ResultBlock failure = request->failureResultBlock();
  request->clearCompletionBlock();
  callResultBlock(completion, result);
  // An absent result reads as success, so it goes to the success callback.
  const bool succeeded =
      !result || !result->responseCode() || result->responseCode()->code() == VKQResponseCodeSuccess;
  callResultBlock(succeeded ? success : failure, result);
  record_.remove(taskIdentifier);
}

// ---- Resume-data names ----

std::string VKQNetworkAgent::md5StringFromString(std::string_view string) {
  VKQAssert(!string.empty(), VKQNetworkAgentSupport::kStringNotEmpty);
  return VKQResumeDataStore::md5Name(string);
}
