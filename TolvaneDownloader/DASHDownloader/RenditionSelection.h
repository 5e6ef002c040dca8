#pragma once

#include "platform/foundation/Error.h"

#include <memory>
#include <vector>

namespace halvix {
class Download;
}
class QVMovieDownloadSet;
class QVQuality;

using QVQualityList = std::vector<std::shared_ptr<QVQuality>>;

/// Selects on the set every quality that matches a chosen rendition of the download: by bit rate and
/// description for video and sound, by language and description for text. Answers the qualities that matched,
/// selected now or downloaded before. Raises what the set raises when a run is active.
QVQualityList selectRenditions(QVMovieDownloadSet& set, const halvix::Download& download);

bool allDownloaded(const QVMovieDownloadSet& set, const QVQualityList& qualities);

/// Of qualities that are all downloaded: whether the manifest names no segments for any of them, so that
/// there is nothing to play.
bool downloadedNothing(const QVMovieDownloadSet& set, const QVQualityList& qualities);

/// The error of a set that has nothing left to fetch although some of the qualities could not be had; null
/// when none of them failed. Only while no run is active.
platform::ErrorRef unfetchableError(const QVMovieDownloadSet& set, const QVQualityList& qualities);
