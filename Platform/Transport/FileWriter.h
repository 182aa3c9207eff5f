// Sequential writes to a file with few system calls and no extra copy of large pieces:
// small pieces are gathered in a buffer, pieces of 64 KiB and more go to the file
// directly. Internal to the transport; used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vkq::platform {

class FileWriter {
 public:
  // Takes ownership of `descriptor` (open for writing).
  FileWriter(int descriptor, std::size_t bufferSize);
  ~FileWriter();
  FileWriter(const FileWriter&) = delete;
  FileWriter& operator=(const FileWriter&) = delete;

  // Each returns false, with errno set, on failure.
  bool write(const char* data, std::size_t length);
  // Cuts the file to `length` bytes and continues writing there.
  bool truncate(std::int64_t length);
  // Writes what is buffered and closes the file.
  bool close();

 private:
  bool flush();
  bool writeAll(const char* data, std::size_t length);

  int descriptor_;
  std::vector<char> buffer_;
  std::size_t capacity_;
};

}  // namespace vkq::platform
