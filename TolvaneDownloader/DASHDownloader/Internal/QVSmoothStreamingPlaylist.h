#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylist.h"

namespace SmoothStreaming {
class Media;
}

/// A playlist made of a Smooth Streaming manifest.
class QVSmoothStreamingPlaylist final : public QVPlaylist {
public:
  /// Never null; without a movie when the manifest holds no stream. `manifest` may go afterwards.
  static std::shared_ptr<QVSmoothStreamingPlaylist>
  playlistWithManifest(const SmoothStreaming::Media& manifest);

private:
  using QVPlaylist::QVPlaylist;
};
