#pragma once

#include <cerrno>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace platform {

/// Owns a file descriptor; a negative one stands for none. Errors stay in errno. For one thread at a time.
class FileDescriptor {
public:
  explicit FileDescriptor(int descriptor = -1) : _descriptor(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : _descriptor(std::exchange(other._descriptor, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(_descriptor, other._descriptor);
    return *this;
  }
  ~FileDescriptor() {
    // Keeps the errno of what went wrong before for whoever reports it.
    const int saved = errno;
    close();
    errno = saved;
  }

  explicit operator bool() const { return _descriptor >= 0; }
  int get() const { return _descriptor; }

  /// Closes it and tells whether that worked: some file systems report a failed write only here.
  bool close() { return _descriptor < 0 || ::close(std::exchange(_descriptor, -1)) == 0; }

  /// Writes all bytes, going on after interruptions and short writes. False with errno set on failure, when a
  /// part may have been written.
  bool writeAll(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t count = ::write(_descriptor, bytes.data(), bytes.size());
      if (count < 0 && errno == EINTR)
        continue;
      if (count < 0)
        return false;
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
  }

private:
  int _descriptor;
};

} // namespace platform
