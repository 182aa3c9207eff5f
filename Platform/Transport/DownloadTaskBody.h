// The body sink of download tasks: streams the answer to a partial file in the private
// partial downloads folder, continues from resume data, and on success moves the file
// where the destination callback says.
// Internal to the transport.
//
// The resume bookkeeping (offset kept from before, bytes written, validator, the
// partial file) changes in these hooks only:
// - willSend() opens the file before the first exchange and, when there is an offset
//   and a validator, asks for the rest with Range and If-Range;
// - didReceiveResponse() keeps the offset for a 206 from the position asked for under
//   the stored validator, asks for a restart when the answer cannot be appended (416,
//   or a 206 from another position or of another entity), and otherwise (the whole
//   entity, or an error answer) starts the file over;
// - shouldRestart() then starts the file over with a plain request, once;
// - prepareRetry() keeps what a failed exchange wrote of the entity as the offset to
//   continue from, when it can be continued, and otherwise starts the file over;
// - didFinish() closes the file and keeps it as resume data, or removes it, and hands
//   the resume data (or absent) to endingResumeData() at once, on the worker thread.
#pragma once

#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Platform/Transport/FileWriter.h"
#include "Platform/Session/HTTPSessionManager.h"
#include "Platform/Transport/ResumeData.h"
#include "Platform/Transport/SessionEngine.h"
#include "Platform/Transport/SessionTransfer.h"

namespace vkq::platform {

class DownloadTaskBody final : public BodySink {
 public:
  using ResumeDataHandler = std::function<void(std::optional<Bytes> resumeData)>;

  struct Callbacks {
    std::shared_ptr<ResponseSerializerSlot> serializer;
    HTTPSessionManager::DownloadDestination destination;
    HTTPSessionManager::DownloadTaskCompletion completion;
  };

  // A fresh download of `request` into a new file in `folder`.
  DownloadTaskBody(std::filesystem::path folder, const URLRequest& request, Callbacks callbacks);
  // A download continuing `resume`; its partial file must hold exactly bytesReceived.
  DownloadTaskBody(const ResumeData& resume, Callbacks callbacks);

  // The request that continues `resume`.
  static URLRequest requestForResumeData(const ResumeData& resume);

  // Whether `file` lies directly in the partial downloads folder (links and dot
  // segments resolved): the only files resume data may make the transport touch.
  static bool isInPartialDownloadsFolder(const std::filesystem::path& file);

  // Any thread: keep the partial file when the download is cancelled and, when
  // `handler` is not empty, hand its resume data (or absent) to it before the
  // completion handler. False when the download has already ended.
  bool requestResumeData(ResumeDataHandler handler);
  // The resume data the download ends with (absent: none), ready once didFinish() has
  // run, before the completion queue hears of the end.
  std::shared_future<std::optional<Bytes>> endingResumeData() const { return endingResumeData_; }

  ErrorPtr willSend(SharedRequest& request) override;
  ErrorPtr didReceiveResponse(const HTTPResponse& response, std::int64_t bodyLength) override;
  ErrorPtr didReceiveData(const char* data, std::size_t length) override;
  bool shouldRestart() override;
  bool prepareRetry() override;
  ErrorPtr didFinish(ErrorPtr error, bool cancelled) override;
  std::int64_t length() const override { return written_; }

  ErrorPtr settle(const std::shared_ptr<const HTTPResponse>& response, ErrorPtr error) override;
  void deliver(const std::shared_ptr<const HTTPResponse>& response, const ErrorPtr& error) override;

 private:
  ErrorPtr openFile();
  ErrorPtr truncateFile();
  // The task's error for a file operation `what` that failed with `cause`.
  ErrorPtr fileError(URLErrorCode code, const std::string& what, const ErrorPtr& cause) const;
  bool isResumable() const;
  // Empties the file for a plain request of the whole entity; false when it cannot.
  bool startOver();
  void removeFile();
  // Moves the finished file to `target`; false, with `error`, when it cannot.
  bool moveFile(const std::filesystem::path& target, ErrorPtr& error);

  const std::filesystem::path folder_;
  const std::string url_;
  const bool isGET_;
  const HTTPHeaders headerFields_;
  const double timeoutInterval_;
  Callbacks callbacks_;

  // Worker side (see BodySink).
  std::filesystem::path path_;
  std::unique_ptr<FileWriter> file_;  // open from the first willSend() to didFinish()
  std::int64_t offset_ = 0;   // bytes kept from before when the request was sent
  std::int64_t written_ = 0;  // bytes of the entity in the file
  std::string validator_;
  int status_ = 0;
  bool rangeSent_ = false;
  bool discarding_ = false;
  bool restartWanted_ = false;
  bool restarted_ = false;

  std::mutex mutex_;
  bool finished_ = false;            // guarded by mutex_
  bool wantsResumeData_ = false;     // guarded by mutex_
  ResumeDataHandler resumeHandler_;  // guarded by mutex_
  std::optional<Bytes> resumeData_;  // guarded by mutex_

  // Set by didFinish().
  std::promise<std::optional<Bytes>> ending_;
  const std::shared_future<std::optional<Bytes>> endingResumeData_ = ending_.get_future().share();

  // Completion queue.
  std::optional<URL> filePath_;
};

}  // namespace vkq::platform
