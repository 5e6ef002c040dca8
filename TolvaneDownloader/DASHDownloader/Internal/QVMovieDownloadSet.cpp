#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadSet.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVByteArithmetic.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVDirectorySnapshot.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVLog.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovie.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadSetChange.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMutableMovieDownloadProperties.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylist.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVQualityDownloadInfo.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVRangedURL.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceDownloadInfo.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourcePath.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"

#include "platform/foundation/Exception.h"
#include "platform/foundation/FileManager.h"

#include <algorithm>

using Lock = std::lock_guard<platform::OrderedRecursiveMutex>;

namespace {

// The name under which a fetched manifest is stored, whatever name the set's own manifest has.
constexpr const char* storedManifestName = "manifest.mpd";

[[noreturn]] void raise(const char* reason) {
  throw platform::Exception("QVMovieDownloadSetException", reason);
}

template <class Element> bool contains(const std::vector<Element>& list, const Element& element) {
  return std::find(list.begin(), list.end(), element) != list.end();
}

/// The set's properties. A file that can be read but not understood is set aside, so that the set has one
/// that can be kept up to date; what stood in it is not lost.
std::shared_ptr<QVMutableMovieDownloadProperties>
propertiesOf(const std::string& sourceURL, const std::string& directory, const std::string& manifestName) {
  const std::string name = QVMovieDownloadProperties::defaultJSONName;
  auto properties =
      QVMutableMovieDownloadProperties::propertiesWithSourceURL(sourceURL, directory, manifestName, name);
  if (properties || !platform::FileManager::contentsAtPath(directory + "/" + name))
    return properties;
  const auto error =
      platform::FileManager::moveItemAtPath(directory + "/" + name, directory + "/damaged-" + name);
  if (error) {
    QVLogError("The damaged properties cannot be set aside: " + error->localizedDescription());
    return nullptr;
  }
  return QVMutableMovieDownloadProperties::propertiesWithSourceURL(sourceURL, directory, manifestName, name);
}

using InfoList = std::vector<std::shared_ptr<QVQualityDownloadInfo>>;

std::optional<std::vector<std::shared_ptr<QVQuality>>> qualitiesOf(const InfoList& infos) {
  if (infos.empty())
    return std::nullopt;
  std::vector<std::shared_ptr<QVQuality>> qualities;
  qualities.reserve(infos.size());
  for (const auto& info : infos)
    qualities.push_back(info->quality());
  return qualities;
}

} // namespace

// Creation

std::shared_ptr<QVMovieDownloadSet>
QVMovieDownloadSet::downloadSetWithPlaylist(std::shared_ptr<QVPlaylist> playlist,
                                            const std::string& downloadPath, const std::string& manifestName,
                                            const std::string& sourceURL, const std::string& downloadId,
                                            std::weak_ptr<QVDownloadController> controller) {
  if (!playlist || playlist->movies().empty())
    return nullptr;
  auto set = std::make_shared<QVMovieDownloadSet>(Passkey(), std::move(playlist), downloadPath, manifestName,
                                                  sourceURL, downloadId, std::move(controller));
  set->_fill(manifestName);
  return set;
}

QVMovieDownloadSet::QVMovieDownloadSet(Passkey, std::shared_ptr<QVPlaylist> playlist,
                                       const std::string& downloadPath, const std::string& manifestName,
                                       const std::string& sourceURL, const std::string& downloadId,
                                       std::weak_ptr<QVDownloadController> controller)
    : _playlist(std::move(playlist)), _movie(_playlist->movies().front()), _downloadPath(downloadPath),
      _sourceURL(sourceURL), _baseURL(QVRangedURL::baseURLForManifest(sourceURL)), _downloadId(downloadId),
      _controller(std::move(controller)), _properties(propertiesOf(sourceURL, downloadPath, manifestName)),
      _uuid(downloadId) {}

QVMovieDownloadSet::~QVMovieDownloadSet() = default;

void QVMovieDownloadSet::_fill(const std::string& manifestName) {
  Lock lock(_lock);
  const auto directory = std::make_shared<const QVResourceDirectory>(
      _downloadPath,
      std::vector<std::string>{manifestName, storedManifestName, QVMovieDownloadProperties::defaultJSONName});
  for (const auto& track : _movie->tracks()) {
    for (const auto& quality : track->qualities()) {
      auto info =
          QVQualityDownloadInfo::infoWithBaseURL(_baseURL, directory, quality, weak_from_this(), _controller);
      if (_qualityInfoMap.emplace(quality.get(), info).second)
        _infos.push_back(std::move(info));
    }
  }
  _recognisePreloadedFiles();
  _assertCounters();
}

void QVMovieDownloadSet::_recognisePreloadedFiles() {
  const QVDirectorySnapshot snapshot(_downloadPath);
  _updateDownloaded(0, snapshot.totalSize());
  _downloadedBytesBase = snapshot.totalSize();
  for (const auto& info : _infos) {
    std::size_t present = 0;
    if (snapshot.hasFiles()) {
      for (const auto& resource : info->resources()) {
        if (resource->unfetchable())
          continue;
        if (const auto size = snapshot.sizeOfFile(resource->relativePathOnDisk())) {
          _resourceCompleteWithBytesPreloaded(info, resource, *size);
          ++present;
        }
      }
    }
    if (present == info->resources().size())
      _downloadedQualitiesInfo.push_back(info);
    else if (present > 0)
      _selectQuality(info);
  }
}

void QVMovieDownloadSet::_resourceCompleteWithBytesPreloaded(
    const InfoRef& info, const std::shared_ptr<QVResourceDownloadInfo>& resource, std::int64_t bytes) {
  const QVDownloadSize expected = info->expectedBytes();
  const std::int64_t downloaded = info->downloadedBytes();
  info->resourceCompleteWithBytesPreloaded(resource, bytes);
  if (_isSelected(info)) {
    _updateExpected(expected, info->expectedBytes());
    _updateDownloaded(downloaded, info->downloadedBytes());
  }
}

// Attributes

std::string QVMovieDownloadSet::uuid() const {
  Lock lock(_lock);
  return _uuid;
}

void QVMovieDownloadSet::setUuid(std::string uuid) {
  Lock lock(_lock);
  _uuid = std::move(uuid);
}

std::any QVMovieDownloadSet::userObject() const {
  Lock lock(_lock);
  return _userObject;
}

void QVMovieDownloadSet::setUserObject(std::any object) {
  Lock lock(_lock);
  _userObject.swap(object); // the old one goes without the lock
}

std::shared_ptr<QVMovieDownloadSetDelegate> QVMovieDownloadSet::delegate() const {
  Lock lock(_lock);
  return _delegate.lock();
}

void QVMovieDownloadSet::setDelegate(std::weak_ptr<QVMovieDownloadSetDelegate> delegate) {
  Lock lock(_lock);
  _delegate = std::move(delegate);
}

std::optional<platform::HTTPHeaders> QVMovieDownloadSet::additionalHeaders() const {
  Lock lock(_lock);
  return _additionalHeaders;
}

void QVMovieDownloadSet::setAdditionalHeaders(std::optional<platform::HTTPHeaders> headers) {
  Lock lock(_lock);
  _additionalHeaders = std::move(headers);
}

std::size_t QVMovieDownloadSet::parallelDownloads() const {
  Lock lock(_lock);
  return _parallelDownloads;
}

void QVMovieDownloadSet::setParallelDownloads(std::size_t limit) {
  Lock lock(_lock);
  _parallelDownloads = limit;
}

// Queries

QVDownloadStatus QVMovieDownloadSet::status() const {
  Lock lock(_lock);
  if (_numActive == 0)
    return QVDownloadStatusInactive;
  return _numRunning == 0 ? QVDownloadStatusPaused : QVDownloadStatusDownloading;
}

bool QVMovieDownloadSet::isQualitySelected(const std::shared_ptr<QVQuality>& quality) const {
  Lock lock(_lock);
  return _isSelected(_infoForQuality(quality));
}

bool QVMovieDownloadSet::isQualityDownloaded(const std::shared_ptr<QVQuality>& quality) const {
  Lock lock(_lock);
  return _isDownloaded(_infoForQuality(quality));
}

std::size_t QVMovieDownloadSet::numberOfSelectedQualities() const {
  Lock lock(_lock);
  return _selectedQualitiesInfo.size();
}

std::size_t QVMovieDownloadSet::numberOfDownloadedQualities() const {
  Lock lock(_lock);
  return _downloadedQualitiesInfo.size();
}

std::optional<std::vector<std::shared_ptr<QVQuality>>> QVMovieDownloadSet::selectedQualities() const {
  Lock lock(_lock);
  return qualitiesOf(_selectedQualitiesInfo);
}

std::optional<std::vector<std::shared_ptr<QVQuality>>> QVMovieDownloadSet::downloadedQualities() const {
  Lock lock(_lock);
  return qualitiesOf(_downloadedQualitiesInfo);
}

std::vector<std::shared_ptr<QVQualityDownloadInfo>> QVMovieDownloadSet::selectedQualitiesInfo() const {
  Lock lock(_lock);
  return _selectedQualitiesInfo;
}

std::vector<std::shared_ptr<QVQualityDownloadInfo>> QVMovieDownloadSet::downloadedQualitiesInfo() const {
  Lock lock(_lock);
  return _downloadedQualitiesInfo;
}

QVDownloadSize QVMovieDownloadSet::expectedBytes() const {
  Lock lock(_lock);
  return _expectedBytes();
}

QVDownloadSize QVMovieDownloadSet::totalSize() const {
  Lock lock(_lock);
  QVDownloadSize total{0, false};
  for (const auto& info : _infos) {
    const QVDownloadSize size = info->expectedBytes();
    if (size.value == QVDownloadSizeUnknownValue)
      return QVDownloadSizeUnknown;
    total.value = QVWrappingAdd(total.value, size.value);
    total.estimated = total.estimated || size.estimated;
  }
  return _infos.empty() ? QVDownloadSizeUnknown : total;
}

std::int64_t QVMovieDownloadSet::downloadedSize() const {
  Lock lock(_lock);
  return downloadedBytesFor(_downloadedQualitiesInfo);
}

std::int64_t QVMovieDownloadSet::downloadedBytes() const {
  Lock lock(_lock);
  return std::max<std::int64_t>(_downloadedBytes, 0);
}

QVDownloadProgress QVMovieDownloadSet::progress() const {
  Lock lock(_lock);
  return _progress();
}

QVDownloadSize QVMovieDownloadSet::expectedBytesForQuality(const std::shared_ptr<QVQuality>& quality) const {
  Lock lock(_lock);
  return _infoForQuality(quality)->expectedBytes();
}

std::int64_t QVMovieDownloadSet::downloadedBytesForQuality(const std::shared_ptr<QVQuality>& quality) const {
  Lock lock(_lock);
  return _infoForQuality(quality)->downloadedBytes();
}

QVDownloadProgress QVMovieDownloadSet::progressForQuality(const std::shared_ptr<QVQuality>& quality) const {
  Lock lock(_lock);
  return _infoForQuality(quality)->progress();
}

QVDownloadSize QVMovieDownloadSet::expectedBytesFor(const InfoList& infos) {
  std::int64_t known = 0;
  QVDownloadSize sum{0, false};
  for (const auto& info : infos) {
    const QVDownloadSize size = info->expectedBytes();
    if (size.value == QVDownloadSizeUnknownValue)
      continue;
    ++known;
    sum.value = QVWrappingAdd(sum.value, size.value);
    sum.estimated = sum.estimated || size.estimated;
  }
  const auto count = static_cast<std::int64_t>(infos.size());
  if (known == 0)
    return QVDownloadSizeUnknown;
  return known < count ? QVDownloadSize{QVExtrapolate(sum.value, known, count), true} : sum;
}

std::int64_t QVMovieDownloadSet::downloadedBytesFor(const InfoList& infos) {
  std::int64_t bytes = 0;
  for (const auto& info : infos)
    bytes = QVWrappingAdd(bytes, info->downloadedBytes());
  return bytes;
}

// Selection

void QVMovieDownloadSet::selectQuality(const std::shared_ptr<QVQuality>& quality) {
  Change change(*this);
  Lock lock(_lock);
  const InfoRef& info = _infoForQuality(quality);
  _requireIdle("Can't select quality in non-idle state");
  _selectQuality(info);
}

void QVMovieDownloadSet::selectAllQualities() {
  Change change(*this);
  Lock lock(_lock);
  _requireIdle("Can't select quality in non-idle state");
  for (const auto& info : _infos)
    _selectQuality(info);
}

void QVMovieDownloadSet::deselectQuality(const std::shared_ptr<QVQuality>& quality) {
  Change change(*this);
  Lock lock(_lock);
  const InfoRef& info = _infoForQuality(quality);
  _requireIdle("Can't deselect quality in non-idle state");
  if (_isSelected(info))
    _deselectQuality(info);
}

void QVMovieDownloadSet::deselectAllQualities() {
  Change change(*this);
  Lock lock(_lock);
  _requireIdle("Can't deselect quality in non-idle state");
  for (const auto& info : InfoList(_selectedQualitiesInfo))
    _deselectQuality(info);
}

void QVMovieDownloadSet::removeDownloadedQuality(const std::shared_ptr<QVQuality>& quality) {
  Change change(*this);
  Lock lock(_lock);
  const InfoRef& info = _infoForQuality(quality);
  _requireIdle("Can't remove quality in non-idle state");
  if (!_removeDownloadedQuality(info))
    raise("Failed to remove all resource files for quality");
}

void QVMovieDownloadSet::removeAllDownloadedQualities() {
  Change change(*this);
  Lock lock(_lock);
  _requireIdle("Can't remove qualities in non-idle state");
  bool all = true;
  for (const auto& info : InfoList(_downloadedQualitiesInfo))
    all = _removeDownloadedQuality(info) && all;
  if (!all)
    raise("Failed to remove all resource files for all qualities");
}

const QVMovieDownloadSet::InfoRef&
QVMovieDownloadSet::_infoForQuality(const std::shared_ptr<QVQuality>& quality) const {
  const auto it = _qualityInfoMap.find(quality.get());
  if (it == _qualityInfoMap.end())
    raise("Quality not available in movie");
  return it->second;
}

bool QVMovieDownloadSet::_isSelected(const InfoRef& info) const {
  return contains(_selectedQualitiesInfo, info);
}

bool QVMovieDownloadSet::_isDownloaded(const InfoRef& info) const {
  return contains(_downloadedQualitiesInfo, info);
}

void QVMovieDownloadSet::_requireIdle(const char* reason) const {
  if (_numActive != 0)
    raise(reason);
}

std::int64_t& QVMovieDownloadSet::_counterForQuality(const QVQuality& quality) {
  switch (quality.type()) {
  case QVMediaTypeVideo:
    return _numVideoQualities;
  case QVMediaTypeAudio:
    return _numAudioQualities;
  case QVMediaTypeText:
    return _numTextQualities;
  default:
    raise("Quality has invalid media type");
  }
}

void QVMovieDownloadSet::_selectQuality(const InfoRef& info) {
  if (_isSelected(info) || _isDownloaded(info))
    return;
  ++_counterForQuality(*info->quality());
  _selectedQualitiesInfo.push_back(info);
  _updateExpected(QVDownloadSizeUnknown, info->expectedBytes());
  _updateDownloaded(0, info->downloadedBytes());
  _noteCompletion(*info, 1);
}

void QVMovieDownloadSet::_deselectQuality(const InfoRef& info) {
  --_counterForQuality(*info->quality());
  std::erase(_selectedQualitiesInfo, info);
  _updateExpected(info->expectedBytes(), QVDownloadSizeUnknown);
  _updateDownloaded(info->downloadedBytes(), 0);
  _noteCompletion(*info, -1);
}

/// A quality that finished in a cancelled run, or that cannot be fetched at all, is counted while it is
/// selected: the run's end is recognised by every selected quality being finished.
void QVMovieDownloadSet::_noteCompletion(const QVQualityDownloadInfo& info, std::int64_t by) {
  if (!info.completed())
    return;
  _numCompleted += by;
  if (info.failed())
    _numFailed += by;
}

bool QVMovieDownloadSet::_removeDownloadedQuality(const InfoRef& info) {
  bool all = true;
  for (const auto& resource : info->resources()) {
    const std::string path = resource->resourcePath();
    if (platform::FileManager::fileExistsAtPath(path) && platform::FileManager::removeItemAtPath(path))
      all = false;
  }
  const bool selected = _isSelected(info);
  const std::int64_t bytes = info->downloadedBytes();
  if (selected)
    _noteCompletion(*info, -1);
  info->reset();
  if (selected) {
    _updateDownloaded(bytes, info->downloadedBytes());
    _noteCompletion(*info, 1);
  }
  std::erase(_downloadedQualitiesInfo, info);
  return all;
}

// Counters

QVDownloadSize QVMovieDownloadSet::_expectedBytes() const {
  QVDownloadSize sum{0, true};
  for (const auto& info : _selectedQualitiesInfo)
    sum.value = QVWrappingAdd(sum.value, info->expectedBytes().value);
  return sum;
}

QVDownloadProgress QVMovieDownloadSet::_progress() const {
  return QVMakeDownloadProgress(std::max<std::int64_t>(_downloadedBytes, 0), _expectedBytes());
}

void QVMovieDownloadSet::_updateExpected(const QVDownloadSize& from, const QVDownloadSize& to) {
  if (from == to)
    return;
  if (from.value != QVDownloadSizeUnknownValue) {
    _sizedBytes = QVWrappingSubtract(_sizedBytes, from.value);
    --_numSized;
    if (from.estimated) {
      --_numEstimated;
      _estimated = _numEstimated != 0;
    }
  }
  if (to.value == QVDownloadSizeUnknownValue)
    return;
  _sizedBytes = QVWrappingAdd(_sizedBytes, to.value);
  ++_numSized;
  if (to.estimated) {
    ++_numEstimated;
    _estimated = true;
  }
}

void QVMovieDownloadSet::_updateDownloaded(std::int64_t from, std::int64_t to) {
  _downloadedBytes = QVWrappingAdd(_downloadedBytes, QVWrappingSubtract(to, from));
}
