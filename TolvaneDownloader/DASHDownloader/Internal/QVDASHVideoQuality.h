#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVVideoQuality.h"

/// A video quality made of a DASH representation.
class QVDASHVideoQuality final : public QVVideoQuality {
public:
  /// `durationUs`: the period's, -1 when unknown.
  static std::shared_ptr<QVDASHVideoQuality>
  qualityWithRepresentation(std::shared_ptr<const mpl::dash::Representation> representation,
                            std::int64_t durationUs, const std::shared_ptr<QVTrack>& parent);

private:
  using QVVideoQuality::QVVideoQuality;
};
