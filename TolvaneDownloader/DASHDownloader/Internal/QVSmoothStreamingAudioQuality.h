#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVAudioQuality.h"

/// An audio quality made of a Smooth Streaming quality level.
class QVSmoothStreamingAudioQuality final : public QVAudioQuality {
public:
  /// `index`: the level's position in the stream; it must be there.
  static std::shared_ptr<QVSmoothStreamingAudioQuality>
  qualityWithStreamElement(std::shared_ptr<const SmoothStreaming::StreamElement> streamElement,
                           unsigned index, const std::shared_ptr<QVTrack>& parent);

private:
  using QVAudioQuality::QVAudioQuality;
};
