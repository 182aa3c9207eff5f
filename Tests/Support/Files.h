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
#include <utility>

namespace vkq::testing {

// A scratch folder (in the temporary directory, or in `parent`) removed with the object.
class ScratchFolder {
 public:
  explicit ScratchFolder(const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
    std::string pattern = (parent / "vkq-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make " + pattern);
    path_ = pattern;
  }
  ~ScratchFolder() { std::error_code ignored; std::filesystem::remove_all(path_, ignored); }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// Points TMPDIR and XDG_CACHE_HOME at a folder of its own (in the temporary directory,
// or in `parent`) while it lives, so that the files the library keeps there are this
// test's alone (tests run in parallel).
class PrivateTemporaryDirectory : ScratchFolder {
 public:
  explicit PrivateTemporaryDirectory(const std::filesystem::path& parent = std::filesystem::temp_directory_path())
      : ScratchFolder(parent) {
    for (auto& [name, previous] : variables_) previous = std::getenv(name) ? std::getenv(name) : "";
    for (auto& [name, previous] : variables_) ::setenv(name, path().c_str(), 1);
  }
  ~PrivateTemporaryDirectory() {
    for (auto& [name, previous] : variables_) previous.empty() ? ::unsetenv(name) : ::setenv(name, previous.c_str(), 1);
  }
  using ScratchFolder::path;

 private:
  std::pair<const char*, std::string> variables_[2] = {{"TMPDIR", ""}, {"XDG_CACHE_HOME", ""}};
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
