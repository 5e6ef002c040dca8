#include "platform/transfer/internal/OwnerLocks.h"

#include "platform/foundation/FileManager.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#ifndef F_OFD_SETLK
#define F_OFD_GETLK 36
#define F_OFD_SETLK 37
#endif

namespace platform::transfer {

namespace {

// A holder locks the whole file. Who sweeps locks another byte than the one that is asked about, so that the
// dead do not look alive while they are swept away.
constexpr off_t AskedByte = 0;
constexpr off_t SweptByte = 1;

struct flock lockOf(off_t start, off_t length) {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = start;
  lock.l_len = length;
  return lock;
}

struct flock wholeFile() {
  return lockOf(0, 0);
}

} // namespace

OwnerLocks::Lock::~Lock() {
  ::close(_descriptor);
}

std::unique_ptr<OwnerLocks::Lock> OwnerLocks::take(const std::string& owner, int* holder,
                                                   int* failure) const {
  const auto path = pathOf(owner);
  *holder = *failure = 0;
  for (;;) {
    int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (descriptor < 0) {
      *failure = errno;
      return nullptr;
    }
    auto lock = wholeFile();
    if (::fcntl(descriptor, F_OFD_SETLK, &lock) != 0) {
      char text[32] = {};
      if (::pread(descriptor, text, sizeof text - 1, 0) > 0)
        *holder = std::atoi(text);
      ::close(descriptor);
      return nullptr;
    }
    // The file may have been swept between opening and locking; then the lock guards nothing.
    struct stat held {
    }, named{};
    if (::fstat(descriptor, &held) != 0 || ::stat(path.c_str(), &named) != 0 || held.st_ino != named.st_ino) {
      ::close(descriptor);
      continue;
    }
    auto text = std::to_string(::getpid()) + "\n";
    if (::ftruncate(descriptor, 0) != 0 ||
        ::pwrite(descriptor, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
      // The number only serves a message; the lock stands without it.
    }
    return std::unique_ptr<Lock>(new Lock(descriptor, owner));
  }
}

bool OwnerLocks::isHeld(const std::string& owner) const {
  if (owner.empty())
    return false;
  int descriptor = ::open(pathOf(owner).c_str(), O_RDWR | O_CLOEXEC);
  if (descriptor < 0)
    return errno != ENOENT;
  auto lock = lockOf(AskedByte, 1);
  bool held = ::fcntl(descriptor, F_OFD_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
  ::close(descriptor);
  return held;
}

void OwnerLocks::sweep(const std::string& prefix, std::chrono::seconds age) const {
  const std::int64_t oldest = std::time(nullptr) - age.count();
  for (const auto& name : FileManager::contentsOfDirectoryAtPath(_directory)) {
    if (!name.starts_with(prefix) || !name.ends_with(".lock"))
      continue;
    // Written when it was taken last.
    auto attributes = FileManager::attributesOfItemAtPath(_directory + "/" + name);
    if (!attributes || attributes->modifiedSeconds > oldest)
      continue;
    const auto path = _directory + "/" + name;
    const int descriptor = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    auto lock = lockOf(SweptByte, 1);
    struct stat held {
    }, named{};
    if (descriptor >= 0 && ::fcntl(descriptor, F_OFD_SETLK, &lock) == 0 && ::fstat(descriptor, &held) == 0 &&
        ::stat(path.c_str(), &named) == 0 && held.st_ino == named.st_ino)
      ::unlink(path.c_str());
    if (descriptor >= 0)
      ::close(descriptor);
  }
}

} // namespace platform::transfer
