#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVCodecPrivateQuality.h"

/// A picture. Described as "<width> x <height> @ <bit rate>". Immutable.
class QVVideoQuality : public QVCodecPrivateQuality {
public:
  /// Raises as QVQuality does.
  static std::shared_ptr<QVVideoQuality>
  qualityWithResourceListBuilder(std::shared_ptr<QVResourceListBuilder> builder,
                                 std::optional<std::string> fourCC, std::string identifier,
                                 std::uint32_t bitrate, std::vector<std::uint8_t> codecPrivateData,
                                 std::uint32_t width, std::uint32_t height, std::uint32_t naluSize,
                                 const std::shared_ptr<QVTrack>& parent);

  std::uint32_t width() const { return _width; }       ///< pixels; 0: unknown
  std::uint32_t height() const { return _height; }     ///< pixels; 0: unknown
  std::uint32_t naluSize() const { return _naluSize; } ///< bytes of a NAL unit's length field; 0: unknown

protected:
  QVVideoQuality(std::shared_ptr<QVResourceListBuilder> builder, std::optional<std::string> fourCC,
                 std::string identifier, std::uint32_t bitrate, std::vector<std::uint8_t> codecPrivateData,
                 std::uint32_t width, std::uint32_t height, std::uint32_t naluSize,
                 const std::shared_ptr<QVTrack>& parent);

private:
  std::uint32_t _width;
  std::uint32_t _height;
  std::uint32_t _naluSize;
};
