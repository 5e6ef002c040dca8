#pragma once

#include "platform/foundation/Error.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace platform {

/// What stands in a package on disk, read without a network. Plain values.
struct AssetPackage {
  struct Stream {
    std::string kind;     ///< "video", "audio", "text"
    std::string name;     ///< the playlist's name for the rendition; empty for the variant
    std::string language; ///< empty: not told
    std::string playlist; ///< path below the package
    bool complete = false;
    double duration = 0;              ///< seconds that the playlist claims
    std::int64_t bytes = 0;           ///< of the files that the playlist names, as found
    std::vector<std::string> files;   ///< that the playlist names, below the package
    std::vector<std::string> damaged; ///< of these, missing or of another size than was stored
  };

  std::string path;
  std::string url; ///< of the asset
  std::string title;
  bool complete = false; ///< everything that was selected was fetched, as the state file tells
  std::vector<Stream> streams;

  /// True when everything that the package claims to hold is there.
  bool isIntact() const;

  /// Reads the package in a directory, its playlists and the sizes of its files. Nothing with `error` set
  /// when there is none, or one of a newer version.
  static std::optional<AssetPackage> packageAtPath(const std::string& path, ErrorRef* error = nullptr);

  /// The local master playlist of a package: what a player opens.
  static std::string masterPlaylistPath(const std::string& packagePath);
};

} // namespace platform
