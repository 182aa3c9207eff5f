// Benchmark payloads: JSON-like records with random fields, compressible about 5:1 as
// real answers are. Deterministic, so runs compare.
#pragma once

#include <cstdio>
#include <random>

#include "Platform/Base/Bytes.h"

namespace vkq::benchmarks {

inline vkq::platform::Bytes records(std::size_t size) {
  static const char* const kNames[] = {"alpha", "bravo", "charlie", "delta", "echo", "foxtrot"};
  std::mt19937 generator(42);
  std::uniform_int_distribution<int> id(1, 9999999), pick(0, 5), score(0, 99999);
  vkq::platform::Bytes bytes;
  bytes.reserve(size + 256);
  char line[256];
  while (bytes.size() < size) {
    const int length = std::snprintf(
        line, sizeof line,
        "{\"id\":%d,\"user\":\"%s%04x\",\"score\":0.%05d,\"tags\":[\"%s\",\"%s\"],\"active\":%s}\n", id(generator),
        kNames[pick(generator)], static_cast<unsigned>(generator() & 0xFFFF), score(generator), kNames[pick(generator)],
        kNames[pick(generator)], (generator() & 1) ? "true" : "false");
    bytes.insert(bytes.end(), line, line + length);
  }
  bytes.resize(size);
  return bytes;
}

}  // namespace vkq::benchmarks
