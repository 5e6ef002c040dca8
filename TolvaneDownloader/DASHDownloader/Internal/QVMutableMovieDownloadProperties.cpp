#include "TolvaneDownloader/DASHDownloader/Internal/QVMutableMovieDownloadProperties.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVLog.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadPropertyKeys.h"
#include "platform/concurrency/Queue.h"
#include "platform/foundation/FileManager.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <mutex>

QVMutableMovieDownloadProperties::QVMutableMovieDownloadProperties(std::string localPath,
                                                                   const std::string& jsonName)
    : QVMovieDownloadProperties(std::move(localPath), jsonName) {}
QVMutableMovieDownloadProperties::~QVMutableMovieDownloadProperties() = default;

std::shared_ptr<QVMutableMovieDownloadProperties> QVMutableMovieDownloadProperties::propertiesWithSourceURL(
    const std::string& sourceURL, const std::string& localPath, const std::string& manifestName,
    const std::string& jsonName) {
  std::shared_ptr<QVMutableMovieDownloadProperties> properties(
      new QVMutableMovieDownloadProperties(localPath, jsonName));
  if (platform::FileManager::fileExistsAtPath(properties->_jsonPath))
    return properties->_readJSON() ? properties : nullptr;
  if (!QVIsPlainFileName(manifestName)) {
    QVLogError("Error: \"" + manifestName + "\" is no name for a stored manifest");
    return nullptr;
  }
  std::lock_guard lock(properties->_lock);
  (*properties->_properties)[QVDownloadSetSourceURLKey] = sourceURL;
  (*properties->_properties)[QVDownloadSetManifestNameKey] = manifestName;
  properties->_writeJSON();
  return properties;
}

void QVMutableMovieDownloadProperties::setTitle(const std::optional<std::string>& title) {
  if (title)
    setObject(*title, QVDownloadSetTitleKey);
  else
    removeObjectForKey(QVDownloadSetTitleKey);
}

void QVMutableMovieDownloadProperties::setNumberOfDownloadedQualities(unsigned number) {
  setObject(number, QVNumberOfDownloadedQualitiesKey);
}

void QVMutableMovieDownloadProperties::setNumberOfDownloadedVideoQualities(unsigned number) {
  setObject(number, QVNumberOfDownloadedVideoQualitiesKey);
}

void QVMutableMovieDownloadProperties::setNumberOfDownloadedAudioQualities(unsigned number) {
  setObject(number, QVNumberOfDownloadedAudioQualitiesKey);
}

void QVMutableMovieDownloadProperties::setNumberOfDownloadedTextQualities(unsigned number) {
  setObject(number, QVNumberOfDownloadedTextQualitiesKey);
}

void QVMutableMovieDownloadProperties::setDownloadedQualityIdentifiers(
    const std::vector<std::string>& identifiers) {
  setObject(identifiers, QVDownloadedQualityIdentifiersKey);
}

void QVMutableMovieDownloadProperties::setDownloadedQualities(unsigned total, unsigned video, unsigned audio,
                                                              unsigned text,
                                                              const std::vector<std::string>& identifiers) {
  std::lock_guard lock(_lock);
  platform::JSON& properties = *_properties;
  properties[QVNumberOfDownloadedQualitiesKey] = total;
  properties[QVNumberOfDownloadedVideoQualitiesKey] = video;
  properties[QVNumberOfDownloadedAudioQualitiesKey] = audio;
  properties[QVNumberOfDownloadedTextQualitiesKey] = text;
  properties[QVDownloadedQualityIdentifiersKey] = identifiers;
  _writeJSON();
}

void QVMutableMovieDownloadProperties::setObject(const platform::JSON& object, const std::string& key) {
  std::lock_guard lock(_lock);
  (*_properties)[key] = object;
  _writeJSON();
}

void QVMutableMovieDownloadProperties::removeObjectForKey(const std::string& key) {
  std::lock_guard lock(_lock);
  _properties->erase(key);
  _writeJSON();
}

void QVMutableMovieDownloadProperties::scheduleWriteJSON() {
  {
    std::lock_guard lock(_lock);
    if (_writeQueued)
      return;
    _writeQueued = true;
  }
  platform::SerialQueue::background().async([weak = weak_from_this()] {
    const auto self = std::static_pointer_cast<QVMutableMovieDownloadProperties>(weak.lock());
    if (!self)
      return;
    std::lock_guard lock(self->_lock);
    self->_writeQueued = false;
    self->_writeJSON();
  });
}

bool QVMutableMovieDownloadProperties::writeQueued() const {
  std::lock_guard lock(_lock);
  return _writeQueued;
}

void QVMutableMovieDownloadProperties::_writeJSON() {
  const auto error =
      platform::FileManager::writeDataAtomically(platform::serializeJSON(*_properties), _jsonPath);
  if (!error)
    return;
  const bool opened =
      error->domain() == platform::NSPOSIXErrorDomain &&
      (error->code() == ENOSPC || error->code() == EDQUOT || error->code() == EIO || error->code() == EFBIG);
  QVLogError(
      (opened ? "Error: Failed to write JSON file: " : "Error: Failed to open JSON file for writing: ") +
      error->localizedDescription());
}
