#include "Platform/Transport/DataTaskBody.h"

#include <algorithm>

#include "Platform/Transport/CurlErrors.h"

namespace vkq::platform {

DataTaskBody::DataTaskBody(SharedRequest request, std::shared_ptr<ResponseSerializerSlot> serializer,
                           HTTPSessionManager::DataTaskCompletion completion)
    : limit_(request->maximumBodyLength),
      request_(std::move(request)),
      serializer_(std::move(serializer)),
      completion_(std::move(completion)) {}

ErrorPtr DataTaskBody::tooLong() const {
  return makeTransportError(kURLErrorDataLengthExceedsMaximum,
                            "The answer body exceeds the data task limit of " + std::to_string(limit_) + " bytes.",
                            request_ && request_->url ? request_->url->absoluteString() : std::string());
}

ErrorPtr DataTaskBody::didReceiveResponse(const HTTPResponse&, std::int64_t bodyLength) {
  body_.clear();
  if (bodyLength > 0) {
    if (static_cast<std::uint64_t>(bodyLength) > limit_) return tooLong();
    body_.reserve(static_cast<std::size_t>(bodyLength));
  }
  return nullptr;
}

ErrorPtr DataTaskBody::didReceiveData(const char* data, std::size_t length) {
  if (length > limit_ - body_.size()) return tooLong();
  body_.insert(body_.end(), reinterpret_cast<const std::uint8_t*>(data),
               reinterpret_cast<const std::uint8_t*>(data) + length);
  return nullptr;
}

ErrorPtr DataTaskBody::didFinish(ErrorPtr error, bool) { return error; }

ErrorPtr DataTaskBody::settle(const std::shared_ptr<const HTTPResponse>& response, ErrorPtr error) {
  if (error) return error;
  ErrorPtr invalid;
  responseObject_ = serializer_->get()->responseObjectForResponse(response.get(), Object(std::move(body_)), &invalid);
  return invalid;
}

void DataTaskBody::deliver(const std::shared_ptr<const HTTPResponse>& response, const ErrorPtr& error) {
  const auto completion = std::move(completion_);
  completion_ = nullptr;
  Object responseObject = std::move(responseObject_);
  if (completion) completion(response, std::move(responseObject), error);
}

}  // namespace vkq::platform
