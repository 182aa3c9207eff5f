// Shared by the fuzz bodies: their promise check, and the seeded inputs the in-suite
// runs feed them (the libFuzzer targets get theirs from libFuzzer).
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <span>
#include <string>
#include <vector>

namespace vkq::testing {

using FuzzInput = std::span<const std::uint8_t>;

// Aborts when a decoder breaks a promise: libFuzzer and the test both see the abort.
inline void require(bool promise, const char* what) {
  if (promise) return;
  std::fprintf(stderr, "decoder broke a promise: %s\n", what);
  std::abort();
}

// Feeds `body` the seeds themselves (regressions among them), then `count` inputs made
// from them by a fixed-seed random walk (a failure replays): a few edits each, a byte
// replaced or inserted (from `alphabet`, else any byte), bytes dropped, or a piece of a
// seed spliced in.
template <typename Body>
void runSeeded(Body body, std::uint32_t seed, int count, const std::vector<std::string>& seeds,
               const std::string& alphabet = {}) {
  std::mt19937 random(seed);
  const auto below = [&random](std::size_t n) { return n == 0 ? 0 : random() % n; };
  const auto anyByte = [&] { return alphabet.empty() ? char(random()) : alphabet[below(alphabet.size())]; };
  for (int i = -static_cast<int>(seeds.size()); i < count; ++i) {
    std::string input = seeds[i < 0 ? seeds.size() + i : below(seeds.size())];
    for (std::size_t edits = i < 0 ? 0 : 1 + below(4); edits > 0; --edits) {
      const std::size_t at = below(input.size() + 1), kind = below(4);
      const std::string& other = seeds[below(seeds.size())];
      if (kind == 0 && at < input.size()) input[at] = anyByte();
      if (kind == 1) input.insert(at, 1, anyByte());
      if (kind == 2) input.erase(at, below(8));
      if (kind == 3) input.insert(at, other.substr(below(other.size() + 1), below(16)));
    }
    body(FuzzInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size()));
  }
}

}  // namespace vkq::testing
