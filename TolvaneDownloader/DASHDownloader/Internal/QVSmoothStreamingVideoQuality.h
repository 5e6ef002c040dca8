#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVVideoQuality.h"

/// A video quality made of a Smooth Streaming quality level.
class QVSmoothStreamingVideoQuality final : public QVVideoQuality {
public:
  /// `index`: the level's position in the stream; it must be there.
  static std::shared_ptr<QVSmoothStreamingVideoQuality>
  qualityWithStreamElement(std::shared_ptr<const SmoothStreaming::StreamElement> streamElement,
                           unsigned index, const std::shared_ptr<QVTrack>& parent);

private:
  using QVVideoQuality::QVVideoQuality;
};
