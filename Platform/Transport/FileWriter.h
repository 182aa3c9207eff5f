// Sequential writes to a file with few system calls and no extra copy of large pieces:
// small pieces are gathered in a buffer, pieces of 64 KiB and more go to the file
// directly. Internal to the transport; used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
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
  // Writes what is buffered and closes the file.
  [[nodiscard]] bool close(ErrorPtr* error);

 private:
  bool flush(ErrorPtr* error);
  bool writeAll(const char* data, std::size_t length, ErrorPtr* error);

  int descriptor_;
  std::vector<char> buffer_;
  std::size_t capacity_;
};

}  // namespace vkq::platform
