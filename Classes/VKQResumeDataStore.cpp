#include "Classes/VKQResumeDataStore.h"

#include <openssl/evp.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "Platform/Base/Assert.h"
#include "Platform/Base/Log.h"
#include "Platform/Base/PrivateFolder.h"
#include "Platform/Session/URLSessionTask.h"

namespace fs = std::filesystem;
using vkq::platform::Bytes;
using vkq::platform::URL;
using vkq::platform::URLSessionDownloadTask;

namespace {

std::optional<Bytes> readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  Bytes bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (in.bad()) return std::nullopt;
  return bytes;
}

std::optional<Bytes> readFile(const std::optional<URL>& file) {
  return file ? readFile(file->filePath()) : std::nullopt;
}

// Writes beside the file, then renames; false, with nothing left beside it, when the
// bytes did not all reach the disk (a full disk shows only when the stream is flushed).
bool writeFileAtomically(const fs::path& path, const Bytes& bytes) {
  fs::path partial = path;
  partial += ".partial";
  std::ofstream out(partial, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  out.close();
  std::error_code ec;
  if (!out.fail()) fs::rename(partial, path, ec);
  if (out.fail() || ec) {
    DDDebug("Failed to store resume data at", path.string());
    fs::remove(partial, ec);
    return false;
  }
  return true;
}

// Removes the partial file that `old` continues, unless `kept` continues the same one:
// without its resume data nothing would use or remove it. Only files in the
// transport's own folder are ever named.
void removeSupersededPartialFile(const std::optional<Bytes>& old, const std::optional<Bytes>& kept) {
  const auto partial = old ? URLSessionDownloadTask::partialFileOfResumeData(*old) : std::nullopt;
  if (!partial || (kept && URLSessionDownloadTask::partialFileOfResumeData(*kept) == partial)) return;
  std::error_code ec;
  fs::remove(*partial, ec);
}

}  // namespace

std::optional<std::string> VKQResumeDataStore::folder() {
  const fs::path folder = vkq::platform::privateFolderPath("Incomplete");
  vkq::platform::ErrorPtr refusal;
  if (!vkq::platform::preparePrivateFolder(folder, &refusal)) {
    DDDebug("Failed to create cache directory at", folder.string(), refusal->localizedDescription());
    return std::nullopt;
  }
  return folder.string();
}

std::string VKQResumeDataStore::md5Name(std::string_view text) {
  // The text up to its first NUL, as a C string would be.
  text = text.substr(0, text.find('\0'));
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  const bool digested = EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr) == 1;
  VKQAssert(digested && length == 16, "MD5 digest unavailable");
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(32);
  for (unsigned int i = 0; i < length; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 0x0F];
  }
  return hex;
}

std::optional<URL> VKQResumeDataStore::fileForName(std::string_view name) {
  const auto cache = folder();
  if (!cache) return std::nullopt;
  return URL::fileURLWithPath((fs::path(*cache) / md5Name(name)).string());
}

std::optional<Bytes> VKQResumeDataStore::load(const std::string& downloadPath, const std::string& targetPath) {
  const auto targetFile = fileForName(targetPath);
  std::error_code ec;
  if (!targetFile || !fs::exists(targetFile->filePath(), ec)) return std::nullopt;
  std::optional<Bytes> data = readFile(fileForName(downloadPath));
  if (targetPath != downloadPath && data != readFile(targetFile)) return std::nullopt;
  return data;
}

void VKQResumeDataStore::store(const std::string& downloadPath, const std::string& targetPath,
                               const Bytes& resumeData) {
  for (const std::string& name : {targetPath, downloadPath}) {
    const auto file = fileForName(name);
    if (file) removeSupersededPartialFile(readFile(file), resumeData);
    if (!file || !writeFileAtomically(file->filePath(), resumeData)) {
      // Resume data that cannot be kept under every name is kept under none, and its
      // partial file goes too: nothing would use or remove it.
      remove(downloadPath, targetPath);
      removeSupersededPartialFile(resumeData, std::nullopt);
      return;
    }
    if (targetPath == downloadPath) break;
  }
}

void VKQResumeDataStore::remove(const std::string& downloadPath, const std::string& targetPath) {
  const auto targetFile = fileForName(targetPath);
  if (!targetFile) return;
  std::error_code ec;
  if (targetPath != downloadPath) {
    // The folder's file is this download's only while it holds the same data.
    const auto folderFile = fileForName(downloadPath);
    const auto ours = readFile(targetFile);
    if (folderFile && ours && readFile(folderFile) == ours) fs::remove(folderFile->filePath(), ec);
  }
  fs::remove(targetFile->filePath(), ec);
}

void VKQResumeDataStore::discard(const std::string& downloadPath, const std::string& targetPath) {
  removeSupersededPartialFile(readFile(fileForName(targetPath)), std::nullopt);
  remove(downloadPath, targetPath);
}
