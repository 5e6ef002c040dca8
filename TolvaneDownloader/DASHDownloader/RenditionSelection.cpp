#include "TolvaneDownloader/DASHDownloader/RenditionSelection.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVMovie.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadSet.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVQualityDownloadInfo.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"

#include "halvix/Download.h"

#include <algorithm>

namespace {

using Tracks = std::vector<std::shared_ptr<QVTrack>>;

template <class Matches>
void selectWhere(QVMovieDownloadSet& set, const Tracks& tracks, const Matches& matches,
                 QVQualityList& chosen) {
  for (const auto& track : tracks)
    for (const auto& quality : track->qualities())
      if (matches(*track, *quality)) {
        set.selectQuality(quality);
        chosen.push_back(quality);
      }
}

} // namespace

QVQualityList selectRenditions(QVMovieDownloadSet& set, const halvix::Download& download) {
  QVQualityList chosen;
  const QVMovie& movie = *set.movie();
  auto sameEncoding = [](const halvix::Rendition& rendition) {
    return [&rendition](const QVTrack&, const QVQuality& quality) {
      return quality.bitrate() == rendition.bitrate && quality.parameters() == rendition.codec;
    };
  };
  for (const auto& rendition : download.selectedVideoRenditions())
    selectWhere(set, movie.videoTracks(), sameEncoding(rendition), chosen);
  for (const auto& rendition : download.selectedAudioRenditions())
    selectWhere(set, movie.audioTracks(), sameEncoding(rendition), chosen);
  for (const auto& text : download.selectedTextTracks())
    selectWhere(
        set, movie.textTracks(),
        [&text](const QVTrack& track, const QVQuality& quality) {
          return track.language().value_or("") == text.language && quality.parameters() == text.source;
        },
        chosen);
  return chosen;
}

bool allDownloaded(const QVMovieDownloadSet& set, const QVQualityList& qualities) {
  return std::all_of(qualities.begin(), qualities.end(),
                     [&set](const auto& quality) { return set.isQualityDownloaded(quality); });
}

bool downloadedNothing(const QVMovieDownloadSet& set, const QVQualityList& qualities) {
  const auto downloaded = set.downloadedQualitiesInfo();
  return std::all_of(downloaded.begin(), downloaded.end(), [&qualities](const auto& info) {
    return info->resources().empty() ||
           std::find(qualities.begin(), qualities.end(), info->quality()) == qualities.end();
  });
}

platform::ErrorRef unfetchableError(const QVMovieDownloadSet& set, const QVQualityList& qualities) {
  for (const auto& info : set.selectedQualitiesInfo())
    if (std::find(qualities.begin(), qualities.end(), info->quality()) != qualities.end())
      if (auto error = info->error())
        return error;
  return nullptr;
}
