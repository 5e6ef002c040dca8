#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace halvix {

class Download;
class DownloaderDispatcherProtocol;

/// What the downloads of one downloader share with it: the list of changed records, so that storing never
/// looks at unchanged ones, and the dispatcher. It outlives its downloader while downloads are held
/// elsewhere. Thread-safe; its lock is the innermost one.
class DownloadHub {
public:
  explicit DownloadHub(std::string downloadPath) : _downloadPath(std::move(downloadPath)) {}

  const std::string& downloadPath() const { return _downloadPath; }

  void noteChanged(std::weak_ptr<Download> download) {
    std::lock_guard lock(_mutex);
    _changed.push_back(std::move(download));
  }
  std::vector<std::weak_ptr<Download>> takeChanged() {
    std::lock_guard lock(_mutex);
    return std::exchange(_changed, {});
  }

  std::shared_ptr<DownloaderDispatcherProtocol> dispatcher() const {
    std::lock_guard lock(_mutex);
    return _dispatcher;
  }
  void setDispatcher(std::shared_ptr<DownloaderDispatcherProtocol> dispatcher) {
    std::lock_guard lock(_mutex);
    _dispatcher.swap(dispatcher); // the old one ends after the lock
  }

private:
  const std::string _downloadPath;
  mutable std::mutex _mutex;
  std::vector<std::weak_ptr<Download>> _changed;
  std::shared_ptr<DownloaderDispatcherProtocol> _dispatcher;
};

} // namespace halvix
