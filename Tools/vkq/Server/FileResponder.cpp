#include "Tools/vkq/Server/FileResponder.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <system_error>

namespace vkq::tool {
namespace {

namespace fs = std::filesystem;

// Whether `path` equals `root` or lies below it (both canonical).
bool isInside(const fs::path& path, const fs::path& root) {
  auto pathIt = path.begin();
  for (auto rootIt = root.begin(); rootIt != root.end(); ++rootIt, ++pathIt) {
    if (pathIt == path.end() || *pathIt != *rootIt) return false;
  }
  return true;
}

std::optional<std::uint64_t> parseNumber(std::string_view text) {
  std::uint64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::string httpDate(std::time_t time) {
  std::tm parts{};
  gmtime_r(&time, &parts);
  char text[64];
  std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &parts);
  return text;
}

}  // namespace

ResolvedFile resolveUnderRoot(const fs::path& root, std::string_view relativePath) {
  const fs::path relative(relativePath);
  if (relative.empty() || relative.is_absolute()) return 404;
  for (const fs::path& segment : relative) {
    if (segment == "..") return 403;
  }
  std::error_code error;
  const fs::path canonicalRoot = fs::canonical(root, error);
  if (error) return 404;
  const fs::path file = fs::canonical(canonicalRoot / relative, error);
  if (error) return 404;
  if (!isInside(file, canonicalRoot)) return 403;
  if (!fs::is_regular_file(file, error)) return 404;
  return file;
}

std::optional<FileValidators> FileValidators::of(const fs::path& file) {
  std::error_code error;
  const auto size = fs::file_size(file, error);
  if (error) return std::nullopt;
  const auto modified = fs::last_write_time(file, error);
  if (error) return std::nullopt;
  const auto systemTime =
      std::chrono::time_point_cast<std::chrono::system_clock::duration>(std::chrono::file_clock::to_sys(modified));
  const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(systemTime.time_since_epoch()).count();

  char etag[64];
  std::snprintf(etag, sizeof etag, "\"%llx-%llx\"", static_cast<unsigned long long>(size),
                static_cast<unsigned long long>(nanoseconds));
  return FileValidators{etag, httpDate(std::chrono::system_clock::to_time_t(systemTime)), size};
}

RangeDecision decideRange(const std::optional<std::string>& range, const std::optional<std::string>& ifRange,
                          const FileValidators& validators) {
  constexpr std::string_view kUnit = "bytes=";
  if (!range || !range->starts_with(kUnit)) return {};
  if (ifRange && *ifRange != validators.etag && *ifRange != validators.lastModified) return {};

  const std::string_view rangeSet = std::string_view(*range).substr(kUnit.size());
  const auto dash = rangeSet.find('-');
  if (dash == std::string_view::npos || rangeSet.find(',') != std::string_view::npos) return {};
  const std::string_view firstText = rangeSet.substr(0, dash);
  const std::string_view lastText = rangeSet.substr(dash + 1);
  const std::uint64_t size = validators.size;

  if (firstText.empty()) {  // "-N": the last N bytes
    const auto suffix = parseNumber(lastText);
    if (!suffix) return {};
    if (*suffix == 0 || size == 0) return {RangeDecision::Kind::Unsatisfiable, {}};
    const std::uint64_t length = std::min(*suffix, size);
    return {RangeDecision::Kind::Partial, {size - length, length}};
  }
  const auto first = parseNumber(firstText);
  if (!first) return {};
  std::uint64_t last = size == 0 ? 0 : size - 1;
  if (!lastText.empty()) {
    const auto requestedLast = parseNumber(lastText);
    if (!requestedLast || *requestedLast < *first) return {};
    last = std::min(last, *requestedLast);
  }
  if (*first >= size) return {RangeDecision::Kind::Unsatisfiable, {}};
  return {RangeDecision::Kind::Partial, {*first, last - *first + 1}};
}

}  // namespace vkq::tool
