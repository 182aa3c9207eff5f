// VKQNetworkAgent: the one process-wide object that runs requests.
//
// addRequest() turns a request into a transport task, keeps the request in a registry
// keyed by the task's identifier while it runs, and when the transport finishes lets
// the request's response serializer build its VKQVeskResult and delivers it on the
// main queue. Requests that fail before anything is sent (no task could be made:
// VKQResponseCodeHTTPError; network not reachable: VKQResponseCodeNetworkError) are
// delivered the same way.
//
// Threads: addRequest() and cancelRequest() may be called from any thread; a task is
// made on the calling thread. Answers are decoded on the transport's completion queue
// (neither the main queue nor the transport's worker thread). Every callback runs on
// the main queue through a job of its own, never inside addRequest(): completion
// first, then success (code 0) or failure (any other code). The registry's lock is
// held for single insert, remove and look-up operations only.
//
// Ownership: the agent lives until the process ends and owns the session manager, the
// two response serializers (made on first use) and the registry, which holds each
// running request from just before its task is resumed until its callbacks have run.
//
// Downloads: a JSON GET request with a resumableDownloadPath is run as a file
// download. Resume data of an interrupted download (failed or cancelled) is kept by
// VKQResumeDataStore, and the next download of the same path continues from it; a
// cancelled download's is in place when cancelRequest() returns.
//
// The class is implemented by concern: VKQNetworkAgent.cpp (starting, cancelling,
// the registry, delivery), VKQNetworkAgent+Building.cpp (URL, serializers, tasks),
// VKQNetworkAgent+Downloads.cpp (download tasks, targets, resume data) and
// VKQNetworkAgent+DebugLog.cpp (the KXP request log).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "Classes/VKQNetworkAgentRecord.h"
#include "Platform/Base/Bytes.h"
#include "Platform/Base/Error.h"
#include "Platform/Base/Progress.h"
#include "Platform/HTTP/URL.h"
#include "Platform/Serialization/HTTPRequestSerializer.h"
#include "Platform/Serialization/Object.h"

namespace vkq::platform {
class HTTPSessionManager;
class URLSessionTask;
class URLSessionDataTask;
class URLSessionDownloadTask;
}  // namespace vkq::platform
class VKQVeskRequest;
class VKQVeskResult;
class VKQHTTPRequestSerializer;
class VKQJSONResponseSerializer;
class VKQKXPResponseSerializer;

class VKQNetworkAgent {
 public:
  // ======== The application's API ========

  // The agent, made on first use (thread-safe) and never destroyed.
  static VKQNetworkAgent& sharedAgent();

  VKQNetworkAgent(const VKQNetworkAgent&) = delete;
  VKQNetworkAgent& operator=(const VKQNetworkAgent&) = delete;

  // Starts the request: makes its task, then either registers and resumes it, or
  // delivers VKQResponseCodeHTTPError (the task could not be made; the request's error
  // says why) or VKQResponseCodeNetworkError (the network is not reachable; an unknown
  // status counts as reachable, and a request to a loopback host is sent regardless).
  // REQUIRES: request is not null (fatal assertion otherwise). A request whose method
  // or serializer type selects no task stops on the assertion
  // "requestTask should not be nil".
  void addRequest(const std::shared_ptr<VKQVeskRequest>& request);
  // Cancels the request's task and forgets the request: no callback ever runs for it
  // and its callbacks stay attached. A download is cancelled by producing resume data,
  // which is stored before this returns, so a download of the same path started right
  // after continues from it. For that it waits for the transport's worker thread to
  // stop the transfer (never for the main queue or a callback), so it may be called
  // from any thread, callbacks included. A request that deliversCancellation() is kept
  // instead, and its callbacks receive the cancelled exchange's failure.
  // REQUIRES: request is not null.
  void cancelRequest(const std::shared_ptr<VKQVeskRequest>& request);

  // The resume-data file of a download path: its MD5 name in the cache folder. Absent
  // when the cache folder cannot be made.
  std::optional<vkq::platform::URL> incompleteDownloadTempPathForDownloadPath(std::string_view path) const;

  // ======== The agent's own parts ========
  // The steps addRequest() and the transport's completions go through, grouped by the
  // file that implements them. Applications do not call them; tests do.

  // ---- Registry and completion (VKQNetworkAgent.cpp) ----
  // Insert / remove the request under its current task's identifier; a request
  // without a task has no entry. Each takes the registry's lock once.
  void addRequestToRecord(const std::shared_ptr<VKQVeskRequest>& request);
  void removeRequestFromRecord(const std::shared_ptr<VKQVeskRequest>& request);
  // The number of running requests.
  std::size_t recordCount() const { return record_.count(); }
  // A failure before the task ran: stores `error` (may be null) in the request, takes
  // its callbacks out of it and queues a main-queue job that calls completion, then
  // failure, with a result of `code`. The request is not in the registry.
  void requestDidFailWithRequest(const std::shared_ptr<VKQVeskRequest>& request, vkq::platform::ErrorPtr error,
                                 std::int64_t code);
  // The completion of every task, on the transport's completion queue. Finds the
  // request (none: "request has cancel" is logged and nothing else happens), stores the
  // raw answer and the transport error in it, decodes the answer with the serializer
  // of its responseSerializerType (any other type gives no result) and queues the
  // main-queue job: completion, then success or failure, then the request leaves the
  // registry and its callbacks are cleared. Never throws.
  void handleRequestResult(const std::shared_ptr<vkq::platform::URLSessionTask>& task,
                           vkq::platform::Object responseObject, vkq::platform::ErrorPtr error);
  // 32 lower-case hexadecimal digits: the MD5 of the UTF-8 text up to its first NUL,
  // as VKQResumeDataStore names its files.
  // REQUIRES: string is not empty (fatal assertion otherwise).
  static std::string md5StringFromString(std::string_view string);

  // ---- From a request to a task (VKQNetworkAgent+Building.cpp) ----
  // The URL to request: `url` when it is absolute (scheme and host), else `path` when
  // it is absolute, both verbatim; otherwise `path` resolved against `host` (which
  // gains a trailing "/" first). Absent when that does not parse.
  std::optional<std::string> buildRequestUrl(const VKQVeskRequest& request) const;
  // A serializer bound to the request (JSON for type 0, KXP for 1, null otherwise),
  // with its time-out, cellular access, Basic authorization (first element the user,
  // last the password; an empty array sets none) and header fields, the header
  // dictionary applied last. Null, with an error naming the field, when a header field
  // could break the message (CR, LF or NUL; an empty name or one with a colon).
  std::shared_ptr<VKQHTTPRequestSerializer> requestSerializerForRequest(const std::shared_ptr<VKQVeskRequest>& request,
                                                                        vkq::platform::ErrorPtr* error = nullptr) const;
  // The shared response serializers, made on first use (std::call_once: safe from any
  // thread). The JSON one accepts every status: the transport has validated it.
  const std::shared_ptr<VKQJSONResponseSerializer>& jsonResponseSerializer();
  const std::shared_ptr<VKQKXPResponseSerializer>& kxpResponseSerializer();
  // The task for a request, made suspended: KXP requests by "POST" after the debug
  // log, JSON requests by their method, JSON GET requests with a resumableDownloadPath
  // as downloads. Null with the serializer's error in `error` when the URL request
  // could not be built; null with `error` untouched for a method or serializer type
  // outside the enumerations.
  std::shared_ptr<vkq::platform::URLSessionTask> sessionTaskForRequest(const std::shared_ptr<VKQVeskRequest>& request,
                                                                      vkq::platform::ErrorPtr* error);
  // A suspended data task whose completion goes to handleRequestResult(). With a body
  // block the body is multipart/form-data. Null, with the error, when the serializer
  // fails.
  std::shared_ptr<vkq::platform::URLSessionDataTask> dataTaskWithHTTPMethod(
      std::string_view method, const vkq::platform::HTTPRequestSerializer& serializer, std::string_view URLString,
      const vkq::platform::Object& parameters, vkq::platform::ErrorPtr* error);
  std::shared_ptr<vkq::platform::URLSessionDataTask> dataTaskWithHTTPMethod(
      std::string_view method, const vkq::platform::HTTPRequestSerializer& serializer, std::string_view URLString,
      const vkq::platform::Object& parameters, const vkq::platform::MultipartBodyBlock& block,
      vkq::platform::ErrorPtr* error);

  // ---- Downloads (VKQNetworkAgent+Downloads.cpp) ----
  // A suspended "GET" download of URLString into `path`: the file itself, or, when
  // `path` is an existing folder, the URL's last path component inside it. A file
  // already at the target stays as it is until the new one is complete and takes its
  // place; a failed download leaves it untouched. Resumes when VKQResumeDataStore
  // holds data for the download of this URL that validateResumeData() accepts;
  // otherwise (also when the transport refuses it: "Resume download failed, reason = "
  // is logged) a fresh download, which discards the resume data stored for the target
  // and its partial file. When the task ends, a failure's resume data is stored (a
  // cancellation's is stored by cancelDownloadTask()) and a success removes any. Null
  // with an error (domain kURLErrorDomain, code kURLErrorCannotCreateFile) when the
  // last path component would leave the folder (".", "..", empty, or holding "/") or
  // the target is a folder, and null with the serializer's error when the URL request
  // of a fresh download could not be built.
  std::shared_ptr<vkq::platform::URLSessionDownloadTask> downloadTaskWithDownloadPath(
      const std::string& path, const vkq::platform::HTTPRequestSerializer& requestSerlizer, std::string_view URLString,
      const vkq::platform::Object& parameters, vkq::platform::ProgressBlock progress, vkq::platform::ErrorPtr* error);
  // The private folder "Incomplete" (under $XDG_CACHE_HOME, else $TMPDIR, else /tmp;
  // mode 0700), created on every call; absent, after logging "Failed to create cache
  // directory at", when it can't be or is not the user's own.
  std::optional<std::string> incompleteDownloadTempCacheFolder() const;
  // True for resume data worth offering to the transport: present, non-empty and in
  // the form the transport's resume data has (a property list, of any content).
  static bool validateResumeData(const std::optional<vkq::platform::Bytes>& data);

  // ---- Debug log (VKQNetworkAgent+DebugLog.cpp) ----
  // Writes the three entries that show a KXP request's URL, frame settings and the
  // serializer's default header fields: start rule, settings text, end rule.
  void sessionDebugWithRequest(const VKQHTTPRequestSerializer& serializer) const;

 private:
  VKQNetworkAgent();
  ~VKQNetworkAgent() = delete;

  // The main-queue part of a completion: the request's callbacks are taken from it and
  // run, then the request leaves the registry (by the identifier of the task that
  // completed). A callback may start the request again; its new callbacks stay.
  void deliverResult(std::uint64_t taskIdentifier, const std::shared_ptr<VKQVeskRequest>& request,
                     const std::shared_ptr<VKQVeskResult>& result);
  // Cancels a download of `path` by producing resume data, which is stored for the
  // next download of the same path before this returns (VKQNetworkAgent+Downloads.cpp).
  void cancelDownloadTask(const std::shared_ptr<vkq::platform::URLSessionDownloadTask>& task,
                          const std::string& path);

  std::shared_ptr<vkq::platform::HTTPSessionManager> manager_;
  std::once_flag jsonResponseSerializerOnce_;
  std::shared_ptr<VKQJSONResponseSerializer> jsonResponseSerializer_;
  std::once_flag kxpResponseSerializerOnce_;
  std::shared_ptr<VKQKXPResponseSerializer> kxpResponseSerializer_;
  VKQNetworkAgentRecord record_;
};
