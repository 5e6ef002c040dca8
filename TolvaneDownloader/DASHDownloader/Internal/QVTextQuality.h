#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVQuality.h"

/// Subtitles or captions. Described by language and, when the track's name tells it, the text format.
/// Immutable.
class QVTextQuality : public QVQuality {
public:
  /// Raises as QVQuality does. The language in the description is the parent's.
  static std::shared_ptr<QVTextQuality>
  qualityWithResourceListBuilder(std::shared_ptr<QVResourceListBuilder> builder,
                                 std::optional<std::string> fourCC, std::string identifier,
                                 std::uint32_t bitrate, std::uint32_t width, std::uint32_t height,
                                 std::optional<std::string> text, const std::shared_ptr<QVTrack>& parent);

  std::uint32_t width() const { return _width; }   ///< pixels; 0: unknown
  std::uint32_t height() const { return _height; } ///< pixels; 0: unknown
  const std::optional<std::string>& text() const { return _text; }

protected:
  QVTextQuality(std::shared_ptr<QVResourceListBuilder> builder, std::optional<std::string> fourCC,
                std::string identifier, std::uint32_t bitrate, std::uint32_t width, std::uint32_t height,
                std::optional<std::string> text, const std::shared_ptr<QVTrack>& parent);

private:
  std::uint32_t _width;
  std::uint32_t _height;
  std::optional<std::string> _text;
};
