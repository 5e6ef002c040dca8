#pragma once

#include "platform/foundation/FileManager.h"

#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

/// Where the files of a library stand: in one directory, each under its name for people with a mark of its
/// download before the suffix, "movie-3fa9c1d27be0.mp4". So equal names do not meet, and what stands there
/// without a record can be told from what is somebody else's.
///
/// Thread-safe.
class FilePlaces {
public:
  explicit FilePlaces(std::string directory);

  /// Of the file of a download; `name` is one path component.
  std::string path(const std::string& uuid, std::string_view name) const;
  /// The name that was given for a path that stands here.
  static std::string nameOf(const std::string& path);

  struct Left {
    std::string path;
    platform::FileAttributes attributes;
    /// Placed since the system was started, so that no power failure can have taken of it what was not
    /// synced.
    bool isOfThisRunOfTheSystem() const;
  };
  /// The regular files that stand there for a download, whatever name they were given. Only those that an
  /// ended process left: the directory is read once.
  std::vector<Left> leftOf(const std::string& uuid);

private:
  const std::string _directory;
  std::mutex _mutex; ///< of what follows; not held while the directory is read
  bool _isRead = false;
  std::unordered_multimap<std::string, std::string> _left; ///< from mark to name
};
