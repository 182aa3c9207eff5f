// Folders the library keeps its own files in between runs (resume data, partial
// downloads). They are private to the user: another user could otherwise read the
// files, or plant resume data that the library would trust.
//
// They lie under $XDG_CACHE_HOME when that is an absolute path, else under $TMPDIR when
// that is an absolute path, else under /tmp; the environment is read on every call.
#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

#include "Platform/Base/Error.h"

namespace vkq::platform {

// The folder `name` under the base above; nothing is created.
std::filesystem::path privateFolderPath(std::string_view name);

// Makes sure `folder` is a folder only the user can enter: creates it (mode 0700, and
// its missing parents) when it is not there, and narrows the mode of the user's own
// folder to 0700. False, with the reason in `error` (kPOSIXErrorDomain), when it cannot
// be made, or is a symbolic link, not a folder, or owned by another user: it is then
// left as it is and must not be used.
[[nodiscard]] bool preparePrivateFolder(const std::filesystem::path& folder, ErrorPtr* error);

}  // namespace vkq::platform
