// The HTTP session manager: makes data and download tasks and runs them.
//
// Transport: one libcurl multi handle driven by one worker thread per manager, so
// requests share connections (keep-alive, HTTP/2 over TLS when the server offers it)
// and no thread is made per request. Like the platform's default session, a manager
// follows up to 16 redirects (301, 302, 303, 307 and 308, to http and https URLs only:
// a 303 is followed with GET, or HEAD for a HEAD; a 301 or 302 turns a POST into a
// GET; otherwise method and body stay; credentials stay with their origin), decodes
// gzip, deflate and br answers transparently, keeps an in-memory cookie store shared by
// its tasks (Set-Cookie is stored, matching cookies are sent), honours the proxy
// settings of the environment and verifies TLS peers. A request's timeoutInterval is an idle time-out: the task fails with
// kURLErrorTimedOut when no data has moved for that long, connection set-up included;
// a slow but steady transfer may last longer.
//
// Only requests for http and https URLs with a host are sent (others fail with
// kURLErrorUnsupportedURL), and they carry their own header fields and the ones HTTP
// needs (Host, Content-Length, Accept, Accept-Encoding, cookies), no others. An answer
// whose head is cut off or whose body is shorter or longer than its Content-Length
// fails (kURLErrorNetworkConnectionLost, kURLErrorBadServerResponse).
//
// Outcomes: every completion handler runs exactly once per task (success, failure or
// cancellation) on the manager's completion queue, a serial queue of its own that is
// neither the worker thread nor the main queue. Progress and destination callbacks run
// on the same queue, before the task's completion handler. An exception thrown by any
// callback is caught and dropped.
//
// Thread-safe. Destroying the manager cancels the tasks still running (their handlers
// run with kURLErrorCancelled) and waits for the handlers already queued; a task
// resumed after its manager is gone completes at once with kURLErrorCancelled, without
// calling its handler.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Base/Bytes.h"
#include "Platform/Base/Error.h"
#include "Platform/HTTP/HTTPResponse.h"
#include "Platform/Serialization/HTTPResponseSerializer.h"
#include "Platform/Reachability/NetworkReachabilityManager.h"
#include "Platform/Serialization/Object.h"
#include "Platform/Base/Progress.h"
#include "Platform/HTTP/URL.h"
#include "Platform/HTTP/URLRequest.h"
#include "Platform/Session/URLSessionTask.h"

namespace vkq::platform {

class SessionEngine;

class HTTPSessionManager {
 public:
  // A new manager with a plain HTTPResponseSerializer (statuses 200-299).
  static std::shared_ptr<HTTPSessionManager> manager();

  HTTPSessionManager();
  ~HTTPSessionManager();
  HTTPSessionManager(const HTTPSessionManager&) = delete;
  HTTPSessionManager& operator=(const HTTPSessionManager&) = delete;

  // Validates every answer and, for data tasks, turns its body into the response
  // object. Read when a task completes, so a change applies to tasks that complete
  // later. Never null: setting null restores a plain HTTPResponseSerializer.
  std::shared_ptr<HTTPResponseSerializer> responseSerializer() const;
  void setResponseSerializer(std::shared_ptr<HTTPResponseSerializer> serializer);

  // The manager's reachability monitor (not started until someone starts it).
  std::shared_ptr<NetworkReachabilityManager> reachabilityManager() const { return reachability_; }

  // Where partial downloads lie until they complete: the private folder
  // "vkq-partial-downloads" (Platform/Base/PrivateFolder.h), made when a download opens
  // its file; a download fails when the folder is not the user's own. Resume data
  // refers to files in it.
  static std::filesystem::path partialDownloadsFolder();
  // Whether `data` has the form of resume data (a non-empty property list, of any
  // content) and so is worth offering to downloadTaskWithResumeData(), which judges
  // the content.
  static bool hasResumeDataForm(const Bytes& data);

  // Data task: the body is collected in memory, up to the request's
  // maximumBodyLength. The completion handler receives the
  // final answer's head (absent when none arrived), the response object the response
  // serializer made of the body, and the error: the transport's (the response object
  // is then absent) or the serializer's (e.g. a status outside 200-299; the response
  // object is then still the body). Progress callbacks may be empty.
  using DataTaskCompletion =
      std::function<void(std::shared_ptr<const HTTPResponse> response, Object responseObject, ErrorPtr error)>;
  // A suspended data task for `request`, as described above.
  std::shared_ptr<URLSessionDataTask> dataTaskWithRequest(const URLRequest& request, ProgressBlock uploadProgress,
                                                          ProgressBlock downloadProgress,
                                                          DataTaskCompletion completionHandler);

  // Download task: the body is streamed to a temporary file. When the answer is
  // complete and valid, `destination` (may be empty) is asked for a file URL; the file
  // is moved there (replacing a file that is in the way, never a folder) and its URL
  // handed to the completion handler. What is at the destination stays as it was until
  // then, also when the move fails (across file systems the file is copied next to it
  // first). The file gets the mode new files get (0666 less the umask). Without a destination, or after a failure, the file is
  // removed and the file path is absent. A status outside what the response serializer
  // accepts is an error and nothing is moved. A failed download whose server sent a
  // validator (ETag or Last-Modified) and that wrote bytes carries resume data in
  // error->userInfo().resumeData.
  using DownloadDestination = std::function<URL(const URL& temporaryFile, std::shared_ptr<const HTTPResponse> response)>;
  // Receives the final head, the moved file's URL (absent without destination or after
  // a failure) and the error.
  using DownloadTaskCompletion =
      std::function<void(std::shared_ptr<const HTTPResponse> response, std::optional<URL> filePath, ErrorPtr error)>;
  // A suspended download task for `request`, as described above.
  std::shared_ptr<URLSessionDownloadTask> downloadTaskWithRequest(const URLRequest& request, ProgressBlock progress,
                                                                  DownloadDestination destination,
                                                                  DownloadTaskCompletion completionHandler);
  // Continues a download from its resume data with a Range request guarded by
  // If-Range: the rest is appended to the partial file; when the server sends the
  // whole (changed) entity instead, the download starts over. Null, with an error of
  // kURLErrorDomain (kURLErrorCannotDecodeRawData) saying why, when the data is not
  // resume data of this transport or its partial file is missing or of another size.
  // Use the resume data for one task only. Resume data keeps no retry policy or
  // deadline: the task takes them from `settings` (URLRequest's defaults when null).
  std::shared_ptr<URLSessionDownloadTask> downloadTaskWithResumeData(const Bytes& resumeData, ProgressBlock progress,
                                                                     DownloadDestination destination,
                                                                     DownloadTaskCompletion completionHandler,
                                                                     ErrorPtr* error,
                                                                     const URLRequest* settings = nullptr);

 private:
  const std::shared_ptr<SessionEngine> engine_;
  const std::shared_ptr<NetworkReachabilityManager> reachability_;
};

}  // namespace vkq::platform
