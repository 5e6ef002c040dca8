#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylist.h"

namespace mpl::dash {
class MediaPresentationDescription;
}

/// A playlist made of a DASH manifest.
class QVDASHPlaylist final : public QVPlaylist {
public:
  /// Null when no period holds anything that can be downloaded. `manifest` may go afterwards.
  static std::shared_ptr<QVDASHPlaylist>
  playlistWithManifest(const mpl::dash::MediaPresentationDescription& manifest);

private:
  using QVPlaylist::QVPlaylist;
};
