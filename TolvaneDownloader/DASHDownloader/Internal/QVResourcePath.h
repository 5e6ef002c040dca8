#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The place of a set's resource files: below one directory, each under the text of its reference URL.
///
/// A manifest may name anything. Absolute URLs, rooted paths and queries are ordinary and stand below the
/// directory under their text; what would leave the directory, or stand on top of the set's own files, has no
/// place. Immutable, shared by all resources of a set.
class QVResourceDirectory {
public:
  /// `ownFiles`: names directly in the directory that belong to the set itself.
  QVResourceDirectory(std::string path, std::vector<std::string> ownFiles);

  const std::string& path() const { return _path; }

  /// Path of a resource's file relative to the directory: dot segments and doubled slashes resolved, long
  /// components shortened. Nothing when it has no place; `reason`, if given, then tells why.
  std::optional<std::string> relativePath(std::string_view referenceURL, std::string* reason = nullptr) const;

private:
  const std::string _path;
  const std::vector<std::string> _ownFiles;
};

/// `component` itself when a file system takes it as a name (255 bytes). Else its head, "~", the 16 hex
/// digits of its string hash and its extension (at most 16 bytes, without a query): the same name for the
/// same component, always. No UTF-8 sequence is cut.
std::string QVShortenedPathComponent(std::string_view component);
