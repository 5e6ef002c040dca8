#include "TolvaneDownloader/DASHDownloader/Internal/QVSmoothStreamingMovie.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVSmoothStreamingTrack.h"
#include "mpl/smoothstreaming/Media.h"

#include <cmath>
#include <cstdint>

namespace {

/// As a count of units, which is never negative.
double units(std::int64_t value) {
  return static_cast<double>(static_cast<std::uint64_t>(value));
}

double secondsOf(const SmoothStreaming::Media& manifest) {
  const double seconds = units(manifest.duration()) / units(manifest.timeScale());
  return std::isfinite(seconds) ? seconds : -1; // a time scale of 0 tells no duration
}

} // namespace

std::shared_ptr<QVSmoothStreamingMovie>
QVSmoothStreamingMovie::movieWithMedia(const SmoothStreaming::Media& manifest,
                                       const std::shared_ptr<QVPlaylist>& parent) {
  const auto& streamElements = manifest.streamElements();
  if (streamElements.empty())
    return nullptr;
  const double duration = secondsOf(manifest);
  std::vector<std::shared_ptr<QVTrack>> tracks;
  tracks.reserve(streamElements.size());
  std::shared_ptr<QVSmoothStreamingMovie> movie(
      new QVSmoothStreamingMovie(std::move(tracks), duration, parent));
  for (const auto& streamElement : streamElements)
    if (auto track = QVSmoothStreamingTrack::trackWithStreamElement(streamElement, duration, movie))
      movie->addTrack(std::move(track));
  return movie;
}
