#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

class QVMovie;

/// A downloadable presentation, whatever its manifest's format: the root of the tree of movies, tracks and
/// qualities. Owns the movies; dropping it frees the tree, for all references upwards are weak.
///
/// Built on one thread, then only read, from any thread. The one exception is `setUrl`, called by whoever got
/// the playlist from the factory before handing it on.
class QVPlaylist : public std::enable_shared_from_this<QVPlaylist> {
public:
  static std::shared_ptr<QVPlaylist> playlistWithMovies(std::vector<std::shared_ptr<QVMovie>> movies);
  static std::shared_ptr<QVPlaylist> playlistWithMovieCapacity(std::size_t capacity);

  virtual ~QVPlaylist();
  QVPlaylist(const QVPlaylist&) = delete;
  QVPlaylist& operator=(const QVPlaylist&) = delete;

  void addMovie(std::shared_ptr<QVMovie> movie);
  const std::vector<std::shared_ptr<QVMovie>>& movies() const { return _movies; }

  /// The manifest's URL; empty until set.
  const std::string& url() const { return _url; }
  void setUrl(std::string url) { _url = std::move(url); }

  /// Whether the manifest says that the presentation is still going on, so that it lists only a part.
  bool isLive() const { return _isLive; }

protected:
  explicit QVPlaylist(std::vector<std::shared_ptr<QVMovie>> movies);
  /// Only while the tree is built.
  void setLive(bool live) { _isLive = live; }

private:
  std::vector<std::shared_ptr<QVMovie>> _movies;
  std::string _url;
  bool _isLive = false;
};
