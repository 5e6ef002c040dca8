#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceId.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadSet.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVQualityDownloadInfo.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceDownloadInfo.h"

#include "platform/foundation/JSON.h"

#include <nlohmann/json.hpp>

namespace {

constexpr const char* manifestURLKey = "QVManifestURL";
constexpr const char* qualityIdKey = "QVQualityId";
constexpr const char* resourceIndexKey = "QVResourceIndex";
constexpr const char* statusKey = "QVStatus";

std::optional<std::string> textOf(const platform::JSON& object, const char* key) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_string())
    return std::nullopt;
  return it->get<std::string>();
}

std::uint64_t numberOf(const platform::JSON& object, const char* key) {
  const auto it = object.find(key);
  if (it == object.end())
    return 0;
  // A negative number becomes a huge one: outside every list, while 0 would be somebody's index.
  if (it->is_number_integer())
    return it->is_number_unsigned() ? it->get<std::uint64_t>()
                                    : static_cast<std::uint64_t>(it->get<std::int64_t>());
  if (it->is_number_float()) {
    const double value = it->get<double>();
    return value >= 0 && value < 1e18 ? static_cast<std::uint64_t>(value) : UINT64_MAX;
  }
  return 0;
}

} // namespace

QVResourceId QVResourceId::resourceIdWithResource(const QVResourceDownloadInfo& resource) {
  QVResourceId id;
  if (const auto quality = resource.quality()) {
    id._qualityId = quality->quality()->identifier();
    if (const auto set = quality->set())
      id._manifestURL = set->sourceURL();
  }
  id._resourceIndex = resource.index();
  id._status = resource.status();
  return id;
}

QVResourceId QVResourceId::resourceIdWithJSONString(const std::string& text) {
  QVResourceId id;
  const auto object = platform::parseJSON(text);
  if (!object || !object->is_object())
    return id;
  id._manifestURL = textOf(*object, manifestURLKey);
  id._qualityId = textOf(*object, qualityIdKey);
  id._resourceIndex = numberOf(*object, resourceIndexKey);
  id._status = numberOf(*object, statusKey);
  return id;
}

std::string QVResourceId::serializeToJSON() const {
  // Written with every change of a task's status, so no object is built for it.
  std::string text = "{";
  const auto add = [&text](const char* key, const std::string& value) {
    if (text.size() > 1)
      text += ',';
    text.append("\"").append(key).append("\":").append(value);
  };
  if (_manifestURL)
    add(manifestURLKey, platform::serializeJSON(*_manifestURL));
  if (_qualityId)
    add(qualityIdKey, platform::serializeJSON(*_qualityId));
  add(resourceIndexKey, std::to_string(_resourceIndex));
  add(statusKey, std::to_string(_status));
  return text + '}';
}
