#pragma once

#include "platform/foundation/Error.h"

#include <optional>
#include <string>
#include <string_view>

namespace halvix {

/// File operations on downloaded content. Thread-safe; they block. Paths are absolute; a "file://" URL is
/// taken for its path.
class Utils {
public:
  /// Removes a directory with everything below it. Null on success; fails when nothing is there, when it is
  /// no directory, and for "/" and relative paths.
  static platform::ErrorRef removeFolder(const std::string& path);

  /// Removes a file or a symbolic link. Null on success; fails when nothing is there or it is a directory.
  static platform::ErrorRef removeFile(const std::string& path);

  /// `path` relative to the directory `root`; nothing when it does not stand below it. Works on the text,
  /// after dropping empty and "." components; ".." is never accepted.
  static std::optional<std::string> relativePath(const std::string& path, const std::string& root);

  /// True for a relative path that cannot lead out of the directory it is taken in: not empty, not absolute,
  /// no "..". Symbolic links are not looked at.
  static bool staysBelow(std::string_view relativePath);
};

} // namespace halvix
