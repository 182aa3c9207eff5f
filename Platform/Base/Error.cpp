#include "Platform/Base/Error.h"

#include <cstring>
#include <utility>

namespace vkq::platform {

Error::Error(std::string domain, std::int64_t code, ErrorUserInfo userInfo)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)) {}

std::string Error::localizedDescription() const {
  if (userInfo_.localizedDescription) return *userInfo_.localizedDescription;
  if (userInfo_.localizedFailureReason) return *userInfo_.localizedFailureReason;
  return "The operation couldn't be completed. (" + domain_ + " error " + std::to_string(code_) + ".)";
}

std::string Error::description() const {
  return "Error Domain=" + domain_ + " Code=" + std::to_string(code_) + " \"" + localizedDescription() + "\"";
}

ErrorPtr makeError(std::string domain, std::int64_t code, ErrorUserInfo userInfo) {
  return std::make_shared<const Error>(std::move(domain), code, std::move(userInfo));
}

ErrorPtr makePOSIXError(std::string_view call, int code) {
  ErrorUserInfo info;
  info.localizedDescription = std::string(call) + ": " + std::strerror(code);
  return makeError(kPOSIXErrorDomain, code, std::move(info));
}

}  // namespace vkq::platform
