// Where the agent keeps the resume data of interrupted downloads: one file per name in
// the private folder "Incomplete" (Platform/Base/PrivateFolder.h: under $XDG_CACHE_HOME,
// else $TMPDIR, else /tmp; mode 0700), named by the MD5 of the name. A folder that is
// not the user's own is not used: downloads then start afresh and keep no resume data.
//
// A download into a folder has two names: the folder (the download path the
// application gave) and the file inside it (the target). Its resume data is stored
// under both; a later download finds it under the target and reads it from the
// folder's name, and takes it only while both hold the same data, since the folder's
// file may belong to another download into that folder.
//
// Resume data names a partial file in the transport's folder. Data that is replaced by
// data for another partial file, or discarded, takes its partial file with it, so that
// the folder does not fill up with files nothing refers to. So does resume data that
// cannot be stored (a full disk, no folder).
//
// Files are written beside their place, checked and renamed, so a reader never sees
// half of one, nor one cut short by a full disk. Stateless; safe from any thread
// (concurrent writers of one name: the last rename wins).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/Base/Bytes.h"
#include "Platform/HTTP/URL.h"

class VKQResumeDataStore {
 public:
  // The folder, created on every call; absent, after logging "Failed to create cache
  // directory at" and the reason, when it can't be or is not the user's own.
  static std::optional<std::string> folder();
  // 32 lower-case hexadecimal digits: the MD5 of the UTF-8 text up to its first NUL.
  static std::string md5Name(std::string_view text);
  // The file for a name: its md5Name() in the folder. Absent when the folder is.
  // REQUIRES: name is not empty (the agent asserts it for every download path).
  static std::optional<vkq::platform::URL> fileForName(std::string_view name);

  // The resume data stored for a download of `downloadPath` into `targetPath` (equal
  // for a download into a file); absent when there is none.
  static std::optional<vkq::platform::Bytes> load(const std::string& downloadPath, const std::string& targetPath);
  // Stores `data` under both names, replacing what they held.
  static void store(const std::string& downloadPath, const std::string& targetPath,
                    const vkq::platform::Bytes& resumeData);
  // Removes the resume data of a download that completed (its partial file is now the
  // download's file).
  static void remove(const std::string& downloadPath, const std::string& targetPath);
  // Removes the resume data stored for `targetPath`, and its partial file: for a
  // download that starts afresh.
  static void discard(const std::string& downloadPath, const std::string& targetPath);
};
