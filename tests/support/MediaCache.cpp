#include "tests/support/MediaCache.h"

#include <fcntl.h>
#include <stdexcept>
#include <sys/file.h>
#include <unistd.h>

namespace support {

namespace fs = std::filesystem;

namespace {

/// Held by the process that makes a presentation; the others wait for it.
class FileLock {
public:
  explicit FileLock(const std::string& path)
      : _file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    if (_file < 0 || ::flock(_file, LOCK_EX) != 0)
      throw std::runtime_error("cannot lock " + path);
  }
  ~FileLock() { ::close(_file); }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

private:
  const int _file;
};

} // namespace

std::string cachedMedia(const std::string& name,
                        const std::function<fs::path(const fs::path& directory)>& make) {
  const fs::path cache = TEST_MEDIA_DIRECTORY;
  const fs::path target = cache / name;
  fs::create_directories(cache);
  const FileLock lock(target.string() + ".lock");
  if (!fs::exists(target)) {
    const fs::path unfinished = target.string() + ".unfinished";
    fs::remove_all(unfinished);
    fs::create_directories(unfinished);
    fs::rename(make(unfinished), target);
    fs::remove_all(unfinished);
  }
  return target.string();
}

} // namespace support
