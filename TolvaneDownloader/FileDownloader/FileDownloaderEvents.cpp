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
/// Small files come faster than that, and each group costs the disk a flush or two.
constexpr std::chrono::milliseconds groupInterval{100};

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
  configuration.maximumLengthUnsynced = longestUnsynced;
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
  return std::optional(platform::URL::fileURLWithPath(places().path(token, fileNameOf(*download))));
}

// The server may name the file otherwise; then it is renamed. One that a killed process leaves there is none
// of the server's until its length and date say so (see `learnFrom`).
ZRKIfImplemented<platform::URL> FileDownloader::intendedLocalFileURLForIdentifier(const std::string& token) {
  const auto download = findDownload(token);
  if (!download)
    return std::nullopt;
  return platform::URL::fileURLWithPath(places().path(token, fileNameOf(*download)));
}

void FileDownloader::downloadProgressChangedForIdentifier(const std::string& token) {
  const auto download = findDownload(token);
  const auto queue = startedDownloader();
  const auto progress = queue ? queue->downloadProgressForIdentifier(token) : nullptr;
  if (!download || !progress)
    return;
  bool keep = false, fromZero = false;
  withRun(token, [&](Run& run) {
    fromZero = std::exchange(run.heldBefore, 0) > progress->receivedFileSize();
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
    Placed file{token, localFileURL.path(), FileManager::attributesOfItemAtPath(localFileURL.path()), false};
    // The server's date: until a record claims the file, it tells which version stands there.
    std::optional<std::int64_t> modified;
    withRun(token, [&](const Run& run) {
      file.isNew = run.isNew;
      modified = run.modified;
    });
    if (modified)
      if (auto error = FileManager::setModifiedSeconds(*modified, file.path))
        halvix::log_e(logTag, error->localizedDescription());
    return place(std::move(file));
  }
  halvix::log_e(logTag, "Completed download item not found " + token);
  halvix::Utils::removeFile(localFileURL.path()); // removed while its file came into its place
}

/// Takes note of a file in its place. It has to be synced before anything claims it, and small files together
/// cost little more than one.
void FileDownloader::place(Placed file) {
  const auto queue = startedDownloader();
  const bool moreToCome = queue && (queue->hasActiveDownloads() || queue->waitingDownloadsCount() > 0);
  {
    std::lock_guard lock(_fileMutex);
    Run& run = _runs[file.uuid];
    run.placed = true;
    run.ending = run.startAgain = false; // a pause came too late, and with it a start after it
    _placed.push_back(std::move(file));
    if (_grouping == Grouping::Completing || (_grouping == Grouping::Collecting && moreToCome))
      return;
    _grouping = Grouping::Completing;
  }
  completePlacedSoon();
}

/// Goes on with what has been placed meanwhile: at once, unless more is to come in a moment.
void FileDownloader::nextGroup() {
  const auto queue = startedDownloader();
  const bool moreToCome = queue && queue->hasActiveDownloads();
  {
    std::lock_guard lock(_fileMutex);
    _grouping = _placed.empty() ? Grouping::None : moreToCome ? Grouping::Collecting : Grouping::Completing;
    if (_grouping == Grouping::None)
      return;
  }
  if (!moreToCome)
    return completePlacedSoon();
  platform::SerialQueue::background().after(
      groupInterval, [weak = std::weak_ptr(std::static_pointer_cast<FileDownloader>(shared_from_this()))] {
        if (auto self = weak.lock())
          self->endCollecting();
      });
}

void FileDownloader::endCollecting() {
  {
    std::lock_guard lock(_fileMutex);
    if (_grouping != Grouping::Collecting)
      return;
    _grouping = Grouping::Completing;
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
  std::vector<Placed> placed;
  {
    std::lock_guard lock(_fileMutex);
    placed.swap(_placed);
  }
  std::vector<std::string> files;
  files.reserve(placed.size());
  for (const Placed& file : placed) {
    files.push_back(file.path);
    if (!file.isNew)
      removeOthers(file);
  }
  auto errors = _groupSync->sync(files);
  // Where the events of the ends go too: they follow when the records of all are stored, with one writing.
  platform::MainQueue::shared().async([self = std::static_pointer_cast<FileDownloader>(shared_from_this()),
                                       placed = std::move(placed), errors = std::move(errors)] {
    std::vector<std::shared_ptr<Download>> complete;
    for (std::size_t i = 0; i < placed.size(); ++i) {
      const Placed& file = placed[i];
      const auto download = self->findDownload(file.uuid);
      auto error = errors[i];
      if (!error && !file.attributes)
        error = platform::makePOSIXError(ENOENT, file.path);         // somebody has taken it away
      const bool isWanted = download && !self->isRemoved(file.uuid); // it may have come after the removal
      const bool mayBeLost = error && file.attributes && file.attributes->size <= longestUnsynced;
      if (!isWanted || mayBeLost)
        halvix::Utils::removeFile(file.path);
      if (isWanted && error)
        self->fail(download, fileFailure(error, 0, {}));
      if (isWanted && !error) {
        self->complete(*download, file);
        complete.push_back(download);
      }
      std::lock_guard lock(self->_fileMutex);
      Run& run = self->_runs[file.uuid];
      run.placed = false;
      if (!error && !run.removed)
        self->_runs.erase(file.uuid); // the record knows everything now
    }
    self->storeItems();
    if (const auto events = self->dispatcher())
      for (const auto& download : complete)
        events->dispatchDownloadFinished(download);
    self->nextGroup();
  });
}

/// What an earlier process left of a download under another name is no longer wanted.
void FileDownloader::removeOthers(const Placed& file) {
  for (const FilePlaces::Left& left : places().leftOf(file.uuid))
    if (left.path != file.path)
      if (auto error = halvix::Utils::removeFile(left.path))
        halvix::log_e(logTag, error->localizedDescription());
}

void FileDownloader::complete(Download& download, const Placed& file) {
  download.setResumeData(nullptr);
  download.setLocalRelativePath(file.path.substr(file.path.rfind('/') + 1)); // all stand beside each other
  download.setProgress(download.progress()
                           .copyWithExpectedContentSize(file.attributes->size)
                           .copyWithDownloadedContentSize(file.attributes->size)
                           .copyWithProgress(1));
  download.setState(DownloadState::success);
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
  if (!removedUrl.empty())
    discardParts(removedUrl);
  if (!download)
    return halvix::log_e(logTag, "Failed download item not found " + token);
  // The end of an earlier start of a download that was started again already.
  if (isUnderWay(token))
    return;
  const bool again = startsAgain(token);
  const bool paused = download->state() == DownloadState::paused;
  download->setResumeData(resumeData);
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
    fail(download, fileFailure(error, httpStatusCode, errorMessagesStack));
  storeSoon();
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
