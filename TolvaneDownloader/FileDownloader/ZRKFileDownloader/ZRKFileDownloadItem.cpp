#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloadItem.h"

#include "platform/foundation/Progress.h"

#include <sstream>

using platform::Progress;

ZRKFileDownloadItem::ZRKFileDownloadItem(std::string downloadToken,
                                         platform::DownloadTaskRef sessionDownloadTask,
                                         std::shared_ptr<platform::URLConnection> urlConnection)
    : _downloadToken(std::move(downloadToken)), _sessionDownloadTask(std::move(sessionDownloadTask)),
      _urlConnection(std::move(urlConnection)), _progress(Progress::progressWithTotalUnitCount(1)) {
  _progress->setKind(platform::NSProgressKindFile);
  _progress->setUserInfoObject(platform::NSProgressFileOperationKindKey,
                               std::string(platform::NSProgressFileOperationKindDownloading));
  _progress->setUserInfoObject("downloadToken", _downloadToken);
  _progress->setCancellable(true);
  _progress->setPausable(false);
}

std::shared_ptr<ZRKFileDownloadItem> ZRKFileDownloadItem::itemWithDownloadToken(
    std::string downloadToken, platform::DownloadTaskRef sessionDownloadTask,
    std::shared_ptr<platform::URLConnection> urlConnection, const std::shared_ptr<Progress>& parentProgress) {
  std::shared_ptr<ZRKFileDownloadItem> item(new ZRKFileDownloadItem(
      std::move(downloadToken), std::move(sessionDownloadTask), std::move(urlConnection)));
  if (parentProgress) {
    parentProgress->addToTotalUnitCount(1);
    parentProgress->addChild(item->_progress, 1);
  }
  return item;
}

std::optional<ZRKFileDownloadItem::Clock::time_point> ZRKFileDownloadItem::downloadStartDate() const {
  std::lock_guard guard(_mutex);
  return _downloadStartDate;
}

void ZRKFileDownloadItem::setDownloadStartDate(Clock::time_point date) {
  std::lock_guard guard(_mutex);
  _downloadStartDate = date;
}

void ZRKFileDownloadItem::setReceivedFileSizeInBytes(std::int64_t size) {
  _received = size;
  if (size >= 1 && _expected >= 1)
    _progress->setCompletedUnitCount(size);
}

void ZRKFileDownloadItem::setExpectedFileSizeInBytes(std::int64_t size) {
  if (_expected.exchange(size) != size && size >= 1)
    _progress->setTotalUnitCount(size);
}

std::vector<std::string> ZRKFileDownloadItem::errorMessagesStack() const {
  std::lock_guard guard(_mutex);
  return {_messages.rbegin(), _messages.rend()};
}

void ZRKFileDownloadItem::pushErrorMessage(std::string message) {
  std::lock_guard guard(_mutex);
  _messages.push_back(std::move(message));
}

std::optional<platform::URL> ZRKFileDownloadItem::finalLocalFileURL() const {
  std::lock_guard guard(_mutex);
  return _finalLocalFileURL;
}

void ZRKFileDownloadItem::setFinalLocalFileURL(platform::URL url) {
  std::lock_guard guard(_mutex);
  _finalLocalFileURL = std::move(url);
}

std::string ZRKFileDownloadItem::description() const {
  std::ostringstream text;
  text << std::boolalpha << "receivedFileSizeInBytes: " << _received
       << ", expectedFileSizeInBytes: " << _expected << ", bytesPerSecondSpeed: " << _speed
       << ", downloadToken: " << _downloadToken << ", progress: " << _progress->completedUnitCount() << " of "
       << _progress->totalUnitCount() << ", hasSessionDownloadTask: " << (_sessionDownloadTask != nullptr)
       << ", hasUrlConnection: " << (_urlConnection != nullptr);
  return text.str();
}
