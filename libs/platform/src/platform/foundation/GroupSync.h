#pragma once

#include "platform/foundation/Error.h"
#include "platform/foundation/FileDescriptor.h"

#include <string>
#include <vector>

namespace platform {

/// Puts many small files on stable storage together, with the directories that name them. One order to the
/// file system costs a fraction of an order for each file, but writes whatever else waits there: it is given
/// while that is little, on the file systems of disks; otherwise each item is synced by itself.
///
/// Thread-safe.
class GroupSync {
public:
  /// For items on the file system of `directory`, which must exist. Make it before the files are written: it
  /// learns of writings that fail from then on.
  explicit GroupSync(const std::string& directory);

  /// Returns when all are on stable storage; the first error. What is gone is none, with what was in it.
  ErrorRef sync(const std::vector<std::string>& files, const std::vector<std::string>& directories) const;

private:
  bool syncFileSystem(const std::vector<std::string>& directories) const;

  FileDescriptor _directory; ///< none: always one by one
};

} // namespace platform
