#pragma once

#include "halvix/Tracks.h"

#include <functional>
#include <memory>
#include <string>

class QVMovie;
class QVQuality;

/// What is known of a quality beyond its description.
struct QualityState {
  std::int64_t expectedBytes = -1; ///< -1 unknown
  bool downloaded = false;
};
using QualityStateProvider = std::function<QualityState(const std::shared_ptr<QVQuality>& quality)>;

/// A movie in the host's terms: a video track with a rendition for each quality, the same for sound, and a
/// text track for each quality of text. `state` may be null.
halvix::Tracks describeTracks(const QVMovie& movie, const QualityStateProvider& state);

/// A short name for a display line: "video 720p", "audio en", "text de".
std::string displayLabel(const QVQuality& quality);

/// What a quality takes by its bit rate and its track's duration, in bytes; -1 when one of them is unknown.
std::int64_t nominalBytes(const QVQuality& quality);
