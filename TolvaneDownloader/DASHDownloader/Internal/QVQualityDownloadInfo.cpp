#include "TolvaneDownloader/DASHDownloader/Internal/QVQualityDownloadInfo.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVByteArithmetic.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVDownloadErrors.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadSet.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceId.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceListBuilder.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourcePath.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"

#include <algorithm>
#include <cmath>

namespace {

/// The quality's nominal size spread evenly over `count` resources; -1 when nothing tells it.
std::int64_t estimatedResourceSize(const QVQuality& quality, std::size_t count) {
  const auto track = quality.parent();
  const double duration = track ? track->duration() : 0;
  if (count == 0 || !(duration > 0))
    return QVDownloadSizeUnknownValue;
  const double size = std::ceil(duration * quality.bitrate() / (static_cast<double>(count) * 8.0));
  // A duration beyond all reason estimates nothing.
  return size < 4e15 ? static_cast<std::int64_t>(size) : QVDownloadSizeUnknownValue;
}

/// A walk that changes the set it walks works on a copy, which is a few indices long.
std::vector<std::size_t> inOrder(const std::set<std::size_t>& indices) {
  return {indices.begin(), indices.end()};
}

} // namespace

std::shared_ptr<QVQualityDownloadInfo> QVQualityDownloadInfo::infoWithBaseURL(
    const std::string& baseURL, std::shared_ptr<const QVResourceDirectory> directory,
    std::shared_ptr<QVQuality> quality, std::weak_ptr<QVMovieDownloadSet> set,
    const std::weak_ptr<QVDownloadController>& controller) {
  auto info = std::make_shared<QVQualityDownloadInfo>(Passkey(), std::move(directory), std::move(quality),
                                                      std::move(set));
  info->_fill(baseURL, controller);
  return info;
}

QVQualityDownloadInfo::QVQualityDownloadInfo(Passkey, std::shared_ptr<const QVResourceDirectory> directory,
                                             std::shared_ptr<QVQuality> quality,
                                             std::weak_ptr<QVMovieDownloadSet> set)
    : _directory(std::move(directory)), _quality(std::move(quality)), _set(std::move(set)) {}

QVQualityDownloadInfo::~QVQualityDownloadInfo() = default;

void QVQualityDownloadInfo::_fill(const std::string& baseURL,
                                  const std::weak_ptr<QVDownloadController>& controller) {
  const auto& builder = _quality->resourceBuilder();
  const QVResourceListRef list = builder ? builder->fillResourcesWithBaseURL(baseURL) : nullptr;
  const std::size_t count = list ? list->size() : 0;
  const QVDownloadSize estimate{estimatedResourceSize(*_quality, count), true};
  if (count > 0) {
    _sizedBytes = QVDownloadSizeUnknownValue;
    _estimated = true;
  }
  _resources.reserve(count);
  for (std::size_t index = 0; index < count; ++index) {
    auto record = QVResourceDownloadInfo::infoWithResource((*list)[index], _directory, weak_from_this(),
                                                           index, estimate, controller);
    const QVDownloadSize expected = record->expectedBytes();
    if (expected.value != QVDownloadSizeUnknownValue) {
      _sizedBytes = _sizedBytes == QVDownloadSizeUnknownValue ? expected.value
                                                              : QVWrappingAdd(_sizedBytes, expected.value);
      ++_numSized;
      if (expected.estimated) {
        _estimated = true;
        ++_numEstimated;
      }
    }
    _downloadedBytes += record->downloadedBytes();
    if (record->completed())
      ++_numCompleted;
    if (record->error())
      _failed.insert(_failed.end(), index);
    _resources.push_back(std::move(record));
  }
  // The start value stays in the sum until the first size of a list without any estimate has been added, and
  // beyond.
  _sizedBytesBias = count > 0 && _numSized == 0 ? QVDownloadSizeUnknownValue : 0;
  _numUnfetchable = _failed.size();
  _completed = count > 0 && _numCompleted == count;
}

const std::string& QVQualityDownloadInfo::downloadPath() const {
  return _directory->path();
}

std::shared_ptr<QVMovieDownloadSet> QVQualityDownloadInfo::set() const {
  return _set.lock();
}

QVDownloadStatus QVQualityDownloadInfo::status() const {
  if (numActive() == 0)
    return QVDownloadStatusInactive;
  return numRunning() == 0 ? QVDownloadStatusPaused : QVDownloadStatusDownloading;
}

platform::ErrorRef QVQualityDownloadInfo::error() const {
  if (_failed.empty())
    return nullptr;
  QVResourceErrors errors;
  for (const std::size_t index : _failed)
    errors.emplace_hint(errors.end(), index, _resources[index]->error());
  return QVMakeQualityError(_quality, std::move(errors));
}

QVDownloadSize QVQualityDownloadInfo::expectedBytes() const {
  if (_numSized == _resources.size())
    return {_sizedBytes, _estimated};
  if (_numSized < 2)
    return QVDownloadSizeUnknown;
  return {QVExtrapolate(_sizedBytes, static_cast<std::int64_t>(_numSized),
                        static_cast<std::int64_t>(_resources.size())),
          true};
}

bool QVQualityDownloadInfo::download() {
  _activateDownloads();
  resume();
  return numRunning() > 0;
}

bool QVQualityDownloadInfo::pause() {
  if (numRunning() == 0)
    return false;
  for (const std::size_t index : inOrder(_running))
    if (_resources[index]->pause())
      _moveStatus(index, QVDownloadStatusDownloading, QVDownloadStatusPaused);
  return true;
}

bool QVQualityDownloadInfo::resume() {
  if (_paused.empty())
    return false;
  for (const std::size_t index : inOrder(_paused))
    if (_resources[index]->resume())
      _moveStatus(index, QVDownloadStatusPaused, QVDownloadStatusDownloading);
  return true;
}

bool QVQualityDownloadInfo::cancel() {
  if (numActive() == 0)
    return false;
  std::vector<std::size_t> live;
  live.reserve(numActive());
  std::merge(_paused.begin(), _paused.end(), _running.begin(), _running.end(), std::back_inserter(live));
  _cursor = std::min(_cursor, live.front());
  for (const std::size_t index : live) {
    const auto& resource = _resources[index];
    const QVDownloadStatus status = resource->status();
    const std::int64_t bytes = resource->downloadedBytes();
    if (!resource->cancel())
      continue;
    _updateDownloaded(bytes, resource->downloadedBytes());
    _moveStatus(index, status, QVDownloadStatusInactive);
  }
  return true;
}

bool QVQualityDownloadInfo::clear() {
  bool any = false;
  for (const std::size_t index : inOrder(_failed)) {
    const std::int64_t bytes = _resources[index]->downloadedBytes();
    if (!_resources[index]->clear())
      continue;
    _updateDownloaded(bytes, _resources[index]->downloadedBytes());
    _failed.erase(index);
    --_numCompleted;
    _cursor = std::min(_cursor, index);
    any = true;
  }
  if (any)
    _completed = false;
  return any;
}

void QVQualityDownloadInfo::reset() {
  _paused.clear();
  _running.clear();
  _failed.clear();
  _cursor = 0;
  _downloadedBytes = 0;
  for (const auto& resource : _resources) {
    resource->reset();
    if (resource->unfetchable())
      _failed.insert(_failed.end(), resource->index());
  }
  _numCompleted = _numUnfetchable;
  _completed = _numCompleted > 0 && _numCompleted == _resources.size();
}

bool QVQualityDownloadInfo::reattachResource(const QVResourceId& resourceId,
                                             const platform::DownloadTaskRef& task) {
  if (resourceId.resourceIndex() >= _resources.size())
    return false;
  const auto index = static_cast<std::size_t>(resourceId.resourceIndex());
  const auto& resource = _resources[index];
  const QVDownloadSize expected = resource->expectedBytes();
  const std::int64_t bytes = resource->downloadedBytes();
  if (!resource->reattachWithStatus(resourceId.status(), task))
    return false;
  _moveStatus(index, QVDownloadStatusInactive, resource->status());
  _updateExpected(expected, resource->expectedBytes());
  _updateDownloaded(bytes, resource->downloadedBytes());
  return true;
}

bool QVQualityDownloadInfo::resourceCompleteWithError(const std::shared_ptr<QVResourceDownloadInfo>& resource,
                                                      const platform::ErrorRef& error) {
  const QVDownloadStatus status = resource->status();
  if (!_owns(*resource) || resource->completed() || status == QVDownloadStatusInactive)
    return false;
  const std::size_t index = resource->index();
  const std::int64_t bytes = resource->downloadedBytes();
  resource->completeWithError(error);
  _updateDownloaded(bytes, resource->downloadedBytes());
  _moveStatus(index, status, QVDownloadStatusInactive);

  if (error) {
    if (_retryResource(resource, error)) {
      if (status == QVDownloadStatusDownloading && resource->resume())
        _moveStatus(index, QVDownloadStatusPaused, QVDownloadStatusDownloading);
      return false;
    }
    _failed.insert(index);
  }

  ++_numCompleted;
  if (_numCompleted == _resources.size()) {
    _completed = true;
    return true;
  }
  _activateDownloads();
  if (status == QVDownloadStatusDownloading)
    resume();
  return false;
}

void QVQualityDownloadInfo::resourceBytesDownloaded(const std::shared_ptr<QVResourceDownloadInfo>& resource,
                                                    std::int64_t bytes, std::int64_t expected) {
  if (!_owns(*resource))
    return;
  const QVDownloadSize oldExpected = resource->expectedBytes();
  const std::int64_t oldBytes = resource->downloadedBytes();
  resource->bytesDownloaded(bytes, expected);
  _updateExpected(oldExpected, resource->expectedBytes());
  _updateDownloaded(oldBytes, resource->downloadedBytes());
}

void QVQualityDownloadInfo::resourceCompleteWithBytesPreloaded(
    const std::shared_ptr<QVResourceDownloadInfo>& resource, std::int64_t bytes) {
  if (!_owns(*resource) || resource->completed() || resource->status() != QVDownloadStatusInactive)
    return;
  const QVDownloadSize oldExpected = resource->expectedBytes();
  const std::int64_t oldBytes = resource->downloadedBytes();
  resource->completeWithBytesPreloaded(bytes);
  _updateExpected(oldExpected, resource->expectedBytes());
  _updateDownloaded(oldBytes, resource->downloadedBytes());
  ++_numCompleted;
  if (_numCompleted == _resources.size())
    _completed = true;
}

bool QVQualityDownloadInfo::_owns(const QVResourceDownloadInfo& resource) const {
  return resource.index() < _resources.size() && _resources[resource.index()].get() == &resource;
}

std::shared_ptr<QVResourceDownloadInfo> QVQualityDownloadInfo::_nextResource() {
  for (; _cursor < _resources.size(); ++_cursor) {
    const auto& resource = _resources[_cursor];
    if (resource->status() == QVDownloadStatusInactive && !resource->completed())
      return resource;
  }
  return nullptr;
}

void QVQualityDownloadInfo::_activateDownloads() {
  while (numActive() < _parallellDownloads) {
    const auto resource = _nextResource();
    if (!resource)
      return;
    resource->setAdditionalHeaders(_additionalHeaders);
    if (!resource->activate()) // there is no session
      return;
    _moveStatus(resource->index(), QVDownloadStatusInactive, resource->status());
  }
}

bool QVQualityDownloadInfo::_retryResource(const std::shared_ptr<QVResourceDownloadInfo>& resource,
                                           const platform::ErrorRef& error) {
  if (error->domain() == QVDownloadHTTPErrorDomain && error->code() == 404)
    return false;
  resource->setAdditionalHeaders(_additionalHeaders);
  const auto* resumeData = error->value<platform::DataRef>(platform::NSURLSessionDownloadTaskResumeData);
  const bool restarted =
      resumeData && *resumeData ? resource->reactivateWithData(**resumeData) : resource->reactivate();
  if (restarted)
    _moveStatus(resource->index(), QVDownloadStatusInactive, resource->status());
  return restarted;
}

void QVQualityDownloadInfo::_moveStatus(std::size_t index, QVDownloadStatus from, QVDownloadStatus to) {
  if (from == QVDownloadStatusPaused)
    _paused.erase(index);
  else if (from == QVDownloadStatusDownloading)
    _running.erase(index);
  if (to == QVDownloadStatusPaused)
    _paused.insert(index);
  else if (to == QVDownloadStatusDownloading)
    _running.insert(index);
}

void QVQualityDownloadInfo::_updateExpected(const QVDownloadSize& from, const QVDownloadSize& to) {
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
  if (to.value != QVDownloadSizeUnknownValue) {
    _sizedBytes = QVWrappingAdd(_sizedBytes, to.value);
    ++_numSized;
    if (to.estimated) {
      ++_numEstimated;
      _estimated = true;
    }
  }
}

void QVQualityDownloadInfo::_updateDownloaded(std::int64_t from, std::int64_t to) {
  _downloadedBytes = QVWrappingAdd(_downloadedBytes, QVWrappingSubtract(to, from));
}

std::string QVQualityDownloadInfo::_checkCounters() const {
  std::size_t sized = 0, estimated = 0, completed = 0, unfetchable = 0;
  std::int64_t sizedBytes = _sizedBytesBias, downloadedBytes = 0;
  std::set<std::size_t> paused, running, failed;
  for (const auto& resource : _resources) {
    const QVDownloadSize expected = resource->expectedBytes();
    const bool known = expected.value != QVDownloadSizeUnknownValue;
    sized += known;
    estimated += known && expected.estimated;
    sizedBytes = QVWrappingAdd(sizedBytes, known ? expected.value : 0);
    downloadedBytes = QVWrappingAdd(downloadedBytes, resource->downloadedBytes());
    completed += resource->completed();
    unfetchable += resource->unfetchable();
    if (resource->error())
      failed.insert(failed.end(), resource->index());
    if (resource->status() == QVDownloadStatusPaused)
      paused.insert(paused.end(), resource->index());
    else if (resource->status() == QVDownloadStatusDownloading)
      running.insert(running.end(), resource->index());
    if ((resource->status() == QVDownloadStatusInactive) != !resource->downloadTask())
      return "a status does not fit the task";
    if (resource->index() < _cursor && !resource->completed() &&
        resource->status() == QVDownloadStatusInactive)
      return "cursor";
  }
  const std::pair<const char*, bool> checks[] = {
      {"sized", sized == _numSized},
      {"estimated", estimated == _numEstimated && (_estimated || _numEstimated == 0)},
      {"sized bytes", sizedBytes == _sizedBytes},
      {"downloaded bytes", downloadedBytes == _downloadedBytes},
      {"completed", completed == _numCompleted},
      {"all completed", _completed == (completed > 0 && completed == _resources.size())},
      {"unfetchable", unfetchable == _numUnfetchable},
      {"failed", failed == _failed},
      {"paused", paused == _paused},
      {"running", running == _running},
  };
  for (const auto& [name, right] : checks)
    if (!right)
      return "quality " + _quality->identifier() + ": " + name;
  return {};
}
