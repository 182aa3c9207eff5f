// Sequential writes to a file with few system calls and no extra copy of large pieces:
// small pieces are gathered in a buffer, pieces of 64 KiB and more go to the file
// directly. Beside it, how the transport makes new files and puts a copy in place.
// Internal to the transport; a FileWriter is used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string_view>
#include <vector>

#include "Platform/Base/Error.h"

namespace vkq::platform {

class FileWriter {
 public:
  // Takes ownership of `descriptor` (open for writing).
  FileWriter(int descriptor, std::size_t bufferSize);
  ~FileWriter();
  FileWriter(const FileWriter&) = delete;
  FileWriter& operator=(const FileWriter&) = delete;

  // Each returns false on failure, with the failed system call's error in `error`.
  [[nodiscard]] bool write(const char* data, std::size_t length, ErrorPtr* error);
  // Cuts the file to `length` bytes and continues writing there.
  [[nodiscard]] bool truncate(std::int64_t length, ErrorPtr* error);
  // Writes what is buffered and waits until the file's bytes are on the disk.
  [[nodiscard]] bool sync(ErrorPtr* error);
  // Writes what is buffered and closes the file.
  [[nodiscard]] bool close(ErrorPtr* error);

 private:
  bool flush(ErrorPtr* error);
  bool writeAll(const char* data, std::size_t length, ErrorPtr* error);

  int descriptor_;
  std::vector<char> buffer_;
  std::size_t capacity_;
};

// Creates a new file named `prefix` and random characters in `folder`, open for
// writing, with the mode new files get (0666 less the umask), and sets `path` to it.
// The descriptor, or -1 with errno set.
int createUniqueFile(const std::filesystem::path& folder, std::string_view prefix, std::filesystem::path& path);

// Copies `source` to a new file beside `target`, waits until it is on the disk and
// renames it to `target`: `target` is either replaced whole or left as it was (a full
// disk included), and no copy stays behind. False, with the failed call's error.
[[nodiscard]] bool replaceFileWithCopy(const std::filesystem::path& source, const std::filesystem::path& target,
                                       ErrorPtr* error);

}  // namespace vkq::platform
