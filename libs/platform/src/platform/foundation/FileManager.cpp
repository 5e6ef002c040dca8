#include "platform/foundation/FileManager.h"

#include "platform/foundation/FileDescriptor.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace platform {

namespace {

constexpr mode_t fileMode = 0644;
constexpr mode_t directoryMode = 0755;

ErrorRef failure(const std::string& what, const std::string& path, int code = errno) {
  return makePOSIXError(code, "Cannot " + what + " \"" + path + "\"");
}

// Only for who asks: that something is not there is often no failure, and its text is not for free.
void reportFailure(ErrorRef* error, const char* what, const std::string& path) {
  if (error)
    *error = failure(what, path);
}

struct DirectoryCloser {
  void operator()(DIR* directory) const { ::closedir(directory); }
};
using DirectoryStream = std::unique_ptr<DIR, DirectoryCloser>;

bool isDots(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

std::string parentOf(const std::string& path) {
  std::size_t end = path.find_last_not_of('/');
  if (end == std::string::npos)
    return "/";
  end = path.rfind('/', end);
  if (end == std::string::npos)
    return ".";
  end = path.find_last_not_of('/', end);
  return end == std::string::npos ? "/" : path.substr(0, end + 1);
}

ErrorRef syncItem(const std::string& path) {
  const FileDescriptor item(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  // Some file systems have nothing to sync in a directory and say so.
  if (!item || (::fsync(item.get()) != 0 && errno != EINVAL))
    return failure("sync", path);
  return nullptr;
}

// A name beside `path`. It does not contain that path's name, which may be as long as names can be.
std::string temporaryNameBeside(const std::string& path) {
  static std::atomic<std::uint64_t> counter{static_cast<std::uint64_t>(::getpid()) << 32};
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  char name[64];
  std::snprintf(name, sizeof name, "/.tmp-%llx-%lx", static_cast<unsigned long long>(counter++), now.tv_nsec);
  return parentOf(path) + name;
}

// Creates a file that was not there, under a fresh temporary name; `name` tells which.
FileDescriptor createTemporary(const std::string& beside, std::string& name) {
  for (int tries = 0; tries < 100; ++tries) {
    name = temporaryNameBeside(beside);
    FileDescriptor file(::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, fileMode));
    if (file || errno != EEXIST)
      return file;
  }
  return FileDescriptor();
}

// Removes what a failed operation left under a temporary name.
class TemporaryItem {
public:
  explicit TemporaryItem(std::string path) : _path(std::move(path)) {}
  ~TemporaryItem() {
    if (!_kept) {
      std::error_code ignored;
      std::filesystem::remove_all(_path, ignored);
    }
  }
  TemporaryItem(const TemporaryItem&) = delete;
  TemporaryItem& operator=(const TemporaryItem&) = delete;
  void keep() { _kept = true; }

private:
  std::string _path;
  bool _kept = false;
};

ErrorRef writeFailure(const std::string& path, std::uint64_t needed) {
  const int code = errno;
  std::string what = "Cannot write \"" + path + "\"";
  if (code == ENOSPC || code == EDQUOT || code == EFBIG)
    what += " (" + std::to_string(needed) + " bytes are needed)";
  return makePOSIXError(code, what);
}

ErrorRef copyFile(const std::string& from, const std::string& to, const struct stat& attributes) {
  const FileDescriptor source(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  if (!source)
    return failure("open", from);
  FileDescriptor target(
      ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, attributes.st_mode & 07777));
  if (!target)
    return failure("create", to);
  std::vector<char> buffer(1 << 20);
  while (true) {
    const ssize_t count = ::read(source.get(), buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 0)
      return failure("read", from);
    if (count == 0)
      break;
    if (!target.writeAll({buffer.data(), static_cast<std::size_t>(count)}))
      return writeFailure(to, static_cast<std::uint64_t>(attributes.st_size));
  }
  if (::fsync(target.get()) != 0 || !target.close())
    return writeFailure(to, static_cast<std::uint64_t>(attributes.st_size));
  return nullptr;
}

// Copies a file, a link or a directory with everything below it, synced; `to` must not exist.
ErrorRef copyItem(const std::string& from, const std::string& to) {
  struct stat attributes {};
  if (::lstat(from.c_str(), &attributes) != 0)
    return failure("read attributes of", from);
  if (S_ISREG(attributes.st_mode))
    return copyFile(from, to, attributes);
  if (S_ISLNK(attributes.st_mode)) {
    std::error_code code;
    std::filesystem::copy_symlink(from, to, code);
    return code ? failure("copy link", from, code.value()) : nullptr;
  }
  if (!S_ISDIR(attributes.st_mode))
    return failure("copy", from, EXDEV);
  if (::mkdir(to.c_str(), directoryMode) != 0)
    return failure("create directory", to);
  ErrorRef error;
  for (const std::string& name : FileManager::contentsOfDirectoryAtPath(from, &error))
    if (ErrorRef failed = copyItem(from + "/" + name, to + "/" + name))
      return failed;
  return error ? error : syncItem(to);
}

// What `mkdir` that failed with `code` means: a directory that is there already will do.
ErrorRef existingDirectory(const std::string& path, int code) {
  if (code == EEXIST && FileManager::directoryExistsAtPath(path))
    return nullptr;
  return failure("create directory", path, code);
}

std::int64_t sizeBelow(int parent, const char* name) {
  const int descriptor = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0)
    return 0;
  const DirectoryStream directory(::fdopendir(descriptor));
  if (!directory) {
    ::close(descriptor);
    return 0;
  }
  std::int64_t sum = 0;
  while (const dirent* entry = ::readdir(directory.get())) {
    struct stat attributes {};
    if (isDots(entry->d_name) || ::fstatat(descriptor, entry->d_name, &attributes, AT_SYMLINK_NOFOLLOW) != 0)
      continue;
    sum += attributes.st_size;
    if (S_ISDIR(attributes.st_mode))
      sum += sizeBelow(descriptor, entry->d_name);
  }
  return sum;
}

// Asks about the path, or about its nearest parent that exists.
template <class Question> bool askNearestExisting(std::string path, Question question) {
  while (!question(path)) {
    if ((errno != ENOENT && errno != ENOTDIR) || path == "/" || path == ".")
      return false;
    path = parentOf(path);
  }
  return true;
}

} // namespace

bool FileManager::fileExistsAtPath(const std::string& path) {
  struct stat attributes {};
  return ::stat(path.c_str(), &attributes) == 0;
}

bool FileManager::directoryExistsAtPath(const std::string& path) {
  struct stat attributes {};
  return ::stat(path.c_str(), &attributes) == 0 && S_ISDIR(attributes.st_mode);
}

std::optional<FileAttributes> FileManager::attributesOfItemAtPath(const std::string& path, ErrorRef* error) {
  struct stat raw {};
  if (::lstat(path.c_str(), &raw) != 0) {
    reportFailure(error, "read attributes of", path);
    return std::nullopt;
  }
  FileAttributes attributes;
  if (S_ISREG(raw.st_mode))
    attributes.type = FileAttributes::Type::Regular;
  else if (S_ISDIR(raw.st_mode))
    attributes.type = FileAttributes::Type::Directory;
  else if (S_ISLNK(raw.st_mode))
    attributes.type = FileAttributes::Type::SymbolicLink;
  attributes.size = raw.st_size;
  attributes.modifiedSeconds = raw.st_mtim.tv_sec;
  attributes.changedSeconds = raw.st_ctim.tv_sec;
  return attributes;
}

ErrorRef FileManager::setModifiedSeconds(std::int64_t secondsSince1970, const std::string& path) {
  const timespec times[] = {{0, UTIME_OMIT}, {static_cast<time_t>(secondsSince1970), 0}};
  return ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0 ? nullptr
                                                                              : failure("date", path);
}

std::vector<std::string> FileManager::contentsOfDirectoryAtPath(const std::string& path, ErrorRef* error) {
  std::vector<std::string> names;
  const DirectoryStream directory(::opendir(path.c_str()));
  if (!directory) {
    reportFailure(error, "list directory", path);
    return names;
  }
  errno = 0;
  while (const dirent* entry = ::readdir(directory.get())) {
    if (!isDots(entry->d_name))
      names.emplace_back(entry->d_name);
    errno = 0;
  }
  if (errno != 0) {
    reportFailure(error, "list directory", path);
    names.clear();
  }
  std::sort(names.begin(), names.end());
  return names;
}

ErrorRef FileManager::createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories,
                                            std::vector<std::string>* unsynced) {
  int result = ::mkdir(path.c_str(), directoryMode);
  if (result != 0 && errno == ENOENT && withIntermediateDirectories) {
    const std::string parent = parentOf(path);
    if (parent == path)
      return failure("create directory", path, ENOENT);
    if (ErrorRef error = createDirectoryAtPath(parent, true, unsynced))
      return error;
    result = ::mkdir(path.c_str(), directoryMode);
  }
  if (result != 0)
    return existingDirectory(path, errno);
  std::string parent = parentOf(path); // else a file synced in it could still vanish with it
  if (!unsynced)
    return syncItem(parent);
  if (unsynced->empty() || unsynced->back() != parent)
    unsynced->push_back(std::move(parent));
  return nullptr;
}

ErrorRef FileManager::removeItemAtPath(const std::string& path) {
  std::error_code code;
  const auto removed = std::filesystem::remove_all(path, code);
  if (code)
    return failure("remove", path, code.value());
  return removed == 0 ? failure("remove", path, ENOENT) : nullptr;
}

ErrorRef FileManager::moveItemAtPath(const std::string& from, const std::string& to) {
  ErrorRef error = moveItemAtPathUnsynced(from, to);
  return error ? error : syncItem(parentOf(to));
}

std::vector<ErrorRef> FileManager::syncItemsAtPaths(const std::vector<std::string>& paths) {
  // Syncs that run together share the flushes of the disk; one after the other, each would wait for its own.
  constexpr std::size_t most = 4;
  std::atomic<std::size_t> next{0};
  std::vector<ErrorRef> errors(paths.size());
  const auto work = [&] {
    for (std::size_t i; (i = next++) < paths.size();)
      if (auto error = syncItem(paths[i]); error && error->code() != ENOENT)
        errors[i] = std::move(error);
  };
  std::vector<std::jthread> others;
  try {
    while (others.size() + 1 < std::min(most, (paths.size() + 1) / 2))
      others.emplace_back(work);
  } catch (const std::system_error&) {
    // Fewer will do.
  }
  work();
  others.clear();
  return errors;
}

ErrorRef FileManager::moveItemAtPathUnsynced(const std::string& from, const std::string& to) {
  if (::rename(from.c_str(), to.c_str()) == 0)
    return nullptr;
  if (errno != EXDEV)
    return failure("move \"" + from + "\" to", to);

  const std::string temporary = temporaryNameBeside(to);
  TemporaryItem guard(temporary);
  if (ErrorRef error = copyItem(from, temporary))
    return error;
  if (::rename(temporary.c_str(), to.c_str()) != 0)
    return failure("move \"" + from + "\" to", to);
  guard.keep();
  // Never left to the caller: the source goes now.
  if (ErrorRef error = syncItem(parentOf(to)))
    return error;
  return removeItemAtPath(from);
}

bool FileManager::renameToFreePath(const std::string& from, const std::string& to) {
  return ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0;
}

std::optional<Data> FileManager::contentsAtPath(const std::string& path, ErrorRef* error) {
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat attributes {};
  if (!file || ::fstat(file.get(), &attributes) != 0) {
    reportFailure(error, "open", path);
    return std::nullopt;
  }
  // One byte more than the size, so that the end is seen without growing. The size is only a hint: files of
  // the kernel tell none.
  Data data(static_cast<std::size_t>(std::max<off_t>(attributes.st_size, 0)) + 1);
  std::size_t used = 0;
  while (true) {
    if (used == data.size())
      data.resize(data.size() * 2 + 4096);
    const ssize_t count = ::read(file.get(), data.data() + used, data.size() - used);
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 0) {
      reportFailure(error, "read", path);
      return std::nullopt;
    }
    if (count == 0)
      break;
    used += static_cast<std::size_t>(count);
  }
  data.resize(used);
  return data;
}

ErrorRef FileManager::writeDataAtomically(std::string_view bytes, const std::string& path) {
  std::string temporary;
  FileDescriptor file = createTemporary(path, temporary);
  if (!file)
    return writeFailure(path, bytes.size());
  TemporaryItem guard(temporary);
  if (!file.writeAll(bytes) || ::fsync(file.get()) != 0 || !file.close() ||
      ::rename(temporary.c_str(), path.c_str()) != 0)
    return writeFailure(path, bytes.size());
  guard.keep();
  return syncItem(parentOf(path));
}

std::int64_t FileManager::folderSize(const std::string& path) {
  return sizeBelow(AT_FDCWD, path.c_str());
}

bool FileManager::removeAllItemsAtPath(const std::string& path) {
  for (const std::string& name : contentsOfDirectoryAtPath(path))
    if (removeItemAtPath(path + "/" + name))
      return false;
  return true;
}

std::optional<std::int64_t> FileManager::availableBytesAtPath(const std::string& path) {
  struct statvfs space {};
  if (!askNearestExisting(path, [&](const std::string& p) { return ::statvfs(p.c_str(), &space) == 0; }))
    return std::nullopt;
  return static_cast<std::int64_t>(space.f_bavail) * static_cast<std::int64_t>(space.f_frsize);
}

std::size_t FileManager::maximumNameLengthAtPath(const std::string& path) {
  long length = -1;
  askNearestExisting(path, [&](const std::string& p) {
    errno = 0;
    length = ::pathconf(p.c_str(), _PC_NAME_MAX);
    return length >= 0 || errno == 0;
  });
  return length > 0 ? static_cast<std::size_t>(length) : 255;
}

} // namespace platform
