#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVMediaType.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class QVMovie;
class QVQuality;

/// One stream of a movie (a picture, a language of sound, a subtitle) in several qualities, which it owns.
/// Built on one thread, then only read.
class QVTrack : public std::enable_shared_from_this<QVTrack> {
public:
  /// `duration` in seconds, negative when unknown; `language` an ISO 639 code as the manifest writes it.
  static std::shared_ptr<QVTrack> trackWithType(QVMediaType type, double duration, std::string name,
                                                std::optional<std::string> language,
                                                std::vector<std::shared_ptr<QVQuality>> qualities,
                                                std::weak_ptr<QVMovie> parent);
  /// The same without qualities yet, with room for `qualityCapacity` of them.
  static std::shared_ptr<QVTrack> trackWithType(QVMediaType type, double duration, std::string name,
                                                std::optional<std::string> language,
                                                std::size_t qualityCapacity, std::weak_ptr<QVMovie> parent);

  virtual ~QVTrack();
  QVTrack(const QVTrack&) = delete;
  QVTrack& operator=(const QVTrack&) = delete;

  void addQuality(std::shared_ptr<QVQuality> quality);
  const std::vector<std::shared_ptr<QVQuality>>& qualities() const { return _qualities; }

  std::shared_ptr<QVMovie> parent() const { return _parent.lock(); } ///< null once the playlist is gone
  QVMediaType type() const { return _type; }
  double duration() const { return _duration; } ///< seconds; negative: unknown
  const std::string& name() const { return _name; }
  const std::optional<std::string>& language() const { return _language; }

protected:
  QVTrack(QVMediaType type, double duration, std::string name, std::optional<std::string> language,
          std::vector<std::shared_ptr<QVQuality>> qualities, std::weak_ptr<QVMovie> parent);

private:
  std::vector<std::shared_ptr<QVQuality>> _qualities;
  std::weak_ptr<QVMovie> _parent;
  QVMediaType _type;
  double _duration;
  std::string _name;
  std::optional<std::string> _language;
};
