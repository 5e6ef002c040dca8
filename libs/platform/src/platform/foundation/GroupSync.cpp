#include "platform/foundation/GroupSync.h"

#include "platform/foundation/FileManager.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <fcntl.h>
#include <linux/magic.h>
#include <string_view>
#include <sys/vfs.h>
#include <unistd.h>
#include <utility>

namespace platform {

namespace {

/// Fewer items are as cheap one by one, and then nobody waits for strangers.
constexpr std::size_t FewestTogether = 3;
/// What a slow disk writes in a moment. The system counts for all its disks, so there may be less.
constexpr std::int64_t MostUnwrittenKiB = 128 << 10;

/// The number after `name` in the system's table of memory; negative: it tells none.
std::int64_t kibibytesOf(std::string_view table, std::string_view name) {
  auto at = table.find(name);
  if (at == std::string_view::npos)
    return -1;
  at = std::min(table.find_first_not_of(' ', at + name.size()), table.size());
  std::int64_t value = -1;
  std::from_chars(table.data() + at, table.data() + table.size(), value);
  return value;
}

bool littleIsUnwritten() {
  char text[4096];
  const FileDescriptor file(::open("/proc/meminfo", O_RDONLY | O_CLOEXEC));
  const auto length = file ? ::read(file.get(), text, sizeof text) : -1;
  if (length <= 0)
    return false;
  const std::string_view table(text, static_cast<std::size_t>(length));
  const auto dirty = kibibytesOf(table, "\nDirty:"), writing = kibibytesOf(table, "\nWriteback:");
  return dirty >= 0 && writing >= 0 && dirty + writing <= MostUnwrittenKiB;
}

/// Where the order reaches the disk. A file system of another process may keep it to itself.
bool isOnDisk(int file) {
  struct statfs system {};
  if (::fstatfs(file, &system) != 0)
    return false;
  switch (static_cast<unsigned long>(system.f_type)) {
  case EXT4_SUPER_MAGIC: // and its elders
  case XFS_SUPER_MAGIC:
  case BTRFS_SUPER_MAGIC:
  case F2FS_SUPER_MAGIC:
    return true;
  default:
    return false;
  }
}

} // namespace

GroupSync::GroupSync(std::string directory)
    : _path(std::move(directory)), _directory(::open(_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (_directory && !isOnDisk(_directory.get()))
    _directory.close();
}

std::vector<ErrorRef> GroupSync::sync(const std::vector<std::string>& paths) const {
  if (paths.size() >= FewestTogether && syncFileSystem())
    return std::vector<ErrorRef>(paths.size());
  auto items = paths;
  items.push_back(_path);
  auto errors = FileManager::syncItemsAtPaths(items);
  const auto ofNames = std::move(errors.back());
  errors.pop_back();
  for (auto& error : errors)
    if (!error)
      error = ofNames;
  return errors;
}

/// False: it could not be done, or something was not written; whose that was the files tell.
bool GroupSync::syncFileSystem() const {
  // Without a journal the file system's own blocks are written last, behind the flush of the disk's cache:
  // the sync of a directory flushes once more.
  return _directory && littleIsUnwritten() && ::syncfs(_directory.get()) == 0 &&
         ::fsync(_directory.get()) == 0;
}

} // namespace platform
