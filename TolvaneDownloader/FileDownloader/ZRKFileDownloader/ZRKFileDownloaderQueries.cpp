// What can be asked of the queue, and how fast a download is.

#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKConnectionDownload.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloadItem.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloadProgress.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloader.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloaderState.h"

#include "platform/foundation/Progress.h"

#include <algorithm>

using namespace platform;

bool ZRKFileDownloader::isDownloadingIdentifier(const std::string& token) const {
  std::lock_guard guard(_state->mutex);
  if (_state->downloadIDForActiveDownloadToken(token))
    return true;
  return std::any_of(_state->starting.begin(), _state->starting.end(),
                     [&](const auto& entry) { return entry.downloadToken == token; });
}

bool ZRKFileDownloader::isWaitingForDownloadOfIdentifier(const std::string& token) const {
  std::lock_guard guard(_state->mutex);
  return _state->waitingTokens.contains(token);
}

bool ZRKFileDownloader::hasActiveDownloads() const {
  return activeDownloadsCount() > 0;
}

std::shared_ptr<ZRKFileDownloadProgress>
ZRKFileDownloader::downloadProgressForIdentifier(const std::string& token) const {
  ItemRef item;
  {
    std::lock_guard guard(_state->mutex);
    if (auto downloadID = _state->downloadIDForActiveDownloadToken(token))
      item = _state->item(*downloadID);
  }
  return item ? _downloadProgressForItem(*item) : nullptr;
}

std::shared_ptr<const HTTPURLResponse>
ZRKFileDownloader::responseForIdentifier(const std::string& token) const {
  State::Active active;
  {
    std::lock_guard guard(_state->mutex);
    const auto downloadID = _state->downloadIDForActiveDownloadToken(token);
    const auto found = downloadID ? _state->activeDownloadsDictionary.find(*downloadID)
                                  : _state->activeDownloadsDictionary.end();
    if (found == _state->activeDownloadsDictionary.end())
      return nullptr;
    active = found->second;
  }
  if (active.connectionDownload)
    return active.connectionDownload->response();
  return active.item->sessionDownloadTask() ? active.item->sessionDownloadTask()->response() : nullptr;
}

std::shared_ptr<ZRKFileDownloadProgress>
ZRKFileDownloader::_downloadProgressForItem(ZRKFileDownloadItem& item) {
  const auto expected = item.expectedFileSizeInBytes(), received = item.receivedFileSizeInBytes();
  const float fraction = expected >= 1 ? static_cast<float>(received) / static_cast<float>(expected) : 0;
  const auto sample = remainingTimeAndBytesPerSecondForDownloadItem(item);
  item.progress()->setThroughput(static_cast<std::int64_t>(sample.bytesPerSecondSpeed));
  item.progress()->setEstimatedTimeRemaining(std::chrono::duration<double>(sample.remainingTime));
  return ZRKFileDownloadProgress::downloadProgress(fraction, expected, received, sample.remainingTime,
                                                   sample.bytesPerSecondSpeed, item.progress());
}

ZRKFileDownloader::SpeedAndRemainingTime
ZRKFileDownloader::remainingTimeAndBytesPerSecondForDownloadItem(ZRKFileDownloadItem& item,
                                                                 std::chrono::steady_clock::time_point now) {
  const auto received = item.receivedFileSizeInBytes(), expected = item.expectedFileSizeInBytes();
  if (received < 1 || expected < 1)
    return {};
  // How much of the speed is the newest sample's.
  constexpr float Newest = 0.8f;
  const auto started = item.downloadStartDate();
  const double elapsed = started ? std::chrono::duration<double>(now - *started).count() : 0;
  const auto sessionBytes = received - item.resumedFileSizeInBytes();
  const float sample = elapsed > 0 ? static_cast<float>(static_cast<double>(sessionBytes) / elapsed) : 0.0f;
  const auto stored = item.bytesPerSecondSpeed();
  float speed = sample;
  if (stored != 0)
    speed = sample * Newest + static_cast<float>(stored) * (1 - Newest);
  SpeedAndRemainingTime result;
  if (speed > 0) {
    const auto missing = expected - (sessionBytes + item.resumedFileSizeInBytes());
    result.remainingTime = static_cast<double>(missing) / static_cast<double>(speed);
    result.bytesPerSecondSpeed = static_cast<std::uint64_t>(speed);
  }
  item.setBytesPerSecondSpeed(result.bytesPerSecondSpeed);
  return result;
}

bool ZRKFileDownloader::httpStatusCodeIsValidForDownloadIdentifier(int httpStatusCode, const std::string&) {
  return httpStatusCode >= 200 && httpStatusCode < 300;
}

std::string ZRKFileDownloader::backgroundSessionIdentifier() const {
  std::lock_guard guard(_state->mutex);
  return _state->backgroundSessionIdentifier;
}

std::shared_ptr<URLSession> ZRKFileDownloader::backgroundSession() const {
  std::lock_guard guard(_state->mutex);
  return _state->backgroundSession;
}

ErrorRef ZRKFileDownloader::sessionError() const {
  std::lock_guard guard(_state->mutex);
  return _state->sessionError;
}

std::uint64_t ZRKFileDownloader::maxConcurrentFileDownloadsCount() const {
  return _state->maxConcurrentFileDownloadsCount;
}

ZRKFileDownloader::DownloadID ZRKFileDownloader::highestDownloadID() const {
  std::lock_guard guard(_state->mutex);
  return _state->highestDownloadID;
}

std::size_t ZRKFileDownloader::activeDownloadsCount() const {
  std::lock_guard guard(_state->mutex);
  return _state->activeDownloadsDictionary.size() + _state->starting.size();
}

std::size_t ZRKFileDownloader::waitingDownloadsCount() const {
  std::lock_guard guard(_state->mutex);
  return _state->waitingDownloadsArray.size();
}
