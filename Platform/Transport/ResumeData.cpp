#include "Platform/Transport/ResumeData.h"

#include "Platform/Serialization/KeyedArchive.h"

namespace vkq::platform {
namespace {

constexpr const char* kVersionKey = "VKQResumeDataVersion";
constexpr const char* kURLKey = "VKQResumeURL";
constexpr const char* kHeadersKey = "VKQResumeHeaderFields";
constexpr const char* kTimeoutKey = "VKQResumeTimeoutInterval";
constexpr const char* kBytesKey = "VKQResumeBytesReceived";
constexpr const char* kPathKey = "VKQResumePartialFilePath";
constexpr const char* kValidatorKey = "VKQResumeValidator";
constexpr std::int64_t kVersion = 1;

}  // namespace

Bytes ResumeData::encoded() const {
  KeyedArchiver archiver;
  archiver.encodeInteger(kVersion, kVersionKey);
  archiver.encodeString(url, kURLKey);
  archiver.encodeStringPairs(headerFields, kHeadersKey);
  archiver.encodeDouble(timeoutInterval, kTimeoutKey);
  archiver.encodeInteger(bytesReceived, kBytesKey);
  archiver.encodeString(partialFilePath, kPathKey);
  archiver.encodeString(validator, kValidatorKey);
  return archiver.encodedData();
}

std::optional<ResumeData> ResumeData::decode(const Bytes& data, std::string& reason) {
  const auto unarchiver = KeyedUnarchiver::unarchiverWithData(data);
  if (!unarchiver) {
    reason = "not a property list dictionary";
    return std::nullopt;
  }
  if (unarchiver->decodeInteger(kVersionKey) != kVersion) {
    reason = "not resume data of this transport (version)";
    return std::nullopt;
  }
  auto url = unarchiver->decodeString(kURLKey);
  auto headers = unarchiver->decodeStringPairs(kHeadersKey);
  auto timeout = unarchiver->decodeDouble(kTimeoutKey);
  auto bytes = unarchiver->decodeInteger(kBytesKey);
  auto path = unarchiver->decodeString(kPathKey);
  auto validator = unarchiver->decodeString(kValidatorKey);
  if (!url || !headers || !timeout || !bytes || !path || !validator) {
    reason = "a field is missing";
    return std::nullopt;
  }
  if (*bytes <= 0 || path->empty() || validator->empty() || url->empty()) {
    reason = "a field is empty or out of range";
    return std::nullopt;
  }
  return ResumeData{std::move(*url), std::move(*headers), *timeout, *bytes, std::move(*path), std::move(*validator)};
}

}  // namespace vkq::platform
