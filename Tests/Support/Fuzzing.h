// Shared by the fuzz bodies: their promise check, and the seeded inputs the in-suite
// runs feed them (the libFuzzer targets get theirs from libFuzzer).
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vkq::testing {

using FuzzInput = std::span<const std::uint8_t>;

// Aborts when a decoder breaks a promise: libFuzzer and the test both see the abort.
inline void require(bool promise, const char* what) {
  if (promise) return;
  std::fprintf(stderr, "decoder broke a promise: %s\n", what);
  std::abort();
}

// The seeds themselves (regressions among them), then `count` inputs made from them by
// a fixed-seed random walk (a failure replays): bytes replaced, inserted (from
// `alphabet`, else any byte), dropped, or a seed's piece spliced in, a few edits each.
inline std::vector<std::string> mutatedInputs(std::uint32_t seed, int count, const std::vector<std::string>& seeds,
                                              std::string_view alphabet = {}) {
  std::mt19937 random(seed);
  const auto below = [&random](std::size_t n) { return n == 0 ? 0 : std::size_t(random() % n); };
  const auto anyByte = [&] { return alphabet.empty() ? char(random()) : alphabet[below(alphabet.size())]; };
  std::vector<std::string> inputs = seeds;
  for (int i = 0; i < count; ++i) {
    std::string input = seeds[below(seeds.size())];
    for (std::size_t edits = 1 + below(4); edits > 0; --edits) {
      const std::size_t at = below(input.size() + 1);
      switch (below(4)) {
        case 0: if (at < input.size()) input[at] = anyByte(); break;
        case 1: input.insert(input.begin() + static_cast<std::ptrdiff_t>(at), anyByte()); break;
        case 2: input.erase(at, below(8)); break;
        default: {
          const std::string& other = seeds[below(seeds.size())];
          const std::size_t from = below(other.size());
          input.insert(at, other.substr(from, below(other.size() - from + 1)));
        }
      }
    }
    inputs.push_back(std::move(input));
  }
  return inputs;
}

inline FuzzInput bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace vkq::testing
