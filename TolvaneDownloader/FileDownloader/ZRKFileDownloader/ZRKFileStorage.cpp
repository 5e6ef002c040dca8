#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileStorage.h"

#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloader.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileLog.h"

#include "platform/foundation/Error.h"
#include "platform/foundation/FileManager.h"
#include "platform/foundation/UUID.h"

#include <algorithm>
#include <cerrno>

using platform::ErrorRef;
using platform::FileManager;
using platform::URL;

namespace {

constexpr const char* FolderName = "file-download";

// Backup programs leave a directory out that holds this file, with this first line.
constexpr const char* BackupTagName = "/CACHEDIR.TAG";
constexpr const char* BackupTag =
    "Signature: 8a477f597d28d172789f06886806bc55\n"
    "# Downloaded files: they can be fetched again, so backups leave them out.\n";

ErrorRef excludeFromBackup(const std::string& directory) {
  if (FileManager::fileExistsAtPath(directory + BackupTagName))
    return nullptr;
  return FileManager::writeDataAtomically(BackupTag, directory + BackupTagName);
}

/// A file that stands there is replaced in one step, so it is not lost when the move fails. Anything else
/// would take more with it than one old file.
std::optional<std::string> replaceFile(const std::string& location, const std::string& destination) {
  auto standing = FileManager::attributesOfItemAtPath(destination);
  if (standing && standing->type != platform::FileAttributes::Type::Regular &&
      standing->type != platform::FileAttributes::Type::SymbolicLink) {
    const bool directory = standing->type == platform::FileAttributes::Type::Directory;
    return ZRKLogError(
        "Error on removing file at " + destination + ": " +
        ZRKDescribe(platform::makePOSIXError(directory ? EISDIR : EEXIST, "Only a file is replaced")));
  }
  if (auto error = FileManager::moveItemAtPathUnsynced(location, destination))
    return ZRKLogError(
        "Unable to move file from " + location + " to " + destination + " (" +
        ZRKDescribe(platform::makeError(platform::NSURLErrorDomain, platform::NSURLErrorCannotMoveFile,
                                        "The file cannot be moved.", error)) +
        ")");
  return std::nullopt;
}

} // namespace

std::optional<std::string> ZRKFileDownloadFolder(const std::string& directory) {
  auto folder = directory + "/" + FolderName;
  if (auto error = FileManager::createDirectoryAtPath(folder, true)) {
    ZRKLogError("on create directory: " + ZRKDescribe(error));
    return std::nullopt;
  }
  if (auto error = excludeFromBackup(folder)) {
    ZRKLogError("on set resource value (NSURLIsExcludedFromBackupKey): " + ZRKDescribe(error));
    return std::nullopt;
  }
  return folder;
}

std::optional<URL> ZRKFileDownloader::localFileURLForRemoteURL(const URL& remoteURL,
                                                               const std::string& documentsDirectory) {
  auto folder = ZRKFileDownloadFolder(documentsDirectory);
  if (!folder)
    return std::nullopt;
  // An extension comes from outside: a "/" in it would be another directory.
  auto extension = remoteURL.pathExtension();
  std::erase_if(extension, [](char c) { return c == '/' || c == '\0'; });
  constexpr std::size_t LongestExtension = 64;
  if (extension.size() > LongestExtension)
    extension.clear();
  return URL::fileURLWithPath(*folder + "/" + platform::newUUIDString() + "." + extension);
}

std::optional<URL> ZRKTempLocalFileURLForDownloadFromURL(const URL& remoteURL,
                                                         const std::string& temporaryDirectory) {
  auto folder = ZRKFileDownloadFolder(temporaryDirectory);
  if (!folder)
    return std::nullopt;
  auto name = remoteURL.lastPathComponent();
  std::replace_if(
      name.begin(), name.end(), [](char c) { return c == '/' || c == '\0'; }, '_');
  if (name.empty() || name == "." || name == "..")
    name = "download";
  // Room is left for what tells two files of one name apart.
  const auto longest = FileManager::maximumNameLengthAtPath(*folder);
  constexpr std::size_t Distinction = 37;
  if (name.size() + Distinction > longest)
    name.resize(longest > Distinction ? longest - Distinction : 1);
  return URL::fileURLWithPath(*folder + "/" + name);
}

std::optional<std::string> ZRKPlaceFile(const std::string& location, const std::string& destination,
                                        std::int64_t& size) {
  if (location != destination && !FileManager::renameToFreePath(location, destination))
    if (auto line = replaceFile(location, destination))
      return line;
  ErrorRef error;
  auto attributes = FileManager::attributesOfItemAtPath(destination, &error);
  if (!attributes)
    return ZRKLogError("Error on getting file size for item at " + destination + ": " + ZRKDescribe(error));
  size = attributes->size;
  return std::nullopt;
}
