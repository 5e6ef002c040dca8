#include "TolvaneDownloader/DASHDownloader/Internal/QVAudioQuality.h"

QVAudioQuality::QVAudioQuality(std::shared_ptr<QVResourceListBuilder> builder,
                               std::optional<std::string> fourCC, std::string identifier,
                               std::uint32_t bitrate, std::vector<std::uint8_t> codecPrivateData,
                               std::uint32_t channels, std::uint32_t sampleRate, std::uint32_t bitsPerSample,
                               const std::shared_ptr<QVTrack>& parent)
    : QVCodecPrivateQuality(std::move(builder),
                            languageName(parent).value_or("Unknown") + ' ' + kiloText(sampleRate, "kHZ") +
                                ", " + std::to_string(channels) + " ch @ " + bitrateText(bitrate) + '\t',
                            std::move(fourCC), std::move(identifier), QVMediaTypeAudio, bitrate,
                            std::move(codecPrivateData), parent),
      _channels(channels), _sampleRate(sampleRate), _bitsPerSample(bitsPerSample) {}

std::shared_ptr<QVAudioQuality> QVAudioQuality::qualityWithResourceListBuilder(
    std::shared_ptr<QVResourceListBuilder> builder, std::optional<std::string> fourCC, std::string identifier,
    std::uint32_t bitrate, std::vector<std::uint8_t> codecPrivateData, std::uint32_t channels,
    std::uint32_t sampleRate, std::uint32_t bitsPerSample, const std::shared_ptr<QVTrack>& parent) {
  return std::shared_ptr<QVAudioQuality>(
      new QVAudioQuality(std::move(builder), std::move(fourCC), std::move(identifier), bitrate,
                         std::move(codecPrivateData), channels, sampleRate, bitsPerSample, parent));
}
