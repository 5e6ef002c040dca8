#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVTextQuality.h"

/// A text quality made of a DASH representation.
class QVDASHTextQuality final : public QVTextQuality {
public:
  /// `durationUs`: the period's, -1 when unknown.
  static std::shared_ptr<QVDASHTextQuality>
  qualityWithRepresentation(std::shared_ptr<const mpl::dash::Representation> representation,
                            std::int64_t durationUs, const std::shared_ptr<QVTrack>& parent);

private:
  using QVTextQuality::QVTextQuality;
};
