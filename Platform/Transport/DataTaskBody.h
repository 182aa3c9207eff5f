// The body sink of data tasks: the answer body collected in memory, up to the
// request's limit, then turned into the response object by the manager's response
// serializer.
// Internal to the transport.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "Platform/Session/HTTPSessionManager.h"
#include "Platform/Transport/SessionEngine.h"
#include "Platform/Transport/SessionTransfer.h"

namespace vkq::platform {

class DataTaskBody final : public BodySink {
 public:
  DataTaskBody(SharedRequest request, std::shared_ptr<ResponseSerializerSlot> serializer,
               HTTPSessionManager::DataTaskCompletion completion);

  ErrorPtr didReceiveResponse(const HTTPResponse& response, std::int64_t bodyLength) override;
  ErrorPtr didReceiveData(const char* data, std::size_t length) override;
  ErrorPtr didFinish(ErrorPtr error, bool cancelled) override;
  bool prepareRetry() override {
    body_.clear();
    return true;
  }
  std::int64_t length() const override { return static_cast<std::int64_t>(body_.size()); }

  ErrorPtr settle(const std::shared_ptr<const HTTPResponse>& response, ErrorPtr error) override;
  void deliver(const std::shared_ptr<const HTTPResponse>& response, const ErrorPtr& error) override;

 private:
  ErrorPtr tooLong() const;

  const std::size_t limit_;
  const SharedRequest request_;  // for the URL of an error
  const std::shared_ptr<ResponseSerializerSlot> serializer_;
  HTTPSessionManager::DataTaskCompletion completion_;
  Bytes body_;
  Object responseObject_;
};

}  // namespace vkq::platform
