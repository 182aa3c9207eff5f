#include "Classes/Serialization/VKQKXPRequestSettings.h"

#include "Classes/VKQVeskRequest.h"

VKQKXPFrameSettings VKQKXPFrameSettingsOf(const VKQVeskRequest& request) {
  return VKQKXPFrameSettings{
      .nonProtocol = request.nonProtocol(),
      .compress = request.compress(),
      .xorKey = request.xorKey(),
      .insertAtBeginBody = request.insertAtBeginBody(),
      .version = request.version(),
      .uploadOSType = request.uploadOSType(),
      .packageName = request.packageName(),
      .releaseVersion = request.releaseVersion(),
      .maximumPayloadLength = request.maximumResponseLength(),
  };
}
