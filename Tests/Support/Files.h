// Files for tests: scratch folders, a private temporary directory, and whole-file reads
// and writes.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace vkq::testing {

// A scratch folder removed with the object.
class ScratchFolder {
 public:
  ScratchFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "vkq-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make " + pattern);
    path_ = pattern;
  }
  ~ScratchFolder() { std::error_code ignored; std::filesystem::remove_all(path_, ignored); }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// Points TMPDIR at a folder of its own while it lives, so that files the transport
// keeps under the temporary directory are this test's alone (tests run in parallel).
class PrivateTemporaryDirectory : ScratchFolder {
 public:
  PrivateTemporaryDirectory() : previous_(std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "") {
    ::setenv("TMPDIR", path().c_str(), 1);
  }
  ~PrivateTemporaryDirectory() { previous_.empty() ? ::unsetenv("TMPDIR") : ::setenv("TMPDIR", previous_.c_str(), 1); }

 private:
  const std::string previous_;
};

// Bytes that differ with `seed` and position, so a misplaced block shows.
inline std::string patternBytes(std::size_t size, std::uint32_t seed = 1) {
  std::string bytes(size, '\0');
  std::uint32_t state = seed * 2654435761u + 1;
  for (char& byte : bytes) {
    state = state * 1103515245u + 12345u;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

inline void writeFile(const std::filesystem::path& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(content.data(), static_cast<std::streamsize>(content.size()));
}

inline std::string readFile(const std::filesystem::path& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return std::move(content).str();
}

}  // namespace vkq::testing
