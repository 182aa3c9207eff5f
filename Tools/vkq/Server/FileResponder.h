// The decisions behind serving a file for a (possibly resumed) download: where a
// request path leads under the served folder, the file's validators, and which bytes
// a Range / If-Range pair asks for. Pure functions over paths and header values; the
// server does the I/O.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace vkq::tool {

// A regular file inside the served folder, or the HTTP status that refuses the path:
// 403 for a path that leaves the folder (".." segments, symbolic links pointing out),
// 404 for anything that is not an existing regular file.
using ResolvedFile = std::variant<std::filesystem::path, int>;

// `relativePath` is the decoded request path after the route's prefix ("a/b.bin").
ResolvedFile resolveUnderRoot(const std::filesystem::path& root, std::string_view relativePath);

// Strong validators of a file's current content: ETag from size and modification
// time, Last-Modified as an HTTP date. Any change of either gives a new ETag.
struct FileValidators {
  std::string etag;          // "\"<size hex>-<mtime ns hex>\""
  std::string lastModified;  // "Sun, 06 Nov 1994 08:49:37 GMT"
  std::uint64_t size = 0;

  // Absent when the file's status cannot be read.
  static std::optional<FileValidators> of(const std::filesystem::path& file);
};

struct ByteRange {
  std::uint64_t first = 0;
  std::uint64_t length = 0;
};

// How to answer: the whole file (200), one range of it (206), or 416.
struct RangeDecision {
  enum class Kind { Whole, Partial, Unsatisfiable };
  Kind kind = Kind::Whole;
  ByteRange range;  // Partial: the bytes to send
};

// One range "bytes=F-L", "bytes=F-" or "bytes=-N" is honoured (L is clamped to the
// end). A range list or a malformed header is ignored, as HTTP allows, and so is any
// range when `ifRange` names neither validator, because the file has changed since the
// client's first part. A range that starts at or past the end is unsatisfiable.
RangeDecision decideRange(const std::optional<std::string>& range, const std::optional<std::string>& ifRange,
                          const FileValidators& validators);

}  // namespace vkq::tool
