#include "Platform/Base/PrivateFolder.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <system_error>

#include <sys/stat.h>
#include <unistd.h>

namespace vkq::platform {
namespace {

namespace fs = std::filesystem;

// The variable's value when it names an absolute path.
std::optional<fs::path> absolutePathIn(const char* variable) {
  const char* value = std::getenv(variable);
  if (value == nullptr || value[0] != '/') return std::nullopt;
  return fs::path(value);
}

bool refuse(ErrorPtr* error, const fs::path& folder, const std::string& reason, int code) {
  ErrorUserInfo info;
  info.localizedDescription = "The folder " + folder.string() + " " + reason;
  setError(error, makeError(kPOSIXErrorDomain, code, std::move(info)));
  return false;
}

}  // namespace

fs::path privateFolderPath(std::string_view name) {
  const fs::path base = absolutePathIn("XDG_CACHE_HOME").value_or(absolutePathIn("TMPDIR").value_or("/tmp"));
  return base / name;
}

bool preparePrivateFolder(const fs::path& folder, ErrorPtr* error) {
  std::error_code ignored;
  fs::create_directories(folder.parent_path(), ignored);  // a failure shows in mkdir below
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    return refuse(error, folder, std::string("cannot be created: ") + std::strerror(errno), errno);
  }
  // lstat, not stat: a link to a folder elsewhere could be anyone's.
  struct stat info {};
  if (::lstat(folder.c_str(), &info) != 0) {
    return refuse(error, folder, std::string("cannot be examined: ") + std::strerror(errno), errno);
  }
  if (S_ISLNK(info.st_mode)) return refuse(error, folder, "is a symbolic link", ELOOP);
  if (!S_ISDIR(info.st_mode)) return refuse(error, folder, "is not a folder", ENOTDIR);
  if (info.st_uid != ::geteuid()) return refuse(error, folder, "belongs to another user", EPERM);
  if ((info.st_mode & 077) != 0 && ::chmod(folder.c_str(), 0700) != 0) {
    return refuse(error, folder, std::string("cannot be made private: ") + std::strerror(errno), errno);
  }
  return true;
}

}  // namespace vkq::platform
