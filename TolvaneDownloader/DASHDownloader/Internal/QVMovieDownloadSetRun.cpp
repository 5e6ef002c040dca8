// A set's run: from the start over the events of its resources to its end.

#include "TolvaneDownloader/DASHDownloader/Internal/QVByteArithmetic.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVDownloadErrors.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovie.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadSetChange.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMutableMovieDownloadProperties.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVQualityDownloadInfo.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceDownloadInfo.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceId.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"

#include <cstdio>
#include <cstdlib>

using Lock = std::lock_guard<platform::OrderedRecursiveMutex>;

namespace {

/// The given headers with the set's own over them.
QVHeadersRef mergedHeaders(const std::optional<platform::HTTPHeaders>& given,
                           const std::optional<platform::HTTPHeaders>& own) {
  if (!given && !own)
    return nullptr;
  auto merged = std::make_shared<platform::HTTPHeaders>(given ? *given : *own);
  if (given && own)
    for (const auto& [field, value] : *own)
      merged->insert_or_assign(field, value);
  return merged;
}

} // namespace

// Commands

bool QVMovieDownloadSet::downloadWithAdditionalHeaders(const std::optional<platform::HTTPHeaders>& headers) {
  Change change(*this);
  {
    Lock lock(_lock);
    if (_numActive != 0)
      return false;
    if (_selectedQualitiesInfo.empty()) {
      QVLogInfo("QVMoviedownloadSet No qualities selected. Download not starting");
      return false;
    }
    const QVHeadersRef merged = mergedHeaders(headers, _additionalHeaders);
    for (const auto& info : _selectedQualitiesInfo) {
      info->setAdditionalHeaders(merged);
      info->setParallellDownloads(_parallelDownloads);
      if (info->download()) {
        ++_numActive;
        ++_numRunning;
      }
    }
    _assertCounters();
    if (_numRunning == 0)
      return false;
  }
  _tell([](auto& delegate, const auto& self) {
    delegate.movieDownloadSetDidChangeStatus(self, QVDownloadStatusDownloading);
  });
  return true;
}

void QVMovieDownloadSet::pause() {
  Change change(*this);
  {
    Lock lock(_lock);
    if (_numRunning == 0)
      return;
    for (const auto& info : _selectedQualitiesInfo)
      if (info->pause())
        --_numRunning;
  }
  _tell([](auto& delegate, const auto& self) {
    delegate.movieDownloadSetDidChangeStatus(self, QVDownloadStatusPaused);
  });
}

void QVMovieDownloadSet::resume() {
  Change change(*this);
  {
    Lock lock(_lock);
    if (_numActive == _numRunning)
      return;
    for (const auto& info : _selectedQualitiesInfo) {
      // A quality with resources of both kinds is running already; it only gets its last ones going.
      const bool wasRunning = info->status() == QVDownloadStatusDownloading;
      if (info->resume() && !wasRunning)
        ++_numRunning;
    }
  }
  _tell([](auto& delegate, const auto& self) {
    delegate.movieDownloadSetDidChangeStatus(self, QVDownloadStatusDownloading);
  });
}

void QVMovieDownloadSet::cancel() {
  Change change(*this);
  {
    Lock lock(_lock);
    if (_numActive == 0)
      return;
    for (const auto& info : _selectedQualitiesInfo) {
      const QVDownloadStatus before = info->status();
      const std::int64_t bytes = info->downloadedBytes();
      if (!info->cancel())
        continue;
      _updateDownloaded(bytes, info->downloadedBytes());
      if (before == QVDownloadStatusDownloading)
        --_numRunning;
      --_numActive;
    }
    _assertCounters();
  }
  _tell([](auto& delegate, const auto& self) {
    delegate.movieDownloadSetDidChangeStatus(self, QVDownloadStatusInactive);
  });
}

// Events

bool QVMovieDownloadSet::reattachResource(const QVResourceId& resourceId,
                                          const platform::DownloadTaskRef& task) {
  Change change(*this);
  Lock lock(_lock);
  InfoRef info;
  for (const auto& candidate : _infos) {
    if (resourceId.qualityId() && candidate->quality()->identifier() == *resourceId.qualityId()) {
      info = candidate;
      break;
    }
  }
  if (!info)
    return false;
  _selectQuality(info);
  const QVDownloadStatus before = info->status();
  const QVDownloadSize expected = info->expectedBytes();
  const std::int64_t bytes = info->downloadedBytes();
  if (!info->reattachResource(resourceId, task))
    return false;
  if (before != QVDownloadStatusDownloading) {
    if (before == QVDownloadStatusInactive)
      ++_numActive;
    if (info->status() == QVDownloadStatusDownloading)
      ++_numRunning;
  }
  _updateExpected(expected, info->expectedBytes());
  _updateDownloaded(bytes, info->downloadedBytes());
  return true;
}

void QVMovieDownloadSet::resourceBytesDownloaded(const std::shared_ptr<QVResourceDownloadInfo>& resource,
                                                 std::int64_t bytes, std::int64_t expected) {
  Change change(*this);
  const InfoRef info = resource->quality();
  if (!info)
    return;
  QVDownloadProgress ofQuality = QVDownloadProgressUnknown;
  QVDownloadProgress ofSet = QVDownloadProgressUnknown;
  {
    Lock lock(_lock);
    const QVDownloadSize oldExpected = info->expectedBytes();
    const std::int64_t oldBytes = info->downloadedBytes();
    info->resourceBytesDownloaded(resource, bytes, expected);
    _updateExpected(oldExpected, info->expectedBytes());
    _updateDownloaded(oldBytes, info->downloadedBytes());
    ofQuality = info->progress();
    ofSet = _progress();
  }
  if (ofQuality.value != QVDownloadProgressUnknownValue)
    _tell([&](auto& delegate, const auto& self) {
      delegate.movieDownloadSetDidUpdateProgressForQuality(self, ofQuality, info->quality());
    });
  if (ofSet.value != QVDownloadProgressUnknownValue)
    _tell([&](auto& delegate, const auto& self) { delegate.movieDownloadSetDidUpdateProgress(self, ofSet); });
}

void QVMovieDownloadSet::resourceCompleteWithError(const std::shared_ptr<QVResourceDownloadInfo>& resource,
                                                   const platform::ErrorRef& error) {
  Change change(*this);
  const InfoRef info = resource->quality();
  if (!info)
    return;
  platform::ErrorRef qualityError;
  {
    Lock lock(_lock);
    const QVDownloadStatus before = info->status();
    const std::int64_t bytes = info->downloadedBytes();
    const bool finished = info->resourceCompleteWithError(resource, error);
    _updateDownloaded(bytes, info->downloadedBytes());
    if (!finished)
      return;
    if (before != QVDownloadStatusInactive)
      --_numActive;
    if (before == QVDownloadStatusDownloading)
      --_numRunning;
    ++_numCompleted;
    if (info->failed())
      ++_numFailed;
    qualityError = info->error();
  }
  _tell([&](auto& delegate, const auto& self) {
    delegate.movieDownloadSetDidCompleteQuality(self, info->quality(), qualityError);
  });

  platform::ErrorRef runError;
  {
    Lock lock(_lock);
    // Looked at only now: the delegate may have cancelled the rest, or started again.
    if (_numActive != 0 || _numCompleted != static_cast<std::int64_t>(_selectedQualitiesInfo.size()))
      return;
    runError = _makeError();
    _finishRun();
  }
  _tell([](auto& delegate, const auto& self) {
    delegate.movieDownloadSetDidChangeStatus(self, QVDownloadStatusInactive);
  });
  _tell([&](auto& delegate, const auto& self) {
    delegate.movieDownloadSetDidCompleteWithError(self, runError);
  });
}

platform::ErrorRef QVMovieDownloadSet::_makeError() const {
  if (_numFailed == 0)
    return nullptr;
  QVQualityErrors errors;
  for (const auto& info : _selectedQualitiesInfo)
    if (info->failed())
      errors[info->quality()->identifier()] = info->error();
  return QVMakeSetError(_movie, std::move(errors));
}

void QVMovieDownloadSet::_finishRun() {
  for (std::size_t at = _selectedQualitiesInfo.size(); at-- > 0;) {
    const InfoRef info = _selectedQualitiesInfo[at];
    if (!info->completed() || info->failed()) {
      info->clear();
    } else {
      _deselectQuality(info);
      _downloadedQualitiesInfo.push_back(info);
    }
  }
  _downloadedBytes = _numCompleted = _numFailed = 0;
  _downloadedBytesBase = 0;
  for (const auto& info : _selectedQualitiesInfo) {
    _noteCompletion(*info, 1); // what no run can fetch stays finished
    _downloadedBytesBase = QVWrappingSubtract(_downloadedBytesBase, info->downloadedBytes());
  }
  _assertCounters();

  unsigned video = 0, audio = 0, text = 0;
  std::vector<std::string> identifiers;
  identifiers.reserve(_downloadedQualitiesInfo.size());
  for (const auto& info : _downloadedQualitiesInfo) {
    const QVMediaType type = info->quality()->type();
    video += type == QVMediaTypeVideo;
    audio += type == QVMediaTypeAudio;
    text += type == QVMediaTypeText;
    identifiers.push_back(info->quality()->identifier());
  }
  if (_properties)
    _properties->setDownloadedQualities(static_cast<unsigned>(identifiers.size()), video, audio, text,
                                        identifiers);
}

// The recount

std::string QVMovieDownloadSet::_checkCounters() const {
  Lock lock(_lock);
  for (const auto& info : _infos)
    if (auto wrong = info->_checkCounters(); !wrong.empty())
      return wrong;
  std::int64_t active = 0, running = 0, completed = 0, failed = 0, sized = 0, estimated = 0;
  std::int64_t types[3] = {0, 0, 0};
  std::int64_t sizedBytes = 0, downloadedBytes = _downloadedBytesBase;
  for (const auto& info : _selectedQualitiesInfo) {
    active += info->status() != QVDownloadStatusInactive;
    running += info->status() == QVDownloadStatusDownloading;
    completed += info->completed();
    failed += info->failed();
    const QVDownloadSize expected = info->expectedBytes();
    const bool known = expected.value != QVDownloadSizeUnknownValue;
    sized += known;
    estimated += known && expected.estimated;
    sizedBytes = QVWrappingAdd(sizedBytes, known ? expected.value : 0);
    downloadedBytes = QVWrappingAdd(downloadedBytes, info->downloadedBytes());
    const QVMediaType type = info->quality()->type();
    if (type >= QVMediaTypeVideo && type <= QVMediaTypeText)
      ++types[type - QVMediaTypeVideo];
    if (_isDownloaded(info))
      return "set: a quality is selected and downloaded";
  }
  const std::pair<const char*, bool> checks[] = {
      {"active", active == _numActive},
      {"running", running == _numRunning},
      {"completed", completed == _numCompleted},
      {"failed", failed == _numFailed},
      {"sized", sized == _numSized},
      {"estimated", estimated == _numEstimated && _estimated == (estimated != 0)},
      {"sized bytes", sizedBytes == _sizedBytes},
      {"downloaded bytes", downloadedBytes == _downloadedBytes},
      {"media types",
       types[0] == _numVideoQualities && types[1] == _numAudioQualities && types[2] == _numTextQualities},
  };
  for (const auto& [name, right] : checks)
    if (!right)
      return std::string("set: ") + name;
  return {};
}

void QVMovieDownloadSet::_assertCounters() const {
#ifndef NDEBUG
  if (const std::string wrong = _checkCounters(); !wrong.empty()) {
    std::fprintf(stderr, "Wrong counter of %s\n", wrong.c_str());
    std::abort();
  }
#endif
}
