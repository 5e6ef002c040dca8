#include "TolvaneDownloader/DASHDownloader/Internal/QVQuality.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVPlayerUtils.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"
#include "platform/foundation/Exception.h"

#include <algorithm>
#include <charconv>

namespace {

std::string checkedFourCC(std::optional<std::string> fourCC, QVMediaType type) {
  if (!fourCC) {
    switch (type) {
    case QVMediaTypeVideo:
      return "vide";
    case QVMediaTypeAudio:
      return "audi";
    case QVMediaTypeText:
      return "text";
    default:
      throw platform::Exception("InvalidArgumentException", "Invalid media type");
    }
  }
  // Characters, not bytes: every byte that does not continue a UTF-8 sequence begins one.
  const auto characters = std::count_if(
      fourCC->begin(), fourCC->end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; });
  if (characters != 4)
    throw platform::Exception("InvalidArgumentException", "FourCC string not four characters long");
  return std::move(*fourCC);
}

} // namespace

QVQuality::QVQuality(std::shared_ptr<QVResourceListBuilder> builder, std::string parameters,
                     std::optional<std::string> fourCC, std::string identifier, QVMediaType type,
                     std::uint32_t bitrate, std::weak_ptr<QVTrack> parent)
    : _resourceBuilder(std::move(builder)), _parent(std::move(parent)), _parameters(std::move(parameters)),
      _fourCC(checkedFourCC(std::move(fourCC), type)), _identifier(std::move(identifier)), _type(type),
      _bitrate(bitrate) {}
QVQuality::~QVQuality() = default;

std::shared_ptr<QVQuality> QVQuality::qualityWithResourceListBuilder(
    std::shared_ptr<QVResourceListBuilder> builder, std::string parameters, std::optional<std::string> fourCC,
    std::string identifier, QVMediaType type, std::uint32_t bitrate, std::weak_ptr<QVTrack> parent) {
  return std::shared_ptr<QVQuality>(new QVQuality(std::move(builder), std::move(parameters),
                                                  std::move(fourCC), std::move(identifier), type, bitrate,
                                                  std::move(parent)));
}

std::string QVQuality::knownFourCC() const {
  return _fourCC == "vide" || _fourCC == "audi" || _fourCC == "text" ? std::string() : _fourCC;
}

QVResourceListRef QVQuality::fillResourcesWithBaseUrl(const std::string&) const {
  return nullptr;
}

std::string QVQuality::bitrateText(std::uint32_t bitrate) {
  return kiloText(bitrate, "kbps");
}

std::string QVQuality::kiloText(std::uint32_t value, const char* unit) {
  // Not printf, whose decimal point follows the process's locale.
  char buffer[32];
  const auto end =
      std::to_chars(buffer, buffer + sizeof buffer, value / 1000.0, std::chars_format::fixed, 1).ptr;
  return std::string(buffer, end) + ' ' + unit;
}

std::optional<std::string> QVQuality::languageName(const std::shared_ptr<QVTrack>& parent) {
  return parent ? QVPlayerUtils::localizedLanguage(parent->language()) : std::nullopt;
}
