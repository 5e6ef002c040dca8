#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVAudioQuality.h"

/// A audio quality made of a DASH representation.
class QVDASHAudioQuality final : public QVAudioQuality {
public:
  /// `durationUs`: the period's, -1 when unknown.
  static std::shared_ptr<QVDASHAudioQuality>
  qualityWithRepresentation(std::shared_ptr<const mpl::dash::Representation> representation,
                            std::int64_t durationUs, const std::shared_ptr<QVTrack>& parent);

private:
  using QVAudioQuality::QVAudioQuality;
};
