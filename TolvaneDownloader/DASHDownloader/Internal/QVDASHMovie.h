#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVMovie.h"

#include <cstdint>

namespace mpl::dash {
class Period;
}

/// A movie made of a DASH period.
class QVDASHMovie final : public QVMovie {
public:
  /// `durationUs`: -1 when unknown. Null when no adaptation set gives a track.
  static std::shared_ptr<QVDASHMovie> movieWithPeriod(const mpl::dash::Period& period,
                                                      std::int64_t durationUs,
                                                      const std::shared_ptr<QVPlaylist>& parent);

private:
  using QVMovie::QVMovie;
};
