#pragma once

#include "platform/foundation/Error.h"
#include "platform/foundation/FileDescriptor.h"

#include <string>
#include <vector>

namespace platform {

/// Puts many small files of a directory on stable storage together, with their names. One order to the file
/// system costs a fraction of an order for each file, but writes whatever else waits there: it is given
/// while that is little, on the file systems of disks; otherwise each item is synced by itself.
///
/// Thread-safe.
class GroupSync {
public:
  /// The directory must exist. Make it before the files are written: it learns of writings that fail from
  /// then on.
  explicit GroupSync(std::string directory);

  /// Returns when all are on stable storage, with the error of each; that it is gone is none. An error is
  /// told once: what such a file holds is lost.
  std::vector<ErrorRef> sync(const std::vector<std::string>& paths) const;

private:
  bool syncFileSystem() const;

  const std::string _path;
  FileDescriptor _directory; ///< none: always one by one
};

} // namespace platform
