#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceDownloadInfo.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVDownloadController.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVDownloadErrors.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVRangedURL.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceId.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourcePath.h"

#include <algorithm>

namespace {

/// A request that fails when it is started: a resource without a usable URL fails like any other then,
/// through the session's events.
platform::URLRequest hopelessRequest() {
  static const platform::URL url = *platform::URL::URLWithString("about:blank");
  return platform::URLRequest(url);
}

} // namespace

std::shared_ptr<QVResourceDownloadInfo> QVResourceDownloadInfo::infoWithResource(
    std::shared_ptr<QVRangedURL> resource, std::shared_ptr<const QVResourceDirectory> directory,
    std::weak_ptr<QVQualityDownloadInfo> quality, std::size_t index, const QVDownloadSize& expectedSize,
    std::weak_ptr<QVDownloadController> controller) {
  return std::make_shared<QVResourceDownloadInfo>(Passkey(), std::move(resource), std::move(directory),
                                                  std::move(quality), index, expectedSize,
                                                  std::move(controller));
}

QVResourceDownloadInfo::QVResourceDownloadInfo(Passkey, std::shared_ptr<QVRangedURL> resource,
                                               std::shared_ptr<const QVResourceDirectory> directory,
                                               std::weak_ptr<QVQualityDownloadInfo> quality,
                                               std::size_t index, const QVDownloadSize& expectedSize,
                                               std::weak_ptr<QVDownloadController> controller)
    : _resource(std::move(resource)), _directory(std::move(directory)), _quality(std::move(quality)),
      _controller(std::move(controller)), _index(index), _expectedBytes(expectedSize) {
  if (_resource->length() != 0)
    _expectedBytes = {
        static_cast<std::int64_t>(std::min(_resource->length(), static_cast<std::uint64_t>(INT64_MAX))),
        false};
  std::string reason;
  if (!_directory->relativePath(_resource->referenceURL(), &reason)) {
    _unfetchable = _completed = true;
    _error = QVMakeResourceError(QVDownloadErrorResourcePath, _resource->referenceURL(), reason);
  }
}

QVResourceDownloadInfo::~QVResourceDownloadInfo() = default;

std::shared_ptr<QVQualityDownloadInfo> QVResourceDownloadInfo::quality() const {
  return _quality.lock();
}

std::shared_ptr<QVDownloadController> QVResourceDownloadInfo::controller() const {
  return _controller.lock();
}

const std::string& QVResourceDownloadInfo::relativeResourcePath() const {
  return _resource->referenceURL();
}

std::string QVResourceDownloadInfo::relativePathOnDisk() const {
  return _directory->relativePath(_resource->referenceURL()).value_or(std::string());
}

std::string QVResourceDownloadInfo::resourcePath() const {
  const auto relative = _directory->relativePath(_resource->referenceURL());
  return relative ? _directory->path() + "/" + *relative : std::string();
}

platform::DownloadTaskRef QVResourceDownloadInfo::_makeTask(const platform::Data* resumeData) const {
  const auto owner = controller();
  const auto session = owner ? owner->downloadSession() : nullptr;
  if (!session)
    return nullptr;
  if (resumeData)
    return session->downloadTaskWithResumeData(*resumeData);
  auto request = _resource->prepareRequest();
  if (!request)
    return session->downloadTaskWithRequest(hopelessRequest());
  if (_additionalHeaders)
    for (const auto& [field, value] : *_additionalHeaders)
      request->setValueForHTTPHeaderField(value, field);
  return session->downloadTaskWithRequest(*request);
}

bool QVResourceDownloadInfo::activate() {
  if (_status != QVDownloadStatusInactive || _completed)
    return false;
  const auto task = _makeTask(nullptr);
  return task && activateWithTask(task);
}

bool QVResourceDownloadInfo::activateWithTask(const platform::DownloadTaskRef& task) {
  if (_status != QVDownloadStatusInactive || _completed)
    return false;
  _downloadTask = task;
  _status = QVDownloadStatusPaused;
  _describeTask();
  if (const auto owner = controller())
    owner->resourceAttachTask(shared_from_this(), task);
  return true;
}

bool QVResourceDownloadInfo::reactivateReset() {
  if (_unfetchable || _reactivations >= _maxReactivations)
    return false;
  _completed = false;
  _error = nullptr;
  ++_reactivations;
  _downloadedBytes = 0;
  return true;
}

bool QVResourceDownloadInfo::reactivate() {
  return _reactivateWithTask(nullptr);
}

bool QVResourceDownloadInfo::reactivateWithData(const platform::Data& resumeData) {
  return _reactivateWithTask(&resumeData);
}

bool QVResourceDownloadInfo::_reactivateWithTask(const platform::Data* resumeData) {
  const bool wasCompleted = _completed;
  const auto error = _error;
  if (!reactivateReset())
    return false;
  if (_status == QVDownloadStatusInactive)
    if (const auto task = _makeTask(resumeData))
      return activateWithTask(task);
  _completed = wasCompleted;
  _error = error;
  return false;
}

bool QVResourceDownloadInfo::reattachWithStatus(std::uint64_t status, const platform::DownloadTaskRef& task) {
  // A completed record has its file, or must not have one; a second fetch would only be in its way.
  if (_downloadTask || _completed)
    return false;
  const auto state = task->state();
  if (state == platform::URLSessionTaskState::Canceling)
    return false;
  _downloadTask = task;
  if (status == QVDownloadStatusPaused || status == QVDownloadStatusDownloading)
    _status = static_cast<QVDownloadStatus>(status);
  else // not a description of ours; the task itself knows
    _status = state == platform::URLSessionTaskState::Suspended ? QVDownloadStatusPaused
                                                                : QVDownloadStatusDownloading;
  const std::int64_t expected = task->countOfBytesExpectedToReceive();
  if (expected != platform::NSURLSessionTransferSizeUnknown)
    _expectedBytes = {expected, false};
  _downloadedBytes = task->countOfBytesReceived();
  if (const auto owner = controller())
    owner->resourceAttachTask(shared_from_this(), task);
  return true;
}

bool QVResourceDownloadInfo::pause() {
  if (_status != QVDownloadStatusDownloading)
    return false;
  _downloadTask->suspend();
  _status = QVDownloadStatusPaused;
  _describeTask();
  return true;
}

bool QVResourceDownloadInfo::resume() {
  if (_status != QVDownloadStatusPaused)
    return false;
  _downloadTask->resume();
  _status = QVDownloadStatusDownloading;
  _describeTask();
  return true;
}

bool QVResourceDownloadInfo::cancel() {
  if (_status == QVDownloadStatusInactive)
    return false;
  _releaseTask();
  _downloadedBytes = 0;
  return true;
}

void QVResourceDownloadInfo::completeWithError(platform::ErrorRef error) {
  _releaseTask();
  if (_unfetchable)
    return;
  _completed = true;
  _error = std::move(error);
  if (_error)
    _downloadedBytes = 0;
}

void QVResourceDownloadInfo::completeWithBytesPreloaded(std::int64_t bytes) {
  if (_unfetchable)
    return;
  _expectedBytes = {bytes, false};
  _downloadedBytes = bytes;
  _completed = true;
  _error = nullptr;
}

void QVResourceDownloadInfo::bytesDownloaded(std::int64_t downloaded, std::int64_t expected) {
  if (expected != platform::NSURLSessionTransferSizeUnknown)
    _expectedBytes = {expected, false};
  _downloadedBytes = downloaded;
}

bool QVResourceDownloadInfo::clear() {
  if (!_error || _unfetchable)
    return false;
  _completed = false;
  _error = nullptr;
  _reactivations = 0;
  _downloadedBytes = 0;
  return true;
}

void QVResourceDownloadInfo::reset() {
  _downloadTask = nullptr;
  _status = QVDownloadStatusInactive;
  _reactivations = 0;
  _downloadedBytes = 0;
  if (_unfetchable)
    return;
  _error = nullptr;
  _completed = false;
}

void QVResourceDownloadInfo::_describeTask() {
  _downloadTask->setTaskDescription(QVResourceId::resourceIdWithResource(*this).serializeToJSON());
}

void QVResourceDownloadInfo::_releaseTask() {
  const auto task = std::move(_downloadTask);
  _downloadTask = nullptr;
  _status = QVDownloadStatusInactive;
  if (!task)
    return;
  if (const auto owner = controller())
    owner->resourceDetachTask(shared_from_this(), task);
  task->cancel();
  task->setTaskDescription(std::nullopt);
}
