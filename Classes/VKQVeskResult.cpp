#include "Classes/VKQVeskResult.h"

#include "Classes/VKQVeskRequest.h"

using vkq::platform::Object;

std::shared_ptr<VKQVeskResult> VKQVeskResult::resultWithErrorCode(std::int64_t code) {
  return resultWithErrorCode(code, nullptr);
}

std::shared_ptr<VKQVeskResult> VKQVeskResult::resultWithErrorCode(std::int64_t code,
                                                                  std::shared_ptr<VKQVeskRequest> request) {
  auto result = std::make_shared<VKQVeskResult>();
  result->setResponseCode(VKQResponseCode::responseCode(code));
  result->setRequest(std::move(request));
  return result;
}

std::shared_ptr<VKQVeskResult> VKQVeskResult::resultWithSuccessData(Object data,
                                                                    std::shared_ptr<VKQVeskRequest> request) {
  return initWith(VKQResponseCode::responseCode(VKQResponseCodeSuccess), std::move(data), std::move(request));
}

std::shared_ptr<VKQVeskResult> VKQVeskResult::initWith(std::shared_ptr<VKQResponseCode> responseCode, Object data,
                                                       std::shared_ptr<VKQVeskRequest> request) {
  auto result = std::make_shared<VKQVeskResult>();
  result->setData(std::move(data));
  result->setResponseCode(std::move(responseCode));
  result->setRequest(std::move(request));
  return result;
}

std::string VKQVeskResult::description() const {
  // A result whose code was cleared reads as code 0 without a message.
  const std::int64_t code = responseCode_ ? responseCode_->code() : VKQResponseCodeSuccess;
  const std::optional<std::string> msg = responseCode_ ? responseCode_->msg() : std::nullopt;
  return "errorCode = (" + std::to_string(code) + "), errorMsg = (" + msg.value_or("(null)") + ")";
}
