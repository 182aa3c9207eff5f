#include "Platform/Transport/FileWriter.h"

#include <cerrno>

#include <unistd.h>

namespace vkq::platform {
namespace {

// Pieces this large gain nothing from gathering: they go to the file as they are.
constexpr std::size_t kDirectWriteSize = 64 * 1024;

// Reports errno as the failure of `call`.
bool failed(const char* call, ErrorPtr* error) {
  setError(error, makePOSIXError(call, errno));
  return false;
}

}  // namespace

FileWriter::FileWriter(int descriptor, std::size_t bufferSize) : descriptor_(descriptor), capacity_(bufferSize) {
  buffer_.reserve(capacity_);
}

FileWriter::~FileWriter() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

bool FileWriter::write(const char* data, std::size_t length, ErrorPtr* error) {
  if (buffer_.size() + length > capacity_ && !flush(error)) return false;
  if (length >= kDirectWriteSize || length >= capacity_) return writeAll(data, length, error);
  buffer_.insert(buffer_.end(), data, data + length);
  return true;
}

bool FileWriter::truncate(std::int64_t length, ErrorPtr* error) {
  if (!flush(error)) return false;
  if (ftruncate(descriptor_, length) != 0) return failed("ftruncate", error);
  if (lseek(descriptor_, length, SEEK_SET) != length) return failed("lseek", error);
  return true;
}

bool FileWriter::close(ErrorPtr* error) {
  const bool flushed = flush(error);
  const int closed = ::close(descriptor_);
  descriptor_ = -1;
  if (closed != 0 && flushed) return failed("close", error);
  return flushed;
}

bool FileWriter::flush(ErrorPtr* error) {
  const bool written = writeAll(buffer_.data(), buffer_.size(), error);
  buffer_.clear();
  return written;
}

bool FileWriter::writeAll(const char* data, std::size_t length, ErrorPtr* error) {
  while (length > 0) {
    const ssize_t written = ::write(descriptor_, data, length);
    if (written < 0) {
      if (errno == EINTR) continue;
      return failed("write", error);
    }
    data += written;
    length -= static_cast<std::size_t>(written);
  }
  return true;
}

}  // namespace vkq::platform
