#include "TolvaneDownloader/DASHDownloader/Internal/QVDASHMovie.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVDASHTrack.h"
#include "mpl/dash/Period.h"

std::shared_ptr<QVDASHMovie> QVDASHMovie::movieWithPeriod(const mpl::dash::Period& period,
                                                          std::int64_t durationUs,
                                                          const std::shared_ptr<QVPlaylist>& parent) {
  const auto& adaptationSets = period.adaptationSets();
  std::vector<std::shared_ptr<QVTrack>> tracks;
  tracks.reserve(adaptationSets.size());
  std::shared_ptr<QVDASHMovie> movie(
      new QVDASHMovie(std::move(tracks), static_cast<double>(durationUs) / 1e6, parent));
  for (const auto& adaptationSet : adaptationSets)
    if (auto track = QVDASHTrack::trackWithAdaptationSet(*adaptationSet, durationUs, movie))
      movie->addTrack(std::move(track));
  return movie->tracks().empty() ? nullptr : movie;
}
