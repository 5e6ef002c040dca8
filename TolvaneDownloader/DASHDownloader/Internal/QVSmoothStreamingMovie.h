#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVMovie.h"

namespace SmoothStreaming {
class Media;
}

/// The movie of a Smooth Streaming manifest, which has one.
class QVSmoothStreamingMovie final : public QVMovie {
public:
  /// Null when the manifest holds no stream.
  static std::shared_ptr<QVSmoothStreamingMovie> movieWithMedia(const SmoothStreaming::Media& manifest,
                                                                const std::shared_ptr<QVPlaylist>& parent);

private:
  using QVMovie::QVMovie;
};
