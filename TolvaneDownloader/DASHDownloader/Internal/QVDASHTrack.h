#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"

#include <cstdint>

namespace mpl::dash {
class AdaptationSet;
}

/// A track made of a DASH adaptation set, named "<id> [<mime type>]".
class QVDASHTrack final : public QVTrack {
public:
  /// `durationUs`: the period's, -1 when unknown. Null for a set that is neither video, audio nor text, or
  /// that holds no representation.
  static std::shared_ptr<QVDASHTrack> trackWithAdaptationSet(const mpl::dash::AdaptationSet& adaptationSet,
                                                             std::int64_t durationUs,
                                                             const std::shared_ptr<QVMovie>& parent);

private:
  using QVTrack::QVTrack;
};
