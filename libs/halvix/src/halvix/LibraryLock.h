#pragma once

#include "halvix/QVError.h"

#include <memory>
#include <optional>
#include <string>

namespace halvix {

/// The right to write one library, held by one opener at a time.
///
/// A lock of the operating system on the file "halvix.lock", which also holds the owner's process id for
/// messages. It ends with the object or with the process, however that ends; the file stays.
class LibraryLock {
public:
  static constexpr const char* fileName = "halvix.lock";

  /// Null with `error` set: `library_locked` when somebody holds it (the text names the process),
  /// `library_unavailable` when the file cannot be made. The directory must be there.
  static std::unique_ptr<LibraryLock> acquire(const std::string& libraryDirectory, QVErrorRef* error);

  /// True when some process, maybe this one, holds the lock now. Never takes it, not even for a moment.
  static bool isHeld(const std::string& libraryDirectory);

  ~LibraryLock();
  LibraryLock(const LibraryLock&) = delete;
  LibraryLock& operator=(const LibraryLock&) = delete;

private:
  explicit LibraryLock(int descriptor) : _descriptor(descriptor) {}
  int _descriptor;
};

} // namespace halvix
