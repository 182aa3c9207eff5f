#include "Classes/VKQResponseCode.h"

#include <array>

namespace {

// Indexed by code + 4: the known codes are exactly -4 to 0.
constexpr std::array<const char*, 5> kMessages = {
    "server error",    // -4
    "protocol error",  // -3
    "http error",      // -2
    "network error",   // -1
    "Success",         //  0
};
constexpr std::int64_t kLowestCode = VKQResponseCodeServerError;

}  // namespace

std::shared_ptr<VKQResponseCode> VKQResponseCode::responseCode(std::int64_t code) {
  return std::make_shared<VKQResponseCode>(code);
}

std::optional<std::string> VKQResponseCode::msg() const {
  if (code_ < kLowestCode || code_ > VKQResponseCodeSuccess) return std::nullopt;
  return kMessages[static_cast<std::size_t>(code_ - kLowestCode)];
}

std::string VKQResponseCode::description() const {
  return "code = " + std::to_string(code_) + ", msg = " + msg().value_or("(null)");
}
