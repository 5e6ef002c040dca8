#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVCodecPrivateQuality.h"

/// Sound. Described by language, sample rate, channels and bit rate. Immutable.
class QVAudioQuality : public QVCodecPrivateQuality {
public:
  /// Raises as QVQuality does. The language in the description is the parent's.
  static std::shared_ptr<QVAudioQuality>
  qualityWithResourceListBuilder(std::shared_ptr<QVResourceListBuilder> builder,
                                 std::optional<std::string> fourCC, std::string identifier,
                                 std::uint32_t bitrate, std::vector<std::uint8_t> codecPrivateData,
                                 std::uint32_t channels, std::uint32_t sampleRate,
                                 std::uint32_t bitsPerSample, const std::shared_ptr<QVTrack>& parent);

  std::uint32_t channels() const { return _channels; }
  std::uint32_t sampleRate() const { return _sampleRate; } ///< Hz; 0: unknown
  std::uint32_t bitsPerSample() const { return _bitsPerSample; }

protected:
  QVAudioQuality(std::shared_ptr<QVResourceListBuilder> builder, std::optional<std::string> fourCC,
                 std::string identifier, std::uint32_t bitrate, std::vector<std::uint8_t> codecPrivateData,
                 std::uint32_t channels, std::uint32_t sampleRate, std::uint32_t bitsPerSample,
                 const std::shared_ptr<QVTrack>& parent);

private:
  std::uint32_t _channels;
  std::uint32_t _sampleRate;
  std::uint32_t _bitsPerSample;
};
