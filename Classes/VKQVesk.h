// VKQVesk: the request applications create. One initializer per kind of exchange, and
// chainable settings ("promises"):
//
//   auto vesk = VKQVesk::initWithKXPUrl("https://api.example.com/kxp", payload);
//   vesk->compressPromise()(false)->xorkeyPromise()(0x5A)->protocolVCPromise()(2);
//   vesk->requestWithSuccess(onSuccess, onFailure);
//
// Reading a promise returns a callable that holds the builder weakly, stores one value
// and returns the builder. Once the builder is gone (or when it was never owned by a
// std::shared_ptr) the callable does nothing and returns null. The builder keeps no
// reference to the callables it hands out, so no cycle forms.
//
// Threads: as VKQVeskRequest: configure on one thread, before starting.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Classes/VKQVeskRequest.h"
#include "Platform/Base/Bytes.h"
#include "Platform/Serialization/Object.h"

class VKQVesk : public VKQVeskRequest {
 public:
  // Stores one setting and returns the builder (null once the builder is gone).
  template <typename Value>
  using Promise = std::function<std::shared_ptr<VKQVesk>(Value value)>;
  // Switches one setting on and returns the builder (null once the builder is gone).
  using SwitchPromise = std::function<std::shared_ptr<VKQVesk>()>;

  // A KXP exchange with a mask key and protocol version (0 switches either off).
  static std::shared_ptr<VKQVesk> initWithKXPUrl(std::string url, std::shared_ptr<vkq::platform::Bytes> requestData,
                                                 std::uint8_t xorKey, std::uint8_t version);
  // A KXP exchange with the defaults.
  static std::shared_ptr<VKQVesk> initWithKXPUrl(std::string url, std::shared_ptr<vkq::platform::Bytes> requestData);
  // A JSON exchange by POST.
  static std::shared_ptr<VKQVesk> initWithJSONUrl(std::string url, vkq::platform::Object requestArgument);
  // A JSON exchange by the given method.
  static std::shared_ptr<VKQVesk> initWithJSONUrl(std::string url, vkq::platform::Object requestArgument,
                                                  VKQRequestMethod methed);
  // A resumable download of `url` to `filePath` (a file, or an existing folder that
  // receives the URL's last path component).
  static std::shared_ptr<VKQVesk> initWithDownloadURL(std::string url, std::string filePath,
                                                      vkq::platform::Object requestArgument);

  // Every field zero: JSON serializers, method GET, nothing else set. Prefer the
  // initializers above.
  VKQVesk() = default;

  // KXP serializers, POST, and the KXP defaults of the base class
  // (VKQKXPFrame::kDefaultSettings, big-endian).
  void defultValue();

  // ---- Promises: each sets the request property of its name ----
  Promise<VKQRequestSerializerType> requestSerializerTypePromise();
  Promise<VKQResponseSerializerType> responseSerializerTypePromise();
  Promise<VKQRequestMethod> requestMethedPromise();
  Promise<std::uint8_t> xorkeyPromise();
  Promise<std::uint8_t> protocolVCPromise();
  Promise<bool> compressPromise();
  Promise<std::uint16_t> insertAtBeginBodyPromise();
  Promise<std::optional<std::string>> packageNamePromise();
  // Stored bit for bit in the signed release version.
  Promise<std::uint32_t> releaseVersionPromise();
  Promise<bool> bigEndianPromise();
  Promise<bool> uploadOSTypePromise();
  // Switches framing off.
  SwitchPromise nonProtocolPromise();
  // Replaces the whole header dictionary (absent removes it).
  Promise<std::optional<VKQHeaderDictionary>> headersPromise();
  // Retries and deadline, as the request properties of the same names.
  Promise<int> maximumRetryCountPromise();
  Promise<double> retryBaseDelayPromise();
  Promise<double> retryMaximumDelayPromise();
  Promise<std::vector<long>> retryStatusCodesPromise();
  Promise<bool> retriesNetworkFailuresPromise();
  Promise<bool> retriesNonIdempotentRequestsPromise();
  Promise<std::optional<double>> requestDeadlineIntervalPromise();

  // Set the method to GET or POST and return the builder (null when the builder is not
  // owned by a std::shared_ptr), to open or continue a chain.
  std::shared_ptr<VKQVesk> GET();
  std::shared_ptr<VKQVesk> POST();

  // ---- Request properties answered from the builder's fields ----
  std::string url() const override { return url_; }
  VKQRequestSerializerType requestSerializerType() const override { return requestSerializerType_; }
  VKQResponseSerializerType responseSerializerType() const override { return responseSerializerType_; }
  VKQRequestMethod requestMethod() const override { return requestMethod_; }
  std::uint8_t version() const override { return version_; }
  std::uint8_t xorKey() const override { return xorKey_; }
  bool compress() const override { return compress_; }
  std::uint16_t insertAtBeginBody() const override { return insertAtBeginBody_; }
  bool uploadOSType() const override { return uploadOSType_; }
  std::optional<std::string> packageName() const override { return packageName_; }
  std::int32_t releaseVersion() const override { return releaseVersion_; }
  bool bigEndian() const override { return bigEndian_; }
  bool nonProtocol() const override { return nonProtocol_; }
  std::optional<VKQHeaderDictionary> requestHeaderFieldValueDictionary() const override { return headers_; }
  int maximumRetryCount() const override { return retry_.maximumRetries; }
  double retryBaseDelay() const override { return retry_.baseDelay; }
  double retryMaximumDelay() const override { return retry_.maximumDelay; }
  std::vector<long> retryStatusCodes() const override { return retry_.statusCodes; }
  bool retriesNetworkFailures() const override { return retry_.retriesNetworkFailures; }
  bool retriesNonIdempotentRequests() const override { return retry_.retriesNonIdempotentMethods; }
  std::optional<double> requestDeadlineInterval() const override { return deadline_; }
  // The request bytes for a KXP request, the argument otherwise.
  vkq::platform::Object requestArgument() const override;

  // ---- Fields ----
  // The URL url() answers.
  void setUrl(std::string url) { url_ = std::move(url); }
  // The payload of a KXP request.
  const std::shared_ptr<vkq::platform::Bytes>& requestData() const { return requestData_; }
  void setRequestData(std::shared_ptr<vkq::platform::Bytes> data) { requestData_ = std::move(data); }
  // The argument of a JSON request or a download.
  const vkq::platform::Object& argument() const { return argument_; }
  void setArgument(vkq::platform::Object argument) { argument_ = std::move(argument); }
  // The header fields requestHeaderFieldValueDictionary() answers.
  const std::optional<VKQHeaderDictionary>& headers() const { return headers_; }
  void setHeaders(std::optional<VKQHeaderDictionary> headers) { headers_ = std::move(headers); }

 private:
  // This builder, or null when it is not owned by a std::shared_ptr.
  std::shared_ptr<VKQVesk> self() { return std::static_pointer_cast<VKQVesk>(weak_from_this().lock()); }

  VKQRequestSerializerType requestSerializerType_ = VKQRequestSerializerTypeJSON;
  VKQResponseSerializerType responseSerializerType_ = VKQResponseSerializerTypeJSON;
  VKQRequestMethod requestMethod_ = VKQRequestMethodGET;
  std::uint8_t version_ = 0;
  std::uint8_t xorKey_ = 0;
  bool compress_ = false;
  std::uint16_t insertAtBeginBody_ = 0;
  bool uploadOSType_ = false;
  std::optional<std::string> packageName_;
  std::int32_t releaseVersion_ = 0;
  bool bigEndian_ = false;
  bool nonProtocol_ = false;
  std::string url_;
  std::shared_ptr<vkq::platform::Bytes> requestData_;
  vkq::platform::Object argument_;
  std::optional<VKQHeaderDictionary> headers_;
  vkq::platform::RetryPolicy retry_;
  std::optional<double> deadline_;
};
