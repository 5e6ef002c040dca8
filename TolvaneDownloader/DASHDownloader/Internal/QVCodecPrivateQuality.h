#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVQuality.h"

#include <vector>

/// A quality whose decoder needs bytes that the media itself does not carry. Immutable.
class QVCodecPrivateQuality : public QVQuality {
public:
  static std::shared_ptr<QVCodecPrivateQuality>
  qualityWithResourceListBuilder(std::shared_ptr<QVResourceListBuilder> builder, std::string parameters,
                                 std::optional<std::string> fourCC, std::string identifier, QVMediaType type,
                                 std::uint32_t bitrate, std::vector<std::uint8_t> codecPrivateData,
                                 std::weak_ptr<QVTrack> parent);

  /// Empty when the format has none.
  const std::vector<std::uint8_t>& codecPrivateData() const { return _codecPrivateData; }

protected:
  QVCodecPrivateQuality(std::shared_ptr<QVResourceListBuilder> builder, std::string parameters,
                        std::optional<std::string> fourCC, std::string identifier, QVMediaType type,
                        std::uint32_t bitrate, std::vector<std::uint8_t> codecPrivateData,
                        std::weak_ptr<QVTrack> parent);

private:
  std::vector<std::uint8_t> _codecPrivateData;
};
