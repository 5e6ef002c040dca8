#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVTextQuality.h"

/// A text quality made of a Smooth Streaming quality level.
class QVSmoothStreamingTextQuality final : public QVTextQuality {
public:
  /// `index`: the level's position in the stream; it must be there.
  static std::shared_ptr<QVSmoothStreamingTextQuality>
  qualityWithStreamElement(std::shared_ptr<const SmoothStreaming::StreamElement> streamElement,
                           unsigned index, const std::shared_ptr<QVTrack>& parent);

private:
  using QVTextQuality::QVTextQuality;
};
