// A request that answers its KXP settings from a VKQKXPFrameSettings: the serializers
// must see the settings through the overridable accessors alone.
#pragma once

#include <memory>

#include "Classes/Codec/VKQKXPFrame.h"
#include "Classes/VKQVeskRequest.h"

namespace kxp_testing {

class SettingsRequest : public VKQVeskRequest {
 public:
  explicit SettingsRequest(VKQKXPFrameSettings settings) : settings_(std::move(settings)) {}

  bool nonProtocol() const override { return settings_.nonProtocol; }
  bool compress() const override { return settings_.compress; }
  std::uint8_t xorKey() const override { return settings_.xorKey; }
  std::uint16_t insertAtBeginBody() const override { return settings_.insertAtBeginBody; }
  std::uint8_t version() const override { return settings_.version; }
  bool uploadOSType() const override { return settings_.uploadOSType; }
  std::optional<std::string> packageName() const override { return settings_.packageName; }
  std::int32_t releaseVersion() const override { return settings_.releaseVersion; }
  std::size_t maximumResponseLength() const override { return settings_.maximumPayloadLength; }

 private:
  VKQKXPFrameSettings settings_;
};

inline std::shared_ptr<SettingsRequest> requestWith(VKQKXPFrameSettings settings) {
  return std::make_shared<SettingsRequest>(std::move(settings));
}

}  // namespace kxp_testing
