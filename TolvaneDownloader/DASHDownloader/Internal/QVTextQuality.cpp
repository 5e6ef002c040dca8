#include "TolvaneDownloader/DASHDownloader/Internal/QVTextQuality.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"

#include <algorithm>
#include <string_view>

namespace {

bool containsIgnoringCase(std::string_view text, std::string_view lowerCased) {
  return std::search(text.begin(), text.end(), lowerCased.begin(), lowerCased.end(), [](char a, char b) {
           return (a >= 'A' && a <= 'Z' ? a - 'A' + 'a' : a) == b;
         }) != text.end();
}

std::string description(std::string language, const std::shared_ptr<QVTrack>& parent) {
  const char* format = "";
  if (parent && containsIgnoringCase(parent->name(), "ttml"))
    format = "[TTML]";
  else if (parent && containsIgnoringCase(parent->name(), "vtt"))
    format = "[VTT]";
  if (!language.empty() && *format)
    language += ' ';
  return language + format;
}

} // namespace

QVTextQuality::QVTextQuality(std::shared_ptr<QVResourceListBuilder> builder,
                             std::optional<std::string> fourCC, std::string identifier, std::uint32_t bitrate,
                             std::uint32_t width, std::uint32_t height, std::optional<std::string> text,
                             const std::shared_ptr<QVTrack>& parent)
    : QVQuality(std::move(builder), description(languageName(parent).value_or(""), parent), std::move(fourCC),
                std::move(identifier), QVMediaTypeText, bitrate, parent),
      _width(width), _height(height), _text(std::move(text)) {}

std::shared_ptr<QVTextQuality> QVTextQuality::qualityWithResourceListBuilder(
    std::shared_ptr<QVResourceListBuilder> builder, std::optional<std::string> fourCC, std::string identifier,
    std::uint32_t bitrate, std::uint32_t width, std::uint32_t height, std::optional<std::string> text,
    const std::shared_ptr<QVTrack>& parent) {
  return std::shared_ptr<QVTextQuality>(new QVTextQuality(std::move(builder), std::move(fourCC),
                                                          std::move(identifier), bitrate, width, height,
                                                          std::move(text), parent));
}
