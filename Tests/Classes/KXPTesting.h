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
#include "Classes/Serialization/VKQKXPFrameLayout.h"
#include "Classes/VKQVeskRequest.h"
#include "Platform/Bytes.h"

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


inline void put16(Bytes& out, std::uint16_t value) {
  out.push_back(static_cast<std::uint8_t>(value >> 8));
  out.push_back(static_cast<std::uint8_t>(value));
}

inline void put32(Bytes& out, std::uint32_t value) {
  put16(out, static_cast<std::uint16_t>(value >> 16));
  put16(out, static_cast<std::uint16_t>(value));
}

inline std::uint32_t crcOf(const Bytes& bytes) { return static_cast<std::uint32_t>(Encrypt::crc32(bytes)); }

// The payload as it travels: compressed, then masked.
inline Bytes transformed(const VKQKXPFrameSettings& settings, const Bytes& payload) {
  Bytes out = settings.compress ? Deflate::compress(payload).value() : payload;
  if (settings.xorKey != 0) {
    for (auto& byte : out) byte ^= settings.xorKey;
  }
  return out;
}

inline Bytes referenceRequestFrame(const VKQKXPFrameSettings& settings, const Bytes& wirePayload) {
  Bytes frame;
  if (settings.insertAtBeginBody != 0) put16(frame, settings.insertAtBeginBody);
  if (settings.version != 0) frame.push_back(settings.version);
  if (settings.uploadOSType) frame.push_back(1);
  put32(frame, static_cast<std::uint32_t>(wirePayload.size()));
  put32(frame, crcOf(wirePayload));
  if (settings.packageName) put32(frame, crcOf(vkq::platform::bytesFromString(*settings.packageName)));
  if (settings.releaseVersion > 0) {
    put32(frame, crcOf(vkq::platform::bytesFromString(std::to_string(settings.releaseVersion))));
  }
  frame.insert(frame.end(), wirePayload.begin(), wirePayload.end());
  return frame;
}

inline Bytes referenceResponseFrame(const VKQKXPFrameSettings& settings, const Bytes& wirePayload) {
  Bytes frame;
  if (settings.insertAtBeginBody != 0) put16(frame, settings.insertAtBeginBody);
  if (settings.version != 0) frame.push_back(settings.version);
  put32(frame, static_cast<std::uint32_t>(wirePayload.size()));
  put32(frame, crcOf(wirePayload));
  frame.insert(frame.end(), wirePayload.begin(), wirePayload.end());
  return frame;
}

inline Bytes randomBytes(std::mt19937& random, std::size_t size) {
  std::uniform_int_distribution<int> byte(0, 255);
  Bytes bytes(size);
  for (auto& b : bytes) b = static_cast<std::uint8_t>(byte(random));
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
