#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylist.h"

QVPlaylist::QVPlaylist(std::vector<std::shared_ptr<QVMovie>> movies) : _movies(std::move(movies)) {}
QVPlaylist::~QVPlaylist() = default;

std::shared_ptr<QVPlaylist> QVPlaylist::playlistWithMovies(std::vector<std::shared_ptr<QVMovie>> movies) {
  return std::shared_ptr<QVPlaylist>(new QVPlaylist(std::move(movies)));
}

std::shared_ptr<QVPlaylist> QVPlaylist::playlistWithMovieCapacity(std::size_t capacity) {
  auto playlist = playlistWithMovies({});
  playlist->_movies.reserve(capacity);
  return playlist;
}

void QVPlaylist::addMovie(std::shared_ptr<QVMovie> movie) {
  _movies.push_back(std::move(movie));
}
