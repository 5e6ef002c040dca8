#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVMediaType.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class QVPlaylist;
class QVTrack;

/// One continuous piece of a presentation, with its tracks, which it owns. Built on one thread, then only
/// read.
class QVMovie : public std::enable_shared_from_this<QVMovie> {
public:
  /// `duration` in seconds, negative when unknown.
  static std::shared_ptr<QVMovie> movieWithTracks(std::vector<std::shared_ptr<QVTrack>> tracks,
                                                  double duration, std::weak_ptr<QVPlaylist> parent);
  static std::shared_ptr<QVMovie> movieWithTrackCapacity(std::size_t capacity, double duration,
                                                         std::weak_ptr<QVPlaylist> parent);

  virtual ~QVMovie();
  QVMovie(const QVMovie&) = delete;
  QVMovie& operator=(const QVMovie&) = delete;

  void addTrack(std::shared_ptr<QVTrack> track);
  const std::vector<std::shared_ptr<QVTrack>>& tracks() const { return _tracks; }

  /// The tracks of one type, in track order.
  std::vector<std::shared_ptr<QVTrack>> tracksByType(QVMediaType type) const;
  std::vector<std::shared_ptr<QVTrack>> videoTracks() const { return tracksByType(QVMediaTypeVideo); }
  std::vector<std::shared_ptr<QVTrack>> audioTracks() const { return tracksByType(QVMediaTypeAudio); }
  std::vector<std::shared_ptr<QVTrack>> textTracks() const { return tracksByType(QVMediaTypeText); }

  std::shared_ptr<QVPlaylist> parent() const { return _parent.lock(); } ///< null once the playlist is gone
  double duration() const { return _duration; }                         ///< seconds; negative: unknown

  const std::optional<std::string>& name() const { return _name; }
  /// Only while the tree is built.
  void setName(std::optional<std::string> name) { _name = std::move(name); }

protected:
  QVMovie(std::vector<std::shared_ptr<QVTrack>> tracks, double duration, std::weak_ptr<QVPlaylist> parent);

private:
  std::vector<std::shared_ptr<QVTrack>> _tracks;
  std::weak_ptr<QVPlaylist> _parent;
  double _duration;
  std::optional<std::string> _name;
};
