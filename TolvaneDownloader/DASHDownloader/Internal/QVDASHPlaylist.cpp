#include "TolvaneDownloader/DASHDownloader/Internal/QVDASHPlaylist.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVBindingExceptions.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVDASHMovie.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVManifestDocument.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylistFactory.h"
#include "mpl/dash/MediaPresentationDescription.h"

#include <limits>

namespace {

constexpr std::int64_t maximum = std::numeric_limits<std::int64_t>::max();

// A manifest may state any duration; what does not fit stays at the type's limit.

std::int64_t add(std::int64_t a, std::int64_t b) {
  std::int64_t sum = 0;
  return __builtin_add_overflow(a, b, &sum) ? maximum : sum;
}

std::int64_t microseconds(std::int64_t milliseconds) {
  if (milliseconds < 1)
    return milliseconds; // unknown stays the same number
  return milliseconds > maximum / 1000 ? maximum : milliseconds * 1000;
}

/// Durations of the periods in milliseconds, below 1 where nothing tells one: a period's own, else what is
/// left until the next period or the presentation's end.
std::vector<std::int64_t> periodDurations(const mpl::dash::MediaPresentationDescription& manifest) {
  const auto& periods = manifest.periods();
  const std::int64_t total = manifest.mediaPresentationDuration();
  std::vector<std::int64_t> durations;
  durations.reserve(periods.size());
  std::int64_t elapsed = 0; // -1 once a period's end is not known
  for (std::size_t i = 0; i < periods.size(); ++i) {
    std::int64_t duration = periods[i]->duration();
    if (duration < 0 && total >= 1) {
      if (i + 1 < periods.size()) {
        const std::int64_t start = periods[i]->start() < 0 ? elapsed : periods[i]->start();
        const std::int64_t next = periods[i + 1]->start();
        if (start >= 0 && next >= 1 && next > start)
          duration = next - start;
      } else if (total > elapsed) {
        duration = elapsed < 0 ? add(total, -elapsed) : total - elapsed;
      }
    }
    if (duration < 1)
      elapsed = -1;
    else if (elapsed != -1)
      elapsed = add(elapsed, duration);
    durations.push_back(duration);
  }
  return durations;
}

} // namespace

std::shared_ptr<QVDASHPlaylist>
QVDASHPlaylist::playlistWithManifest(const mpl::dash::MediaPresentationDescription& manifest) {
  const auto& periods = manifest.periods();
  std::vector<std::shared_ptr<QVMovie>> movies;
  movies.reserve(periods.size());
  std::shared_ptr<QVDASHPlaylist> playlist(new QVDASHPlaylist(std::move(movies)));
  const auto durations = periodDurations(manifest);
  for (std::size_t i = 0; i < periods.size(); ++i)
    if (auto movie = QVDASHMovie::movieWithPeriod(*periods[i], microseconds(durations[i]), playlist))
      playlist->addMovie(std::move(movie));
  return playlist->movies().empty() ? nullptr : playlist;
}

std::shared_ptr<QVPlaylist> QVPlaylistFactory::dashGenerateWithDocument(const QVManifestDocument& document) {
  return QVTranslateExceptions([&document] {
    // Without a manifest URL: the tree outlives the place that it was fetched from, so relative references
    // stay relative and are read against whatever base a listing gives.
    const auto manifest = mpl::dash::MediaPresentationDescription::parse(document.root(), qvc::FastString());
    return QVDASHPlaylist::playlistWithManifest(*manifest);
  });
}
