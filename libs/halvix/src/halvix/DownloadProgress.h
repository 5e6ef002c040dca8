#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace halvix {

/// Progress of one chosen rendition, for displays with a line each.
struct RenditionProgress {
  std::string trackId;
  std::string renditionId;
  std::string label;
  std::int64_t expectedContentSize = -1;  ///< bytes, -1 unknown; may be an estimate
  std::int64_t downloadedContentSize = 0; ///< bytes
};

/// The measures of a download at one moment. An immutable value: progress is made by replacing it with a
/// copy, so a reader in another thread always holds one consistent set of numbers.
class DownloadProgress {
public:
  using Renditions = std::shared_ptr<const std::vector<RenditionProgress>>;

  std::int64_t expectedContentSize() const { return _expectedSize; }       ///< bytes, -1 unknown
  std::int64_t downloadedContentSize() const { return _downloadedSize; }   ///< bytes
  double expectedContentDuration() const { return _expectedDuration; }     ///< seconds, -1 unknown
  double downloadedContentDuration() const { return _downloadedDuration; } ///< seconds
  /// Mean transfer rate in bytes per second (the name is older than the unit); 0 unknown.
  double averageBitRate() const { return _averageBitRate; }
  /// The fraction that the downloader states, 0 to 1; -1 when it states none.
  double progress() const { return _progress; }
  /// Null when the downloader does not tell renditions apart.
  const Renditions& renditions() const { return _renditions; }

  /// The best fraction to show, 0 to 1: the stated one, else by sizes, else by durations; -1 unknown.
  double fraction() const;

  DownloadProgress copyWithExpectedContentSize(std::int64_t bytes) const;
  DownloadProgress copyWithDownloadedContentSize(std::int64_t bytes) const;
  DownloadProgress copyWithExpectedContentDuration(double seconds) const;
  DownloadProgress copyWithDownloadedContentDuration(double seconds) const;
  DownloadProgress copyWithAverageBitRate(double bytesPerSecond) const;
  DownloadProgress copyWithProgress(double fraction) const;
  DownloadProgress copyWithRenditions(Renditions renditions) const;

private:
  std::int64_t _expectedSize = -1;
  std::int64_t _downloadedSize = 0;
  double _expectedDuration = -1;
  double _downloadedDuration = 0;
  double _averageBitRate = 0;
  double _progress = -1;
  Renditions _renditions;
};

} // namespace halvix
