#include "TolvaneDownloader/DASHDownloader/Internal/QVDirectorySnapshot.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
// Each level holds a descriptor open; nothing that this room makes comes near.
constexpr int deepestLevel = 200;
} // namespace

QVDirectorySnapshot::QVDirectorySnapshot(const std::string& path) {
  const int directory = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directory < 0)
    return;
  std::string prefix;
  walk(directory, prefix, 0);
}

std::optional<std::int64_t> QVDirectorySnapshot::sizeOfFile(std::string_view relativePath) const {
  const auto it = _files.find(relativePath);
  if (it == _files.end())
    return std::nullopt;
  return it->second;
}

void QVDirectorySnapshot::walk(int directory, std::string& prefix, int depth) {
  // A process that died may have placed files without syncing their directory, and they will be relied upon.
  if (::fsync(directory) != 0 && errno != EINVAL && errno != EROFS) {
    ::close(directory);
    return;
  }
  DIR* entries = ::fdopendir(directory);
  if (!entries) {
    ::close(directory);
    return;
  }
  const std::size_t prefixLength = prefix.size();
  while (const dirent* entry = ::readdir(entries)) {
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..")
      continue;
    struct stat attributes {};
    if (::fstatat(directory, entry->d_name, &attributes, AT_SYMLINK_NOFOLLOW) != 0)
      continue;
    _totalSize += attributes.st_size;
    prefix.append(name);
    if (S_ISREG(attributes.st_mode)) {
      _files.emplace(prefix, attributes.st_size);
    } else if (S_ISDIR(attributes.st_mode) && depth < deepestLevel) {
      const int child = ::openat(directory, entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (child >= 0) {
        prefix += '/';
        walk(child, prefix, depth + 1);
      }
    }
    prefix.resize(prefixLength);
  }
  ::closedir(entries);
}
