#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"

QVTrack::QVTrack(QVMediaType type, double duration, std::string name, std::optional<std::string> language,
                 std::vector<std::shared_ptr<QVQuality>> qualities, std::weak_ptr<QVMovie> parent)
    : _qualities(std::move(qualities)), _parent(std::move(parent)), _type(type), _duration(duration),
      _name(std::move(name)), _language(std::move(language)) {}
QVTrack::~QVTrack() = default;

std::shared_ptr<QVTrack> QVTrack::trackWithType(QVMediaType type, double duration, std::string name,
                                                std::optional<std::string> language,
                                                std::vector<std::shared_ptr<QVQuality>> qualities,
                                                std::weak_ptr<QVMovie> parent) {
  return std::shared_ptr<QVTrack>(new QVTrack(type, duration, std::move(name), std::move(language),
                                              std::move(qualities), std::move(parent)));
}

std::shared_ptr<QVTrack> QVTrack::trackWithType(QVMediaType type, double duration, std::string name,
                                                std::optional<std::string> language,
                                                std::size_t qualityCapacity, std::weak_ptr<QVMovie> parent) {
  auto track = trackWithType(type, duration, std::move(name), std::move(language),
                             std::vector<std::shared_ptr<QVQuality>>(), std::move(parent));
  track->_qualities.reserve(qualityCapacity);
  return track;
}

void QVTrack::addQuality(std::shared_ptr<QVQuality> quality) {
  _qualities.push_back(std::move(quality));
}
