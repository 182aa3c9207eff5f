// The request debug log: three entries written before a KXP request's task is made.
#include "Classes/VKQNetworkAgent.h"

#include <cstdio>
#include <string>
#include <string_view>

#include "Classes/Serialization/Request/VKQHTTPRequestSerializer.h"
#include "Classes/VKQVeskRequest.h"
#include "Platform/Base/Log.h"

namespace {

// The settings text: a line break, then one line per setting of 27 spaces, the label
// padded to 20 characters, "=", two spaces and the value.
class DebugSettingsText {
 public:
  DebugSettingsText& add(std::string_view label, std::string_view value) {
    text_.append(27, ' ');
    text_ += label;
    text_.append(label.size() < 20 ? 20 - label.size() : 0, ' ');
    text_ += "=  ";
    text_ += value;
    text_ += '\n';
    return *this;
  }
  std::string str() const { return text_; }

 private:
  std::string text_ = "\n";
};

const char* yesNo(bool value) { return value ? "YES" : "NO"; }

std::string upperHex(unsigned value) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "0x%X", value);
  return buffer;
}

}  // namespace

void VKQNetworkAgent::sessionDebugWithRequest(const VKQHTTPRequestSerializer& serializer) const {
  // The settings text is only rendered when the log is on.
  class Settings {
   public:
    Settings(const VKQNetworkAgent& agent, const VKQHTTPRequestSerializer& serializer)
        : agent_(agent), serializer_(serializer) {}
    std::string description() const {
      const std::shared_ptr<VKQVeskRequest>& request = serializer_.request();
      const std::optional<std::string> url = request ? agent_.buildRequestUrl(*request) : std::nullopt;
      constexpr const char* kAbsent = "(null)";
      // An unbound serializer shows every setting as zero, NO or absent.
      DebugSettingsText text;
      text.add("url", url.value_or(kAbsent))
          .add("version", std::to_string(request ? request->version() : 0))
          .add("xorKey", upperHex(request ? request->xorKey() : 0))
          .add("compress", yesNo(request && request->compress()))
          .add("insertAtBeginBody", std::to_string(request ? request->insertAtBeginBody() : 0))
          .add("uploadOSType", yesNo(request && request->uploadOSType()))
          .add("packageName", (request ? request->packageName() : std::nullopt).value_or(kAbsent))
          .add("releaseVersion", std::to_string(request ? request->releaseVersion() : 0))
          .add("bigTndian", yesNo(request && request->bigEndian()))
          .add("nonProtocol", yesNo(request && request->nonProtocol()))
          .add("header", serializer_.HTTPRequestHeaders().description());
      return text.str();
    }

   private:
    const VKQNetworkAgent& agent_;
    const VKQHTTPRequestSerializer& serializer_;
  };

  DDDebug("======================== start request ========================");
  DDDebug(Settings(*this, serializer));
  DDDebug("======================== end   request ========================");
}
