#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadProperties.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVLog.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadPropertyKeys.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMutableMovieDownloadProperties.h"
#include "platform/foundation/FileManager.h"
#include "platform/foundation/URL.h"

#include <nlohmann/json.hpp>

#include <limits>
#include <mutex>

QVMovieDownloadProperties::QVMovieDownloadProperties(std::string localPath, const std::string& jsonName)
    : _localPath(std::move(localPath)), _jsonPath(_localPath + "/" + jsonName),
      _properties(std::make_unique<platform::JSON>(platform::JSON::object())) {}
QVMovieDownloadProperties::~QVMovieDownloadProperties() = default;

std::shared_ptr<QVMutableMovieDownloadProperties>
QVMovieDownloadProperties::propertiesWithLocalPath(const std::string& localPath,
                                                   const std::string& jsonName) {
  std::shared_ptr<QVMutableMovieDownloadProperties> properties(
      new QVMutableMovieDownloadProperties(localPath, jsonName));
  return properties->_readJSON() ? properties : nullptr;
}

bool QVMovieDownloadProperties::_readJSON() {
  platform::ErrorRef error;
  const auto bytes = platform::FileManager::contentsAtPath(_jsonPath, &error);
  if (!bytes) {
    QVLogError("Error: Failed to open JSON file for reading: " +
               (error ? error->localizedDescription() : _jsonPath));
    return false;
  }
  auto parsed = platform::parseJSON(
      std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size()), &error);
  if (!parsed) {
    QVLogError("Error: Failed to read JSON file: " + (error ? error->localizedDescription() : _jsonPath));
    return false;
  }
  if (!parsed->is_object()) {
    QVLogError("Error: Failed to read JSON file: " + _jsonPath + " holds no object");
    return false;
  }
  const auto sourceURL = parsed->find(QVDownloadSetSourceURLKey);
  if (sourceURL == parsed->end() || !sourceURL->is_string()) {
    QVLogError("Error: No source URL in JSON file");
    return false;
  }
  const auto manifestName = parsed->find(QVDownloadSetManifestNameKey);
  if (manifestName == parsed->end() || !manifestName->is_string() ||
      !QVIsPlainFileName(manifestName->get_ref<const std::string&>())) {
    QVLogError("Error: No manifest name in JSON file");
    return false;
  }
  std::lock_guard lock(_lock);
  _properties = std::move(parsed);
  return true;
}

std::string QVMovieDownloadProperties::sourceURL() const {
  return _stringForKey(QVDownloadSetSourceURLKey).value_or("");
}

std::optional<std::string> QVMovieDownloadProperties::title() const {
  return _stringForKey(QVDownloadSetTitleKey);
}

std::string QVMovieDownloadProperties::manifestName() const {
  return _stringForKey(QVDownloadSetManifestNameKey).value_or("");
}

std::string QVMovieDownloadProperties::localURL() const {
  return platform::URL::fileURLWithPath(_localPath + "/" + manifestName()).absoluteString();
}

unsigned QVMovieDownloadProperties::numberOfDownloadedQualities() const {
  return _numberForKey(QVNumberOfDownloadedQualitiesKey);
}

unsigned QVMovieDownloadProperties::numberOfDownloadedVideoQualities() const {
  return _numberForKey(QVNumberOfDownloadedVideoQualitiesKey);
}

unsigned QVMovieDownloadProperties::numberOfDownloadedAudioQualities() const {
  return _numberForKey(QVNumberOfDownloadedAudioQualitiesKey);
}

unsigned QVMovieDownloadProperties::numberOfDownloadedTextQualities() const {
  return _numberForKey(QVNumberOfDownloadedTextQualitiesKey);
}

std::optional<std::vector<std::string>> QVMovieDownloadProperties::downloadedQualityIdentifiers() const {
  std::lock_guard lock(_lock);
  const auto found = _properties->find(QVDownloadedQualityIdentifiersKey);
  if (found == _properties->end() || !found->is_array())
    return std::nullopt;
  std::vector<std::string> identifiers;
  identifiers.reserve(found->size());
  for (const auto& item : *found) {
    if (!item.is_string())
      return std::nullopt;
    identifiers.push_back(item.get<std::string>());
  }
  return identifiers;
}

std::optional<platform::JSON> QVMovieDownloadProperties::objectForKey(const std::string& key) const {
  std::lock_guard lock(_lock);
  const auto found = _properties->find(key);
  return found == _properties->end() ? std::nullopt : std::optional<platform::JSON>(*found);
}

unsigned QVMovieDownloadProperties::_numberForKey(const char* key) const {
  std::lock_guard lock(_lock);
  const auto found = _properties->find(key);
  if (found == _properties->end() || !found->is_number_unsigned())
    return 0;
  const auto number = found->get<std::uint64_t>();
  return number <= std::numeric_limits<unsigned>::max() ? static_cast<unsigned>(number) : 0;
}

std::optional<std::string> QVMovieDownloadProperties::_stringForKey(const char* key) const {
  std::lock_guard lock(_lock);
  const auto found = _properties->find(key);
  return found == _properties->end() || !found->is_string() ? std::nullopt
                                                            : std::optional(found->get<std::string>());
}
