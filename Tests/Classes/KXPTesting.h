// Helpers shared by the KXP tests: a request that answers its settings from a
// VKQKXPFrameSettings, random settings and payloads, and reference frames written
// byte by byte here, independently of VKQKXPFrameLayout.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>

#include "Classes/Codec/Deflate.h"
#include "Classes/Codec/Encrypt.h"
#include "Classes/Serialization/Request/VKQKXPRequestSerializer.h"
#include "Classes/Codec/VKQKXPFrame.h"
#include "Classes/VKQVeskRequest.h"
#include "Platform/Base/Bytes.h"

namespace kxp_testing {

using vkq::platform::Bytes;

// A plain VKQVeskRequest subclass: the serializers must see these settings through the
// overridable accessors alone.
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

 private:
  VKQKXPFrameSettings settings_;
};

inline std::shared_ptr<SettingsRequest> requestWith(VKQKXPFrameSettings settings) {
  return std::make_shared<SettingsRequest>(std::move(settings));
}

// The frame VKQKXPRequestSerializer writes for `payload` (handed a copy, since the mask
// may work in place).
inline std::optional<Bytes> frameOf(const VKQKXPFrameSettings& settings, const Bytes& payload) {
  return VKQKXPRequestSerializer::serializerWithRequest(requestWith(settings))
      ->createDataWithParameters(vkq::platform::Object(Bytes(payload)));
}

// Appends the low `width` bytes of `value`, most significant first.
inline void putBigEndian(Bytes& out, std::uint32_t value, int width) {
  for (int shift = 8 * (width - 1); shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(value >> shift));
}

inline std::uint32_t crcOf(const Bytes& bytes) { return static_cast<std::uint32_t>(Encrypt::crc32(bytes)); }

// The payload as it travels: compressed, then masked.
inline Bytes transformed(const VKQKXPFrameSettings& settings, const Bytes& payload) {
  Bytes out = settings.compress ? Deflate::compress(payload).value() : payload;
  for (auto& byte : out) byte ^= settings.xorKey;
  return out;
}

// A request frame, or with `request` false a response frame (no OS type, package or
// release field), around the payload as it travels.
inline Bytes referenceFrame(const VKQKXPFrameSettings& settings, const Bytes& wirePayload, bool request) {
  Bytes frame;
  if (settings.insertAtBeginBody != 0) putBigEndian(frame, settings.insertAtBeginBody, 2);
  if (settings.version != 0) frame.push_back(settings.version);
  if (request && settings.uploadOSType) frame.push_back(1);
  putBigEndian(frame, static_cast<std::uint32_t>(wirePayload.size()), 4);
  putBigEndian(frame, crcOf(wirePayload), 4);
  if (request && settings.packageName) putBigEndian(frame, crcOf(vkq::platform::bytesFromString(*settings.packageName)), 4);
  if (request && settings.releaseVersion > 0) {
    putBigEndian(frame, crcOf(vkq::platform::bytesFromString(std::to_string(settings.releaseVersion))), 4);
  }
  frame.insert(frame.end(), wirePayload.begin(), wirePayload.end());
  return frame;
}

inline Bytes randomBytes(std::mt19937& random, std::size_t size) {
  Bytes bytes(size);
  for (auto& b : bytes) b = static_cast<std::uint8_t>(random());
  return bytes;
}

// Payloads that compress well and badly, of lengths from 1 to a few KiB.
inline Bytes randomPayload(std::mt19937& random) {
  const std::size_t size = std::uniform_int_distribution<std::size_t>(1, 3000)(random);
  if (random() % 2 == 0) return randomBytes(random, size);
  Bytes text(size);
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<std::uint8_t>("abcab "[(i * 7 + random() % 3) % 6]);
  return text;
}

// Framed settings (nonProtocol off) with each field switched on or off at random.
inline VKQKXPFrameSettings randomSettings(std::mt19937& random) {
  const auto coin = [&] { return random() % 2 == 0; };
  const auto nonZero = [&](int max) { return std::uniform_int_distribution<int>(1, max)(random); };
  VKQKXPFrameSettings settings;
  settings.compress = coin();
  settings.xorKey = coin() ? static_cast<std::uint8_t>(nonZero(0xFF)) : 0;
  settings.insertAtBeginBody = coin() ? static_cast<std::uint16_t>(nonZero(0xFFFF)) : 0;
  settings.version = coin() ? static_cast<std::uint8_t>(nonZero(0xFF)) : 0;
  settings.uploadOSType = coin();
  if (coin()) settings.packageName = coin() ? "" : "com.example.app" + std::to_string(random() % 100);
  settings.releaseVersion = std::uniform_int_distribution<std::int32_t>(-2, 2)(random) * nonZero(1000);
  return settings;
}

}  // namespace kxp_testing
