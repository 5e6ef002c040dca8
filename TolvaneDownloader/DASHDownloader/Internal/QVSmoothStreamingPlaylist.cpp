#include "TolvaneDownloader/DASHDownloader/Internal/QVSmoothStreamingPlaylist.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVBindingExceptions.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVManifestDocument.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylistFactory.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVSmoothStreamingMovie.h"
#include "mpl/smoothstreaming/Media.h"

std::shared_ptr<QVSmoothStreamingPlaylist>
QVSmoothStreamingPlaylist::playlistWithManifest(const SmoothStreaming::Media& manifest) {
  std::vector<std::shared_ptr<QVMovie>> movies;
  movies.reserve(1);
  std::shared_ptr<QVSmoothStreamingPlaylist> playlist(new QVSmoothStreamingPlaylist(std::move(movies)));
  playlist->setLive(manifest.isLive());
  if (auto movie = QVSmoothStreamingMovie::movieWithMedia(manifest, playlist))
    playlist->addMovie(std::move(movie));
  return playlist;
}

std::shared_ptr<QVPlaylist>
QVPlaylistFactory::smoothGenerateWithDocument(const QVManifestDocument& document) {
  return QVTranslateExceptions([&document] {
    if (document.root().isNull())
      throw platform::Exception("QVPlaylistFactoryException", "Can't parse SmoothStreaming XML");
    return QVSmoothStreamingPlaylist::playlistWithManifest(SmoothStreaming::Media(document.root()));
  });
}
