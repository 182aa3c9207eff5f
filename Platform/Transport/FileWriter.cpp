#include "Platform/Transport/FileWriter.h"

#include <cerrno>

#include <unistd.h>

namespace vkq::platform {
namespace {

// Pieces this large gain nothing from gathering: they go to the file as they are.
constexpr std::size_t kDirectWriteSize = 64 * 1024;

}  // namespace

FileWriter::FileWriter(int descriptor, std::size_t bufferSize) : descriptor_(descriptor), capacity_(bufferSize) {
  buffer_.reserve(capacity_);
}

FileWriter::~FileWriter() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

bool FileWriter::write(const char* data, std::size_t length) {
  if (buffer_.size() + length > capacity_ && !flush()) return false;
  if (length >= kDirectWriteSize || length >= capacity_) return writeAll(data, length);
  buffer_.insert(buffer_.end(), data, data + length);
  return true;
}

bool FileWriter::truncate(std::int64_t length) {
  return flush() && ftruncate(descriptor_, length) == 0 && lseek(descriptor_, length, SEEK_SET) == length;
}

bool FileWriter::close() {
  const bool flushed = flush();
  const bool closed = ::close(descriptor_) == 0;
  descriptor_ = -1;
  return flushed && closed;
}

bool FileWriter::flush() {
  const bool written = writeAll(buffer_.data(), buffer_.size());
  buffer_.clear();
  return written;
}

bool FileWriter::writeAll(const char* data, std::size_t length) {
  while (length > 0) {
    const ssize_t written = ::write(descriptor_, data, length);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += written;
    length -= static_cast<std::size_t>(written);
  }
  return true;
}

}  // namespace vkq::platform
