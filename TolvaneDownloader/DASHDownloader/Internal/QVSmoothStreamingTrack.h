#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"

namespace SmoothStreaming {
class StreamElement;
}

/// A track made of a Smooth Streaming stream and named like it. The manifest does not tell a language.
class QVSmoothStreamingTrack final : public QVTrack {
public:
  /// `duration`: the movie's, in seconds. Null for a stream without a quality.
  static std::shared_ptr<QVSmoothStreamingTrack>
  trackWithStreamElement(const std::shared_ptr<const SmoothStreaming::StreamElement>& streamElement,
                         double duration, const std::shared_ptr<QVMovie>& parent);

private:
  using QVTrack::QVTrack;
};
