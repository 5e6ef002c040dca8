#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

/// What stood below a directory at one moment, from a single walk: a set asks for the total size and then for
/// tens of thousands of single files. What it tells of is there to stay: its directory is synced. Links are
/// not followed; what cannot be read or synced counts as absent. A value.
class QVDirectorySnapshot {
public:
  /// Walks the directory; a missing one is empty.
  explicit QVDirectorySnapshot(const std::string& path);

  /// Sum of the sizes of every entry below the directory, directories included.
  std::int64_t totalSize() const { return _totalSize; }

  bool hasFiles() const { return !_files.empty(); }

  /// Size of a regular file, by its path relative to the directory; nothing when there is none.
  std::optional<std::int64_t> sizeOfFile(std::string_view relativePath) const;

private:
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
  };

  void walk(int directory, std::string& prefix, int depth);

  std::int64_t _totalSize = 0;
  std::unordered_map<std::string, std::int64_t, Hash, std::equal_to<>> _files;
};
