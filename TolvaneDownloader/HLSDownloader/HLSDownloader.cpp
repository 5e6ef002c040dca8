#include "TolvaneDownloader/HLSDownloader/HLSDownloader.h"

#include "TolvaneDownloader/HLSDownloader/AssetDescription.h"
#include "TolvaneDownloader/HLSDownloader/HLSPlaylistDownloader.h"

#include "halvix/Download.h"
#include "halvix/ErrorDescription.h"
#include "halvix/HostEnvironment.h"
#include "halvix/Log.h"
#include "halvix/Utils.h"
#include "platform/concurrency/Queue.h"
#include "platform/foundation/FileManager.h"
#include "platform/foundation/Locale.h"
#include "platform/foundation/URL.h"
#include "platform/transfer/TransferService.h"
#include "qvc/FastString.h"
#include "qvc/Uuid.h"

#include <algorithm>
#include <filesystem>
#include <optional>

using halvix::Download;
using halvix::DownloadState;
using halvix::ErrorSeverity;
using halvix::ErrorType;
using halvix::QVErrorBuilder;
using halvix::QVErrorRef;

namespace {

constexpr const char* logTag = "[HLSDownloader]";
/// Directory of this downloader's content in a library; persisted with every record.
constexpr const char* libraryName = "HLSDownloader";
constexpr const char* tracksKey = "tracks";

QVErrorBuilder fatal(ErrorType type) {
  return QVErrorBuilder(type).severity(ErrorSeverity::fatal);
}

/// The main queue for those who keep their queue.
std::shared_ptr<platform::Queue> mainQueue() {
  return {&platform::MainQueue::shared(), [](platform::Queue*) {}};
}

/// The whole presentation stands on one number of bits per second.
std::optional<std::int64_t> wantedBitrate(const Download& download) {
  auto bitrate = download.preferredBitrate();
  if (!bitrate)
    for (const auto& rendition : download.selectedVideoRenditions())
      bitrate = std::max(bitrate.value_or(0), rendition.bitrate);
  return bitrate;
}

/// The session for the summary's request. The request itself is plain: what a protected server wants to see
/// of every request is the session's matter.
std::shared_ptr<platform::URLSession>
summarySession(const std::shared_ptr<platform::TransferService>& service,
               const platform::HTTPHeaders& headers) {
  if (headers.empty())
    return service ? service->sharedSession() : nullptr;
  auto configuration = platform::URLSessionConfiguration::defaultSessionConfiguration();
  configuration.HTTPAdditionalHeaders = headers;
  configuration.service = service;
  return platform::URLSession::sessionWithConfiguration(configuration, {}, nullptr);
}

std::string reasonOf(PlaylistDownloaderError status, const std::string& url) {
  return "the playlist " + halvix::urlForDisplay(url) +
         (status == PlaylistDownloaderError::downloadFailed
              ? " could not be downloaded"
              : " is not a valid HLS playlist; check that the address is the one of a playlist");
}

} // namespace

std::shared_ptr<HLSDownloader> HLSDownloader::shared() {
  static const std::shared_ptr<HLSDownloader> instance = create(true, {});
  return instance;
}

std::shared_ptr<HLSDownloader> HLSDownloader::create(bool cellularAccess, platform::HTTPHeaders headers,
                                                     std::shared_ptr<halvix::HostEnvironment> environment) {
  std::shared_ptr<HLSDownloader> downloader(
      new HLSDownloader(cellularAccess, std::move(headers), std::move(environment)));
  downloader->openSession();
  return downloader;
}

HLSDownloader::HLSDownloader(bool cellularAccess, platform::HTTPHeaders headers,
                             std::shared_ptr<halvix::HostEnvironment> environment)
    : BaseDownloader(libraryName, cellularAccess, std::move(headers), std::move(environment)) {
  loadItems();
}

HLSDownloader::~HLSDownloader() = default;

void HLSDownloader::openSession() {
  // New in each process: tasks of an earlier one are not handed back, their packages are found by their URL.
  auto configuration = platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(
      "tolvane_HLSDownloader_" + qvc::Uuid::generateRandom().toString().toStdString());
  configuration.sessionSendsLaunchEvents = true;
  configuration.allowsCellularAccess = cellularAccess();
  configuration.service = transferService();
  platform::AssetDownloadOptions options;
  options.directory = downloadPath();
  const auto self = std::static_pointer_cast<HLSDownloader>(shared_from_this());
  _session = platform::AssetDownloadURLSession::sessionWithConfiguration(configuration, options, self,
                                                                         mainQueue(), &_sessionError);
  if (!_session)
    return;
  _session->getAllTasksWithCompletionHandler(
      [weak = std::weak_ptr<HLSDownloader>(self), stored = downloads()](const std::vector<TaskRef>& tasks) {
        if (const auto downloader = weak.lock())
          downloader->syncRunningTasksWithStoredDownloads(stored, tasks);
      });
}

std::shared_ptr<platform::TransferService> HLSDownloader::transferService() const {
  return environment() ? environment()->transferService() : nullptr;
}

void HLSDownloader::syncRunningTasksWithStoredDownloads(const std::vector<std::shared_ptr<Download>>& stored,
                                                        const std::vector<TaskRef>& tasks) {
  for (const auto& download : stored) {
    if (halvix::isFinal(download->state()))
      continue;
    {
      // What this process has taken up meanwhile is none of an earlier one's.
      std::lock_guard lock(_mapMutex);
      if (downloadIdToAssetMap.count(download->uuid()) > 0)
        continue;
    }
    const auto url = download->contentUrl();
    const auto task = std::find_if(tasks.begin(), tasks.end(), [&url](const TaskRef& candidate) {
      return candidate->URLAsset()->url().absoluteString() == url;
    });
    if (task != tasks.end()) {
      registerTask(*task, download->uuid());
      std::lock_guard lock(_mapMutex);
      downloadIdToAssetMap[download->uuid()] = (*task)->URLAsset();
    } else {
      fail(download, fatal(ErrorType::download_interrupted).build());
      halvix::log_e(logTag, ":: uuid " + download->uuid() + " has no task any more");
    }
  }
  storeItems();
}

bool HLSDownloader::canDownload(halvix::ContentType contentType) const {
  return halvix::rawValue(contentType) == halvix::rawValue(halvix::ContentType::hls);
}

HLSDownloader::AssetRef HLSDownloader::makeAsset(const platform::URL& url,
                                                 const platform::HTTPHeaders& headers) const {
  platform::AssetEnvironment surroundings;
  surroundings.service = transferService();
  if (environment())
    for (const auto& language : environment()->options().preferredLanguages)
      surroundings.preferredLanguages.push_back(platform::Locale(language).identifier());
  return platform::URLAsset::assetWithURL(url, {{platform::AVURLAssetHTTPHeaderFieldsKey, headers}},
                                          std::move(surroundings));
}

void HLSDownloader::describe(
    const AssetRef& asset,
    std::function<void(halvix::Tracks tracks, std::vector<std::string> keyIds, QVErrorRef error)> completion)
    const {
  const auto service = transferService();
  asset->loadValuesAsynchronouslyForKeys({tracksKey}, [asset, service, completion = std::move(completion)] {
    platform::ErrorRef error;
    if (asset->statusOfValueForKey(tracksKey, &error) != platform::URLAsset::KeyValueStatus::Loaded)
      return completion({}, {}, fatal(ErrorType::downloader_request_creation_failed).parent(error).build());
    HLSPlaylistDownloader::getPlaylist(
        asset->url(),
        [asset, completion](const std::shared_ptr<const HLSPlaylist>& playlist,
                            PlaylistDownloaderError status) {
          if (!playlist)
            return completion({}, {},
                              fatal(ErrorType::downloader_request_creation_failed)
                                  .message(reasonOf(status, asset->url().absoluteString()))
                                  .build());
          completion(describeTracks(*asset, *playlist), playlist->keyIds, nullptr);
        },
        summarySession(service, asset->headers()));
  });
}

void HLSDownloader::prepareDownload(const std::string& uuid, PrepareCompletion completion) {
  const auto download = findDownload(uuid);
  if (!download)
    return completion(nullptr, fatal(ErrorType::downloader_id_not_found).build());
  const std::string text = download->contentUrl();
  const auto url = platform::URL::URLWithString(text);
  if (!url || !url->scheme())
    return completion(nullptr, fatal(ErrorType::downloader_request_creation_failed)
                                   .message("'" + text + "' is no absolute URL")
                                   .build());
  for (const auto& other : downloads())
    if (other != download && !other->isProvisional() && other->contentUrl() == text)
      return completion(nullptr, fatal(ErrorType::downloader_already_exists)
                                     .message("There's already a download request for url " +
                                              url->absoluteString() + ". Aborting request")
                                     .build());

  const auto asset = makeAsset(*url, headersForDownload(uuid));
  {
    std::lock_guard lock(_mapMutex);
    downloadIdToAssetMap[uuid] = asset;
  }
  describe(asset, [download, completion = std::move(completion)](
                      halvix::Tracks tracks, std::vector<std::string> keyIds, const QVErrorRef& error) {
    if (error)
      return completion(nullptr, error);
    download->setTracks(std::move(tracks));
    download->setFairplayKeyURIs(std::move(keyIds));
    completion(download, nullptr);
  });
}

HLSDownloader::TaskRef HLSDownloader::createAssetDownloadTask(Download& download, QVErrorRef* error) {
  AssetRef asset;
  {
    std::lock_guard lock(_mapMutex);
    if (const auto found = downloadIdToAssetMap.find(download.uuid()); found != downloadIdToAssetMap.end())
      asset = found->second;
  }
  if (!asset) {
    *error = fatal(ErrorType::downloader_id_not_found).message("the download was not prepared").build();
    return nullptr;
  }
  if (!_session) {
    *error = fatal(ErrorType::downloader_request_creation_failed).parent(_sessionError).build();
    return nullptr;
  }
  platform::UserInfo options;
  if (const auto bitrate = wantedBitrate(download))
    options[platform::AVAssetDownloadTaskMinimumRequiredMediaBitrateKey] = *bitrate;
  if (download.hasMaximumConcurrentTransfers())
    options[platform::AssetDownloadTaskMaximumTransfersKey] = download.maximumConcurrentTransfers();
  return _session->aggregateAssetDownloadTaskWithURLAsset(
      asset, mapSelectedTracksToMediaSelections(download, *asset), sanitizeAssetTitle(download.title()),
      nullptr, options);
}

QVErrorRef HLSDownloader::startDownload(const std::string& uuid,
                                        std::weak_ptr<halvix::DownloadDelegate> delegate) {
  const auto download = findDownload(uuid);
  if (!download)
    return fatal(ErrorType::downloader_id_not_found).build();
  auto task = findTask(uuid);
  if (!task) {
    QVErrorRef error;
    task = createAssetDownloadTask(*download, &error);
    if (!task)
      return error;
    // What an earlier run knew of sizes is no measure of this one.
    download->setProgress(download->progress().copyWithExpectedContentSize(-1).copyWithProgress(-1));
    registerTask(task, uuid);
  }
  download->setDelegate(std::move(delegate));
  // Before the task goes on, whose events may already end the run.
  download->setState(DownloadState::running);
  task->resume();
  if (const auto events = dispatcher())
    events->dispatchDownloadStart(download);
  return nullptr;
}

QVErrorRef HLSDownloader::pauseDownload(const std::string& uuid) {
  const auto task = findTask(uuid);
  const auto download = findDownload(uuid);
  if (!task || !download)
    return fatal(ErrorType::downloader_id_not_found).build();
  task->suspend();
  download->setState(DownloadState::paused);
  return storeItems();
}

QVErrorRef HLSDownloader::resumeDownload(const std::string& uuid) {
  const auto task = findTask(uuid);
  const auto download = findDownload(uuid);
  if (!task || !download)
    return fatal(ErrorType::downloader_id_not_found).build();
  download->setState(DownloadState::running);
  task->resume();
  return nullptr;
}

QVErrorRef HLSDownloader::cancelDownload(const std::string& uuid) {
  const auto task = findTask(uuid);
  if (!task)
    return fatal(ErrorType::downloader_id_not_found).build();
  {
    std::lock_guard lock(_mapMutex);
    _cancelledTasks.insert(task->taskIdentifier());
  }
  task->cancel();
  return nullptr;
}

QVErrorRef HLSDownloader::removeDownload(const std::string& uuid) {
  const auto download = findDownload(uuid);
  if (!download)
    return fatal(ErrorType::downloader_id_not_found).build();
  if (const auto task = findTask(uuid)) {
    forgetTask(task);
    if (auto location = task->location(); !location.empty()) {
      std::lock_guard lock(_mapMutex);
      _removedPackages[task->taskIdentifier()] = std::move(location);
    }
    task->cancel();
  }
  {
    std::lock_guard lock(_mapMutex);
    downloadIdToAssetMap.erase(uuid);
  }
  auto error = deleteDownloadedContent(*download);
  if (!error)
    halvix::log_d(logTag, ":: uuid " + uuid + " removed.");
  return error;
}

QVErrorRef HLSDownloader::deleteDownloadedContent(const Download& download) const {
  const auto local = download.localUrl();
  if (!local) {
    halvix::log_e(logTag, ":: uuid " + download.uuid() + " completed but not found in storage");
    return nullptr;
  }
  const auto error = halvix::Utils::removeFolder(*local);
  if (!error)
    return nullptr;
  halvix::log_e(logTag, "An error occured deleting the file: " + error->localizedDescription());
  return fatal(ErrorType::storage_error_while_removing_file).parent(error).build();
}

void HLSDownloader::inspectContent(const std::string& source, const platform::HTTPHeaders& headers,
                                   halvix::ContentInspector::Completion completion) {
  auto answer = [source, completion = std::move(completion)](halvix::Tracks tracks, const QVErrorRef& error) {
    if (error)
      return completion(nullptr, error);
    auto presentation = std::make_shared<halvix::Presentation>();
    presentation->url = source;
    presentation->movies.push_back({-1, std::move(tracks)});
    completion(std::move(presentation), nullptr);
  };
  const auto url = platform::URL::URLWithString(source);
  if (!url || !url->isHTTP()) {
    // An asset is media behind an address; of a playlist in a file the summary is told.
    std::error_code ignored;
    const std::string path = std::filesystem::absolute(source, ignored).lexically_normal().string();
    platform::ErrorRef error;
    if (!platform::FileManager::contentsAtPath(path, &error))
      return answer({}, fatal(ErrorType::downloader_request_creation_failed).parent(error).build());
    return HLSPlaylistDownloader::getPlaylist(
        platform::URL::fileURLWithPath(path),
        [source, answer](const std::shared_ptr<const HLSPlaylist>& playlist, PlaylistDownloaderError status) {
          if (playlist)
            return answer(describeTracks(*playlist), nullptr);
          answer(
              {},
              fatal(ErrorType::downloader_request_creation_failed).message(reasonOf(status, source)).build());
        });
  }
  platform::HTTPHeaders all = this->headers();
  for (const auto& [name, value] : headers)
    all[name] = value;
  describe(makeAsset(*url, all), [answer](halvix::Tracks tracks, const std::vector<std::string>&,
                                          const QVErrorRef& error) { answer(std::move(tracks), error); });
}

void HLSDownloader::URLSessionAggregateAssetDownloadTaskWillDownloadTo(platform::AssetDownloadURLSession&,
                                                                       const TaskRef& task,
                                                                       const std::string& location) {
  const auto download = findDownloadOfTask(task);
  if (!download)
    return;
  download->setLocalRelativePath(halvix::Utils::relativePath(location, downloadPath()));
  storeItems();
}

void HLSDownloader::URLSessionAggregateAssetDownloadTaskDidLoad(
    platform::AssetDownloadURLSession&, const TaskRef& task, const platform::TimeRange&,
    const std::vector<platform::TimeRange>& totalTimeRangesLoaded,
    const platform::TimeRange& timeRangeExpectedToLoad, const platform::MediaSelection&) {
  double loaded = 0;
  for (const auto& range : totalTimeRangesLoaded)
    loaded += range.duration;
  const double expected = timeRangeExpectedToLoad.duration;
  const double percent = expected > 0 ? loaded / expected * 100.0 : 0;
  const auto download = findDownloadOfTask(task);
  if (halvix::logEnabled(halvix::LogLevel::debug))
    halvix::log_d(logTag, ":: uuid " + (download ? download->uuid() : "unknown") + " progress " +
                              std::to_string(percent));
  if (!download)
    return;
  download->setProgress(download->progress()
                            .copyWithExpectedContentDuration(expected)
                            .copyWithDownloadedContentDuration(loaded)
                            .copyWithDownloadedContentSize(task->countOfBytesReceived()));
  // An event that was on its way when the download was paused does not wake it.
  if (task->state() != platform::URLSessionTaskState::Suspended)
    download->setState(DownloadState::running);
  // A killed process should leave its progress behind, but not at the price of a write for each event.
  const auto now = std::chrono::steady_clock::now();
  const auto [stored, isFirst] = _progressStored.emplace(task->taskIdentifier(), now);
  if (isFirst || now - stored->second >= std::chrono::seconds(1)) {
    stored->second = now;
    download->markChanged();
  }
  storeItems();
}

void HLSDownloader::URLSessionTaskDidCompleteWithError(platform::AssetDownloadURLSession&,
                                                       const TaskRef& task, const platform::ErrorRef& error) {
  const auto download = findDownloadOfTask(task);
  const bool cancelled = takeCancelMark(task);
  forgetTask(task);
  _progressStored.erase(task->taskIdentifier());
  if (!download) {
    halvix::log_e(logTag, ":: task " + std::to_string(task->taskIdentifier()) + " ended without a download");
    return sweepRemovedPackage(task);
  }
  if (error && !cancelled && error->domain() == platform::NSURLErrorDomain &&
      error->code() == platform::NSURLErrorCancelled) {
    // The service was shut down under it: that is an interruption, and no failure.
    halvix::log_d(logTag, ":: uuid " + download->uuid() + " interrupted");
    download->setState(DownloadState::paused);
  } else if (error) {
    halvix::log_e(logTag, ":: uuid " + download->uuid() + " " + error->localizedDescription());
    fail(download, fatal(ErrorType::download_failed).parent(error).build());
  } else {
    const auto progress = download->progress();
    const std::int64_t bytes = task->countOfBytesReceived();
    download->setProgress(progress.copyWithDownloadedContentDuration(progress.expectedContentDuration())
                              .copyWithExpectedContentSize(bytes)
                              .copyWithDownloadedContentSize(bytes));
    download->setState(DownloadState::success);
    halvix::log_d(logTag, ":: uuid " + download->uuid() + " completed.");
    platform::MainQueue::shared().async([weak = weak_from_this(), download] {
      const auto self = weak.lock();
      if (const auto events = self ? self->dispatcher() : nullptr)
        events->dispatchDownloadFinished(download);
    });
  }
  storeItems();
}

bool HLSDownloader::takeCancelMark(const TaskRef& task) {
  std::lock_guard lock(_mapMutex);
  return _cancelledTasks.erase(task->taskIdentifier()) > 0;
}

void HLSDownloader::fail(const std::shared_ptr<Download>& download, const QVErrorRef& error) {
  download->setLastError(error); // a dispatcher does so too, but may not be there yet at the start
  download->setState(DownloadState::failed);
  if (const auto events = dispatcher())
    events->dispatchDownloadError(download, error);
}

/// What the task of a removed download still wrote behind the removal.
void HLSDownloader::sweepRemovedPackage(const TaskRef& task) {
  std::string location;
  {
    std::lock_guard lock(_mapMutex);
    const auto removed = _removedPackages.find(task->taskIdentifier());
    if (removed == _removedPackages.end())
      return;
    location = std::move(removed->second);
    _removedPackages.erase(removed);
  }
  for (const auto& other : downloads()) // the content may have been asked for again
    if (other->localUrl() == location || findTask(other->uuid()))
      return;
  if (platform::FileManager::directoryExistsAtPath(location))
    if (const auto error = halvix::Utils::removeFolder(location))
      halvix::log_e(logTag, "An error occured deleting the file: " + error->localizedDescription());
}

HLSDownloader::TaskRef HLSDownloader::findTask(const std::string& uuid) const {
  std::lock_guard lock(_mapMutex);
  for (const auto& task : runningTasks)
    if (const auto found = taskIdToDownloadIdMap.find(task->taskIdentifier());
        found != taskIdToDownloadIdMap.end() && found->second == uuid)
      return task;
  return nullptr;
}

std::shared_ptr<Download> HLSDownloader::findDownloadOfTask(const TaskRef& task) const {
  std::string uuid;
  {
    std::lock_guard lock(_mapMutex);
    const auto found = taskIdToDownloadIdMap.find(task->taskIdentifier());
    if (found == taskIdToDownloadIdMap.end())
      return nullptr;
    uuid = found->second;
  }
  return findDownload(uuid);
}

void HLSDownloader::registerTask(const TaskRef& task, const std::string& uuid) {
  std::lock_guard lock(_mapMutex);
  taskIdToDownloadIdMap[task->taskIdentifier()] = uuid;
  runningTasks.push_back(task);
}

void HLSDownloader::forgetTask(const TaskRef& task) {
  std::lock_guard lock(_mapMutex);
  taskIdToDownloadIdMap.erase(task->taskIdentifier());
  std::erase_if(runningTasks,
                [&task](const TaskRef& held) { return held->taskIdentifier() == task->taskIdentifier(); });
}
