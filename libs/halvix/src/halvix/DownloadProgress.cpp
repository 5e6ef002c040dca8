#include "halvix/DownloadProgress.h"

#include <algorithm>

namespace halvix {

double DownloadProgress::fraction() const {
  double value = -1;
  if (_progress >= 0)
    value = _progress;
  else if (_expectedSize > 0)
    value = static_cast<double>(_downloadedSize) / static_cast<double>(_expectedSize);
  else if (_expectedDuration > 0)
    value = _downloadedDuration / _expectedDuration;
  return value < 0 ? -1 : std::min(value, 1.0);
}

DownloadProgress DownloadProgress::copyWithExpectedContentSize(std::int64_t bytes) const {
  DownloadProgress copy = *this;
  copy._expectedSize = bytes;
  return copy;
}

DownloadProgress DownloadProgress::copyWithDownloadedContentSize(std::int64_t bytes) const {
  DownloadProgress copy = *this;
  copy._downloadedSize = bytes;
  return copy;
}

DownloadProgress DownloadProgress::copyWithExpectedContentDuration(double seconds) const {
  DownloadProgress copy = *this;
  copy._expectedDuration = seconds;
  return copy;
}

DownloadProgress DownloadProgress::copyWithDownloadedContentDuration(double seconds) const {
  DownloadProgress copy = *this;
  copy._downloadedDuration = seconds;
  return copy;
}

DownloadProgress DownloadProgress::copyWithAverageBitRate(double bytesPerSecond) const {
  DownloadProgress copy = *this;
  copy._averageBitRate = bytesPerSecond;
  return copy;
}

DownloadProgress DownloadProgress::copyWithProgress(double fraction) const {
  DownloadProgress copy = *this;
  copy._progress = fraction;
  return copy;
}

DownloadProgress DownloadProgress::copyWithRenditions(Renditions renditions) const {
  DownloadProgress copy = *this;
  copy._renditions = std::move(renditions);
  return copy;
}

} // namespace halvix
