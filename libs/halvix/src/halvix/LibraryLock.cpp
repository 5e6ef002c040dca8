#include "halvix/LibraryLock.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace halvix {

namespace {

std::string pathIn(const std::string& directory) {
  return directory + "/" + LibraryLock::fileName;
}

struct flock wholeFile() {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return lock;
}

// An owner that has only just taken the lock may not have written its id yet, and what stands there is then
// an older owner's: an id is believed only while its process lives.
std::optional<long> ownerIn(int descriptor) {
  char text[32] = {};
  const ssize_t count = ::pread(descriptor, text, sizeof text - 1, 0);
  const long pid = count > 0 ? std::strtol(text, nullptr, 10) : 0;
  if (pid <= 0 || (::kill(static_cast<pid_t>(pid), 0) != 0 && errno != EPERM))
    return std::nullopt;
  return pid;
}

} // namespace

// A lock of the open file rather than of the process: it excludes a second opener in this process too,
// closing an unrelated descriptor of the file does not end it, and others can ask for it without taking it.
std::unique_ptr<LibraryLock> LibraryLock::acquire(const std::string& libraryDirectory, QVErrorRef* error) {
  const std::string path = pathIn(libraryDirectory);
  auto fail = [&](ErrorType type, const std::string& message, int code) {
    QVErrorBuilder builder(type);
    builder.message(message);
    if (code)
      builder.parent(platform::makePOSIXError(code, path));
    if (error)
      *error = builder.build();
  };
  const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (descriptor < 0) {
    fail(ErrorType::library_unavailable, "the library \"" + libraryDirectory + "\" cannot be used", errno);
    return nullptr;
  }
  std::unique_ptr<LibraryLock> lock(new LibraryLock(descriptor));
  struct flock request = wholeFile();
  if (::fcntl(descriptor, F_OFD_SETLK, &request) != 0) {
    const int code = errno;
    if (code == EAGAIN || code == EACCES) {
      const auto owner = ownerIn(descriptor);
      fail(ErrorType::library_locked,
           "the library \"" + libraryDirectory + "\" is in use by " +
               (owner ? "process " + std::to_string(*owner) : std::string("another process")),
           0);
    } else {
      fail(ErrorType::library_unavailable, "the library \"" + libraryDirectory + "\" cannot be locked", code);
    }
    ::close(descriptor);
    lock->_descriptor = -1;
    return nullptr;
  }
  // The id serves messages only, so failing to write it fails nothing.
  const std::string pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(descriptor, 0) == 0)
    (void)!::pwrite(descriptor, pid.data(), pid.size(), 0);
  return lock;
}

bool LibraryLock::isHeld(const std::string& libraryDirectory) {
  const int descriptor = ::open(pathIn(libraryDirectory).c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0)
    return false;
  struct flock request = wholeFile();
  const bool held = ::fcntl(descriptor, F_OFD_GETLK, &request) == 0 && request.l_type != F_UNLCK;
  ::close(descriptor);
  return held;
}

LibraryLock::~LibraryLock() {
  if (_descriptor < 0)
    return;
  (void)!::ftruncate(_descriptor, 0);
  ::close(_descriptor);
}

} // namespace halvix
