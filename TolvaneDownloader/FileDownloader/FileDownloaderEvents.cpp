// What the queue tells, carried into the host's records.

#include "TolvaneDownloader/FileDownloader/FileDownloader.h"
#include "TolvaneDownloader/FileDownloader/FileFailure.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloadProgress.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloader.h"

#include "halvix/Download.h"
#include "halvix/HostEnvironment.h"
#include "halvix/Log.h"
#include "halvix/Utils.h"
#include "platform/concurrency/Queue.h"
#include "platform/foundation/FileManager.h"
#include "platform/transfer/TransferService.h"

#include <utility>

using halvix::Download;
using halvix::DownloadState;
using platform::FileManager;

namespace {

constexpr const char* logTag = "[FileDownloader]";
/// What a killed process leaves behind should not look as if it had done nothing.
constexpr std::chrono::seconds keepInterval{2};

/// Why bytes of an earlier run were of no use, as far as the new response tells.
std::string restartReason(const platform::HTTPURLResponse* response) {
  if (!response)
    return "the server would not go on with it";
  if (!response->valueForHTTPHeaderField("ETag") && !response->valueForHTTPHeaderField("Last-Modified"))
    return "the server does not tell versions of the file apart (no ETag, no Last-Modified)";
  const auto ranges = response->valueForHTTPHeaderField("Accept-Ranges");
  if (!ranges || *ranges == "none")
    return "the server does not serve parts of files";
  return "the file at the server has changed";
}

} // namespace

void FileDownloader::incrementNetworkActivityIndicatorActivityCount() {
  toggleActivityIndicator(true);
}

void FileDownloader::decrementNetworkActivityIndicatorActivityCount() {
  toggleActivityIndicator(false);
}

void FileDownloader::customizeBackgroundSessionConfiguration(
    platform::URLSessionConfiguration& configuration) {
  for (const auto& [name, value] : headers())
    configuration.HTTPAdditionalHeaders[name] = value;
  configuration.allowsCellularAccess = cellularAccess();
}

// The queue asks when a download's turn has come.
ZRKIfImplemented<std::optional<platform::URLRequest>>
FileDownloader::urlRequestForRemoteURL(const platform::URL& remoteURL) {
  platform::URLRequest request(remoteURL);
  std::string uuid;
  {
    std::lock_guard lock(_fileMutex);
    if (const auto known = _byRemoteURL.find(remoteURL.absoluteString()); known != _byRemoteURL.end())
      uuid = known->second;
  }
  if (auto download = findDownload(uuid)) {
    for (const auto& [name, value] : download->headers())
      request.setValueForHTTPHeaderField(value, name);
    if (download->state() == DownloadState::idle)
      download->setState(DownloadState::running);
  }
  return std::optional(std::move(request));
}

ZRKIfImplemented<std::optional<platform::URL>>
FileDownloader::localFileURLForIdentifier(const std::string& token, const platform::URL&) {
  const auto download = findDownload(token);
  if (!download || isRemoved(token))
    return std::optional<platform::URL>();
  learnName(*download);
  const std::string folder = folderOf(token);
  if (auto error = FileManager::createDirectoryAtPathUnsynced(folder)) {
    withRun(token, [&](Run& run) { run.placeError = error; });
    return std::optional<platform::URL>();
  }
  return std::optional(platform::URL::fileURLWithPath(folder + "/" + fileNameOf(*download)));
}

void FileDownloader::downloadProgressChangedForIdentifier(const std::string& token) {
  const auto download = findDownload(token);
  const auto queue = startedDownloader();
  const auto progress = queue ? queue->downloadProgressForIdentifier(token) : nullptr;
  if (!download || !progress)
    return;
  bool keep = false, fromZero = false, named = false;
  withRun(token, [&](Run& run) {
    fromZero = std::exchange(run.heldBefore, 0) > progress->receivedFileSize();
    named = run.named;
    const auto now = std::chrono::steady_clock::now();
    keep = now - run.kept >= keepInterval;
    if (keep)
      run.kept = now;
  });
  download->setProgress(
      download->progress()
          .copyWithExpectedContentSize(progress->expectedFileSize() > 0 ? progress->expectedFileSize() : -1)
          .copyWithDownloadedContentSize(progress->receivedFileSize())
          .copyWithAverageBitRate(static_cast<double>(progress->bytesPerSecondSpeed()))
          .copyWithProgress(-1));
  // A turn of a download that goes on from resume data shows here first.
  if (download->state() == DownloadState::idle)
    download->setState(DownloadState::running);
  if (!named)
    learnName(*download);
  if (fromZero)
    explainRestart(*download);
  if (keep) {
    download->markChanged();
    storeSoon();
  }
}

void FileDownloader::explainRestart(Download& download) {
  const auto queue = startedDownloader();
  const auto response = queue ? queue->responseForIdentifier(download.uuid()) : nullptr;
  if (response && response->statusCode() >= 400)
    return;
  const std::string notice = "started from the beginning: " + restartReason(response.get());
  halvix::log_d(logTag, download.uuid() + " " + notice);
  download.setNotices({notice});
}

bool FileDownloader::isRemoved(const std::string& uuid) const {
  std::lock_guard lock(_fileMutex);
  const auto run = _runs.find(uuid);
  return run != _runs.end() && run->second.removed;
}

void FileDownloader::downloadDidCompleteWithIdentifier(const std::string& token,
                                                       const platform::URL& localFileURL) {
  if (findDownload(token) && !isRemoved(token)) {
    // The server's date: until a record claims the file, it tells which version stands there.
    std::optional<std::int64_t> modified;
    withRun(token, [&modified](const Run& run) { modified = run.modified; });
    if (modified)
      if (auto error = FileManager::setModifiedSeconds(*modified, localFileURL.path()))
        halvix::log_e(logTag, error->localizedDescription());
    return place(token, localFileURL.path());
  }
  halvix::log_e(logTag, "Completed download item not found " + token);
  halvix::Utils::removeFolder(folderOf(token)); // removed while its file came into its place
}

/// Takes note of a file in its place. Its directories have to be synced before anything claims it. Those that
/// come until the records of the ones before are stored go together.
void FileDownloader::place(const std::string& uuid, const std::string& path) {
  {
    std::lock_guard lock(_fileMutex);
    Run& run = _runs[uuid];
    run.placed = true;
    run.ending = run.startAgain = false; // a pause came too late, and with it a start after it
    _placed.emplace_back(uuid, path);
    if (std::exchange(_completing, true))
      return;
  }
  completePlacedSoon();
}

void FileDownloader::completePlacedSoon() {
  platform::SerialQueue::background().async(
      [weak = std::weak_ptr(std::static_pointer_cast<FileDownloader>(shared_from_this()))] {
        if (auto self = weak.lock())
          self->completePlaced();
      });
}

void FileDownloader::completePlaced() {
  std::vector<std::pair<std::string, std::string>> placed;
  {
    std::lock_guard lock(_fileMutex);
    placed.swap(_placed);
  }
  std::vector<std::string> directories{downloadPath()};
  for (const auto& [uuid, path] : placed) {
    const std::string folder = folderOf(uuid);
    directories.push_back(folder);
    // What an earlier process left under another name is no longer wanted.
    if (const auto download = findDownload(uuid))
      for (const std::string& name : standingFilesOf(*download))
        if (folder + "/" + name != path)
          if (auto error = FileManager::removeItemAtPath(folder + "/" + name))
            halvix::log_e(logTag, error->localizedDescription());
  }
  const auto error = FileManager::syncDirectoriesAtPaths(directories);
  // Where the events of the ends go too: they follow when the records of all are stored, with one writing.
  platform::MainQueue::shared().async([self = std::static_pointer_cast<FileDownloader>(shared_from_this()),
                                       placed = std::move(placed), error] {
    for (const auto& [uuid, path] : placed) {
      const auto download = self->findDownload(uuid);
      if (!download || self->isRemoved(uuid))
        halvix::Utils::removeFolder(self->folderOf(uuid)); // it may have come after the removal
      else if (!error)
        self->complete(download, path);
      else
        self->fail(download, fileFailure(error, 0, {}));
      self->withRun(uuid, [](Run& run) { run.placed = false; });
    }
    self->storeItems();
    {
      std::lock_guard lock(self->_fileMutex);
      if (!(self->_completing = !self->_placed.empty()))
        return;
    }
    self->completePlacedSoon();
  });
}

void FileDownloader::complete(const std::shared_ptr<Download>& download, const std::string& path) {
  download->setResumeData(nullptr);
  platform::ErrorRef error;
  const auto attributes = FileManager::attributesOfItemAtPath(path, &error);
  if (!attributes) // somebody has taken it away
    return fail(download, fileFailure(error, 0, {}));
  download->setLocalRelativePath(halvix::Utils::relativePath(path, downloadPath()));
  download->setProgress(download->progress()
                            .copyWithExpectedContentSize(attributes->size)
                            .copyWithDownloadedContentSize(attributes->size)
                            .copyWithProgress(1));
  download->setState(DownloadState::success);
  platform::MainQueue::shared().async([weak = weak_from_this(), download] {
    auto self = weak.lock();
    if (auto events = self ? self->dispatcher() : nullptr)
      events->dispatchDownloadFinished(download);
  });
}

void FileDownloader::fail(const std::shared_ptr<Download>& download, const halvix::QVErrorRef& failure) {
  download->setState(DownloadState::failed);
  halvix::log_e(logTag, download->uuid() + " failed: " + failure->description());
  platform::MainQueue::shared().async([weak = weak_from_this(), download, failure] {
    auto self = weak.lock();
    if (auto events = self ? self->dispatcher() : nullptr)
      events->dispatchDownloadError(download, failure);
  });
}

void FileDownloader::downloadFailedWithIdentifier(const std::string& token, const platform::ErrorRef& error,
                                                  int httpStatusCode,
                                                  const std::vector<std::string>& errorMessagesStack,
                                                  const platform::DataRef& resumeData) {
  auto download = findDownload(token);
  std::string removedUrl;
  withRun(token, [&](Run& run) {
    if (run.removed)
      removedUrl = run.contentUrl;
  });
  if (!removedUrl.empty()) {
    discardParts(removedUrl);
    clearPlace(token);
  }
  if (!download)
    return halvix::log_e(logTag, "Failed download item not found " + token);
  // The end of an earlier start of a download that was started again already.
  if (isUnderWay(token))
    return;
  platform::ErrorRef placeError;
  withRun(token, [&](Run& run) { placeError = std::exchange(run.placeError, nullptr); });
  const bool again = startsAgain(token);
  const bool paused = download->state() == DownloadState::paused;
  download->setResumeData(resumeData);
  clearPlace(token);
  // The size of a page that told of an error says nothing about the file.
  if (httpStatusCode >= 300)
    download->setProgress(
        download->progress().copyWithExpectedContentSize(-1).copyWithDownloadedContentSize(0));
  if (again) {
    if (auto refused = startFileDownload(download)) {
      download->setState(DownloadState::failed);
      if (auto events = dispatcher())
        events->dispatchDownloadError(download, refused);
    }
    return storeSoon();
  }
  // The end of a pause is none that anybody should be told of as an error.
  if (!paused)
    fail(download, fileFailure(placeError ? placeError : error, httpStatusCode,
                               placeError ? std::vector<std::string>() : errorMessagesStack));
  storeSoon();
}

/// Takes away a directory that was made for a file that never came into it.
void FileDownloader::clearPlace(const std::string& uuid) {
  const std::string folder = folderOf(uuid);
  if (!FileManager::directoryExistsAtPath(folder) || !FileManager::contentsOfDirectoryAtPath(folder).empty())
    return;
  if (auto error = halvix::Utils::removeFolder(folder))
    halvix::log_e(logTag, error->localizedDescription());
}

/// A file may be gigabytes, and nobody asks for one again that was removed.
void FileDownloader::discardParts(const std::string& contentUrl) {
  const auto own = environment() ? environment()->transferService() : nullptr;
  const auto service = own ? own : platform::TransferService::defaultService();
  if (const auto url = platform::URL::URLWithString(contentUrl); url && service)
    service->discardPartialData(platform::URLRequest(*url));
}

void FileDownloader::downloadPausedWithIdentifier(const std::string& token,
                                                  const platform::DataRef& resumeData) {
  becamePaused(token, resumeData);
}

void FileDownloader::becamePaused(const std::string& uuid, const platform::DataRef& resumeData) {
  auto download = findDownload(uuid);
  bool placed = false; // the pause came too late
  withRun(uuid, [&](Run& run) { placed = run.placed; });
  if (!download || placed || isFinal(download->state()))
    return;
  download->setResumeData(resumeData);
  download->setState(DownloadState::paused);
  storeItems();
}

/// Takes the marks of an ended run away; whether it is to start again.
bool FileDownloader::startsAgain(const std::string& uuid) {
  std::lock_guard lock(_fileMutex);
  const auto run = _runs.find(uuid);
  if (run == _runs.end())
    return false;
  run->second.ending = false;
  return std::exchange(run->second.startAgain, false);
}

bool FileDownloader::onAuthenticationChallenge(const platform::AuthenticationChallenge&, const std::string&,
                                               const platform::ChallengeCompletion& completionHandler) {
  completionHandler(platform::AuthChallengeDisposition::PerformDefaultHandling, std::nullopt);
  return true;
}

void FileDownloader::storeSoon() {
  // One writing for all that changes until it begins: the queue tells of many small files in a row.
  if (_storing.exchange(true))
    return;
  platform::SerialQueue::background().async(
      [weak = std::weak_ptr(std::static_pointer_cast<FileDownloader>(shared_from_this()))] {
        if (auto self = weak.lock()) {
          self->_storing = false;
          self->storeItems();
        }
      });
}
