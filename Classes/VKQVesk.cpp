#include "Classes/VKQVesk.h"

using vkq::platform::Bytes;
using vkq::platform::Object;

namespace {

const VKQHeaderDictionary& octetStreamHeaders() {
  static const VKQHeaderDictionary headers{{"Content-Type", "application/octet-stream"}};
  return headers;
}

// A callable that stores one value in the builder through `store` and returns the
// builder; it holds the builder weakly and does nothing once the builder is gone.
template <typename Value, typename Store>
VKQVesk::Promise<Value> makePromise(const std::shared_ptr<VKQVesk>& builder, Store store) {
  return [weak = std::weak_ptr<VKQVesk>(builder), store](Value value) -> std::shared_ptr<VKQVesk> {
    std::shared_ptr<VKQVesk> strong = weak.lock();
    if (strong) store(*strong, std::move(value));
    return strong;
  };
}

}  // namespace

std::shared_ptr<VKQVesk> VKQVesk::initWithKXPUrl(std::string url, std::shared_ptr<Bytes> requestData,
                                                 std::uint8_t xorKey, std::uint8_t version) {
  auto vesk = std::make_shared<VKQVesk>();
  vesk->defultValue();
  vesk->requestData_ = std::move(requestData);
  vesk->url_ = std::move(url);
  vesk->xorKey_ = xorKey;
  vesk->version_ = version;
  vesk->headers_ = octetStreamHeaders();
  return vesk;
}

std::shared_ptr<VKQVesk> VKQVesk::initWithKXPUrl(std::string url, std::shared_ptr<Bytes> requestData) {
  auto vesk = std::make_shared<VKQVesk>();
  vesk->defultValue();
  vesk->requestData_ = std::move(requestData);
  vesk->url_ = std::move(url);
  vesk->headers_ = octetStreamHeaders();
  return vesk;
}

std::shared_ptr<VKQVesk> VKQVesk::initWithJSONUrl(std::string url, Object requestArgument) {
  auto vesk = std::make_shared<VKQVesk>();
  vesk->defultValue();
  vesk->requestSerializerType_ = VKQRequestSerializerTypeJSON;
  vesk->responseSerializerType_ = VKQResponseSerializerTypeJSON;
  vesk->argument_ = std::move(requestArgument);
  vesk->url_ = std::move(url);
  return vesk;
}

std::shared_ptr<VKQVesk> VKQVesk::initWithJSONUrl(std::string url, Object requestArgument, VKQRequestMethod methed) {
  auto vesk = std::make_shared<VKQVesk>();
  vesk->defultValue();
  vesk->requestSerializerType_ = VKQRequestSerializerTypeJSON;
  vesk->responseSerializerType_ = VKQResponseSerializerTypeJSON;
  vesk->requestMethod_ = methed;
  vesk->argument_ = std::move(requestArgument);
  vesk->url_ = std::move(url);
  return vesk;
}

std::shared_ptr<VKQVesk> VKQVesk::initWithDownloadURL(std::string url, std::string filePath, Object requestArgument) {
  // No defultValue(): a download is a raw GET whose answer passes unframed.
  auto vesk = std::make_shared<VKQVesk>();
  vesk->setResumableDownloadPath(std::move(filePath));
  vesk->requestSerializerType_ = VKQRequestSerializerTypeJSON;
  vesk->responseSerializerType_ = VKQResponseSerializerTypeKXP;
  vesk->nonProtocol_ = true;
  vesk->requestMethod_ = VKQRequestMethodGET;
  vesk->url_ = std::move(url);
  vesk->argument_ = std::move(requestArgument);
  return vesk;
}

void VKQVesk::defultValue() {
  const VKQKXPFrameSettings& defaults = VKQKXPFrame::kDefaultSettings;
  version_ = defaults.version;
  xorKey_ = defaults.xorKey;
  insertAtBeginBody_ = defaults.insertAtBeginBody;
  requestSerializerType_ = VKQRequestSerializerTypeKXP;
  responseSerializerType_ = VKQResponseSerializerTypeKXP;
  requestMethod_ = VKQRequestMethodPOST;
  compress_ = defaults.compress;
  uploadOSType_ = defaults.uploadOSType;
  bigEndian_ = VKQKXPFrame::kBigEndian;
  nonProtocol_ = defaults.nonProtocol;
  packageName_ = defaults.packageName;
  releaseVersion_ = defaults.releaseVersion;
}

VKQVesk::Promise<VKQRequestSerializerType> VKQVesk::requestSerializerTypePromise() {
  return makePromise<VKQRequestSerializerType>(
      self(), [](VKQVesk& vesk, VKQRequestSerializerType value) { vesk.requestSerializerType_ = value; });
}

VKQVesk::Promise<VKQResponseSerializerType> VKQVesk::responseSerializerTypePromise() {
  return makePromise<VKQResponseSerializerType>(
      self(), [](VKQVesk& vesk, VKQResponseSerializerType value) { vesk.responseSerializerType_ = value; });
}

VKQVesk::Promise<VKQRequestMethod> VKQVesk::requestMethedPromise() {
  return makePromise<VKQRequestMethod>(self(),
                                       [](VKQVesk& vesk, VKQRequestMethod value) { vesk.requestMethod_ = value; });
}

VKQVesk::Promise<std::uint8_t> VKQVesk::xorkeyPromise() {
  return makePromise<std::uint8_t>(self(), [](VKQVesk& vesk, std::uint8_t value) { vesk.xorKey_ = value; });
}

VKQVesk::Promise<std::uint8_t> VKQVesk::protocolVCPromise() {
  return makePromise<std::uint8_t>(self(), [](VKQVesk& vesk, std::uint8_t value) { vesk.version_ = value; });
}

VKQVesk::Promise<bool> VKQVesk::compressPromise() {
  return makePromise<bool>(self(), [](VKQVesk& vesk, bool value) { vesk.compress_ = value; });
}

VKQVesk::Promise<std::uint16_t> VKQVesk::insertAtBeginBodyPromise() {
  return makePromise<std::uint16_t>(self(),
                                    [](VKQVesk& vesk, std::uint16_t value) { vesk.insertAtBeginBody_ = value; });
}

VKQVesk::Promise<std::optional<std::string>> VKQVesk::packageNamePromise() {
  return makePromise<std::optional<std::string>>(
      self(), [](VKQVesk& vesk, std::optional<std::string> value) { vesk.packageName_ = std::move(value); });
}

VKQVesk::Promise<std::uint32_t> VKQVesk::releaseVersionPromise() {
  return makePromise<std::uint32_t>(
      self(), [](VKQVesk& vesk, std::uint32_t value) { vesk.releaseVersion_ = static_cast<std::int32_t>(value); });
}

VKQVesk::Promise<bool> VKQVesk::bigEndianPromise() {
  return makePromise<bool>(self(), [](VKQVesk& vesk, bool value) { vesk.bigEndian_ = value; });
}

VKQVesk::Promise<bool> VKQVesk::uploadOSTypePromise() {
  return makePromise<bool>(self(), [](VKQVesk& vesk, bool value) { vesk.uploadOSType_ = value; });
}

VKQVesk::SwitchPromise VKQVesk::nonProtocolPromise() {
  return [weak = std::weak_ptr<VKQVesk>(self())]() -> std::shared_ptr<VKQVesk> {
    std::shared_ptr<VKQVesk> strong = weak.lock();
    if (strong) strong->nonProtocol_ = true;
    return strong;
  };
}

VKQVesk::Promise<std::optional<VKQHeaderDictionary>> VKQVesk::headersPromise() {
  return makePromise<std::optional<VKQHeaderDictionary>>(
      self(), [](VKQVesk& vesk, std::optional<VKQHeaderDictionary> value) { vesk.headers_ = std::move(value); });
}

VKQVesk::Promise<int> VKQVesk::maximumRetryCountPromise() {
  return makePromise<int>(self(), [](VKQVesk& vesk, int value) { vesk.retry_.maximumRetries = value; });
}

VKQVesk::Promise<double> VKQVesk::retryBaseDelayPromise() {
  return makePromise<double>(self(), [](VKQVesk& vesk, double value) { vesk.retry_.baseDelay = value; });
}

VKQVesk::Promise<double> VKQVesk::retryMaximumDelayPromise() {
  return makePromise<double>(self(), [](VKQVesk& vesk, double value) { vesk.retry_.maximumDelay = value; });
}

VKQVesk::Promise<std::vector<long>> VKQVesk::retryStatusCodesPromise() {
  return makePromise<std::vector<long>>(
      self(), [](VKQVesk& vesk, std::vector<long> value) { vesk.retry_.statusCodes = std::move(value); });
}

VKQVesk::Promise<bool> VKQVesk::retriesNetworkFailuresPromise() {
  return makePromise<bool>(self(), [](VKQVesk& vesk, bool value) { vesk.retry_.retriesNetworkFailures = value; });
}

VKQVesk::Promise<bool> VKQVesk::retriesNonIdempotentRequestsPromise() {
  return makePromise<bool>(self(),
                           [](VKQVesk& vesk, bool value) { vesk.retry_.retriesNonIdempotentMethods = value; });
}

VKQVesk::Promise<std::optional<double>> VKQVesk::requestDeadlineIntervalPromise() {
  return makePromise<std::optional<double>>(self(),
                                            [](VKQVesk& vesk, std::optional<double> value) { vesk.deadline_ = value; });
}

std::shared_ptr<VKQVesk> VKQVesk::GET() {
  requestMethod_ = VKQRequestMethodGET;
  return self();
}

std::shared_ptr<VKQVesk> VKQVesk::POST() {
  requestMethod_ = VKQRequestMethodPOST;
  return self();
}

Object VKQVesk::requestArgument() const {
  if (requestSerializerType_ == VKQRequestSerializerTypeKXP) return Object(requestData_);
  return argument_;
}
