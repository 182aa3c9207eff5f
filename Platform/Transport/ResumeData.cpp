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

std::optional<ResumeData> ResumeData::decode(const Bytes& data, ErrorPtr* error) {
  const auto refuse = [error](std::string_view reason) {
    setError(error, makeResumeDataRefusal(reason));
    return std::nullopt;
  };
  const auto unarchiver = KeyedUnarchiver::unarchiverWithData(data);
  if (!unarchiver) return refuse("not a property list dictionary");
  if (unarchiver->decodeInteger(kVersionKey) != kVersion) return refuse("not resume data of this transport (version)");
  auto url = unarchiver->decodeString(kURLKey);
  auto headers = unarchiver->decodeStringPairs(kHeadersKey);
  auto timeout = unarchiver->decodeDouble(kTimeoutKey);
  auto bytes = unarchiver->decodeInteger(kBytesKey);
  auto path = unarchiver->decodeString(kPathKey);
  auto validator = unarchiver->decodeString(kValidatorKey);
  if (!url || !headers || !timeout || !bytes || !path || !validator) return refuse("a field is missing");
  if (*bytes <= 0 || path->empty() || validator->empty() || url->empty()) {
    return refuse("a field is empty or out of range");
  }
  return ResumeData{std::move(*url), std::move(*headers), *timeout, *bytes, std::move(*path), std::move(*validator)};
}

ErrorPtr makeResumeDataRefusal(std::string_view reason) {
  ErrorUserInfo info;
  info.localizedDescription = "resume data refused: " + std::string(reason);
  return makeError(kURLErrorDomain, kURLErrorCannotDecodeRawData, std::move(info));
}

}  // namespace vkq::platform
