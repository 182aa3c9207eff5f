#include "Platform/Transport/FileWriter.h"

#include <cerrno>
#include <cstdio>
#include <random>
#include <string>

#include <fcntl.h>
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

bool FileWriter::sync(ErrorPtr* error) {
  if (!flush(error)) return false;
  if (::fsync(descriptor_) != 0) return failed("fsync", error);
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

int createUniqueFile(const std::filesystem::path& folder, std::string_view prefix, std::filesystem::path& path) {
  // mkstemp would make the file 0600; O_EXCL with a random name does what it does
  // and leaves the mode to the umask.
  thread_local std::mt19937_64 random{std::random_device{}()};
  for (int attempt = 0; attempt < 100; ++attempt) {
    char suffix[17];
    std::snprintf(suffix, sizeof suffix, "%016llx", static_cast<unsigned long long>(random()));
    path = folder / (std::string(prefix) + suffix);
    const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (descriptor >= 0 || errno != EEXIST) return descriptor;
  }
  return -1;  // errno is EEXIST
}

bool replaceFileWithCopy(const std::filesystem::path& source, const std::filesystem::path& target,
                         ErrorPtr* error) {
  const int input = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
  if (input < 0) return failed("open", error);
  std::filesystem::path copy;
  const int output = createUniqueFile(target.parent_path(), "." + target.filename().string() + "-", copy);
  if (output < 0) {
    failed("open", error);
    ::close(input);
    return false;
  }
  bool copied = true;
  {
    FileWriter writer(output, 0);  // no buffer: every piece goes to the file as it is read
    std::vector<char> buffer(1 << 20);
    for (;;) {
      const ssize_t got = ::read(input, buffer.data(), buffer.size());
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) {
        copied = got == 0 || failed("read", error);
        break;
      }
      if (!writer.write(buffer.data(), static_cast<std::size_t>(got), error)) {
        copied = false;
        break;
      }
    }
    copied = copied && writer.sync(error) && writer.close(error);
  }
  ::close(input);
  if (copied && ::rename(copy.c_str(), target.c_str()) != 0) copied = failed("rename", error);
  if (!copied) ::unlink(copy.c_str());
  return copied;
}

}  // namespace vkq::platform
