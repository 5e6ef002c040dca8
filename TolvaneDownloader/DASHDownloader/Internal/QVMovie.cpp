#include "TolvaneDownloader/DASHDownloader/Internal/QVMovie.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"

QVMovie::QVMovie(std::vector<std::shared_ptr<QVTrack>> tracks, double duration,
                 std::weak_ptr<QVPlaylist> parent)
    : _tracks(std::move(tracks)), _parent(std::move(parent)), _duration(duration) {}
QVMovie::~QVMovie() = default;

std::shared_ptr<QVMovie> QVMovie::movieWithTracks(std::vector<std::shared_ptr<QVTrack>> tracks,
                                                  double duration, std::weak_ptr<QVPlaylist> parent) {
  return std::shared_ptr<QVMovie>(new QVMovie(std::move(tracks), duration, std::move(parent)));
}

std::shared_ptr<QVMovie> QVMovie::movieWithTrackCapacity(std::size_t capacity, double duration,
                                                         std::weak_ptr<QVPlaylist> parent) {
  auto movie = movieWithTracks({}, duration, std::move(parent));
  movie->_tracks.reserve(capacity);
  return movie;
}

void QVMovie::addTrack(std::shared_ptr<QVTrack> track) {
  _tracks.push_back(std::move(track));
}

std::vector<std::shared_ptr<QVTrack>> QVMovie::tracksByType(QVMediaType type) const {
  std::vector<std::shared_ptr<QVTrack>> tracks;
  for (const auto& track : _tracks)
    if (track->type() == type)
      tracks.push_back(track);
  return tracks;
}
