// ToolVesk: the builder with the two request properties that VKQVesk answers with the
// base defaults and the command line sets: the time-out and basic authorization.
// Overriding request properties in a subclass is how the request model is extended.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Classes/VKQVesk.h"

namespace vkq::tool {

class ToolVesk : public VKQVesk {
 public:
  // Absent: the request's default time-out.
  void setTimeoutInterval(std::optional<double> seconds) { timeout_ = seconds; }
  // Absent: no authorization header.
  void setCredentials(std::optional<std::pair<std::string, std::string>> credentials) {
    credentials_ = std::move(credentials);
  }

  double requestTimeoutInterval() const override {
    return timeout_.value_or(VKQVesk::requestTimeoutInterval());
  }
  std::optional<std::vector<std::string>> requestAuthorizationHeaderFieldArray() const override {
    if (!credentials_) return VKQVesk::requestAuthorizationHeaderFieldArray();
    return std::vector<std::string>{credentials_->first, credentials_->second};
  }

 private:
  std::optional<double> timeout_;
  std::optional<std::pair<std::string, std::string>> credentials_;
};

}  // namespace vkq::tool
