#include "TolvaneDownloader/DASHDownloader/Internal/QVVideoQuality.h"

QVVideoQuality::QVVideoQuality(std::shared_ptr<QVResourceListBuilder> builder,
                               std::optional<std::string> fourCC, std::string identifier,
                               std::uint32_t bitrate, std::vector<std::uint8_t> codecPrivateData,
                               std::uint32_t width, std::uint32_t height, std::uint32_t naluSize,
                               const std::shared_ptr<QVTrack>& parent)
    : QVCodecPrivateQuality(std::move(builder),
                            std::to_string(width) + " x " + std::to_string(height) + " @ " +
                                bitrateText(bitrate),
                            std::move(fourCC), std::move(identifier), QVMediaTypeVideo, bitrate,
                            std::move(codecPrivateData), parent),
      _width(width), _height(height), _naluSize(naluSize) {}

std::shared_ptr<QVVideoQuality> QVVideoQuality::qualityWithResourceListBuilder(
    std::shared_ptr<QVResourceListBuilder> builder, std::optional<std::string> fourCC, std::string identifier,
    std::uint32_t bitrate, std::vector<std::uint8_t> codecPrivateData, std::uint32_t width,
    std::uint32_t height, std::uint32_t naluSize, const std::shared_ptr<QVTrack>& parent) {
  return std::shared_ptr<QVVideoQuality>(
      new QVVideoQuality(std::move(builder), std::move(fourCC), std::move(identifier), bitrate,
                         std::move(codecPrivateData), width, height, naluSize, parent));
}
