#include "TolvaneDownloader/DASHDownloader/Internal/QVCodecPrivateQuality.h"

QVCodecPrivateQuality::QVCodecPrivateQuality(std::shared_ptr<QVResourceListBuilder> builder,
                                             std::string parameters, std::optional<std::string> fourCC,
                                             std::string identifier, QVMediaType type, std::uint32_t bitrate,
                                             std::vector<std::uint8_t> codecPrivateData,
                                             std::weak_ptr<QVTrack> parent)
    : QVQuality(std::move(builder), std::move(parameters), std::move(fourCC), std::move(identifier), type,
                bitrate, std::move(parent)),
      _codecPrivateData(std::move(codecPrivateData)) {}

std::shared_ptr<QVCodecPrivateQuality> QVCodecPrivateQuality::qualityWithResourceListBuilder(
    std::shared_ptr<QVResourceListBuilder> builder, std::string parameters, std::optional<std::string> fourCC,
    std::string identifier, QVMediaType type, std::uint32_t bitrate,
    std::vector<std::uint8_t> codecPrivateData, std::weak_ptr<QVTrack> parent) {
  return std::shared_ptr<QVCodecPrivateQuality>(new QVCodecPrivateQuality(
      std::move(builder), std::move(parameters), std::move(fourCC), std::move(identifier), type, bitrate,
      std::move(codecPrivateData), std::move(parent)));
}
