#include "TolvaneDownloader/DASHDownloader/DashDownloader.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVMovie.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadSet.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloader.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMutableMovieDownloadProperties.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylist.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylistFactory.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVQualityDownloadInfo.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"
#include "TolvaneDownloader/DASHDownloader/RenditionSelection.h"
#include "TolvaneDownloader/DASHDownloader/TrackDescription.h"

#include "halvix/Download.h"
#include "halvix/HostEnvironment.h"
#include "halvix/Log.h"
#include "halvix/Utils.h"
#include "platform/concurrency/Queue.h"
#include "platform/foundation/Exception.h"
#include "platform/foundation/FileManager.h"
#include "platform/foundation/URL.h"
#include "qvc/FastString.h"
#include "qvc/Uuid.h"

#include <algorithm>
#include <vector>

using halvix::Download;
using halvix::DownloadState;
using halvix::ErrorSeverity;
using halvix::ErrorType;
using halvix::QVErrorBuilder;
using halvix::QVErrorRef;

namespace {

constexpr const char* logTag = "[DashDownloader]";
/// Directory of this downloader's content in a library; persisted with every record.
constexpr const char* libraryName = "DashDownloader";

QVErrorRef fatal(ErrorType type) {
  return QVErrorBuilder(type).severity(ErrorSeverity::fatal).build();
}

template <class Parent> QVErrorRef fatal(ErrorType type, const Parent& parent) {
  return QVErrorBuilder(type).severity(ErrorSeverity::fatal).parent(parent).build();
}

const platform::ErrorDomain errorDomain{"NSErrorQVDownloader"};

platform::ErrorRef refuseLive(const QVPlaylist& playlist) {
  return playlist.isLive() ? platform::makeError(errorDomain, -101,
                                                 std::string("the presentation is live; only one that has "
                                                             "ended can be downloaded"))
                           : nullptr;
}

/// A raised exception as the reason of a host error: its text, and the file system's own error if it has one.
platform::ErrorRef reasonOf(const platform::Exception& exception) {
  platform::ErrorRef cause;
  auto found = exception.userInfo().find("NSError");
  if (found != exception.userInfo().end())
    if (auto* error = std::any_cast<platform::ErrorRef>(&found->second))
      cause = *error;
  return platform::makeError(errorDomain, -101, exception.reason(), cause);
}

std::optional<DownloadState> hostState(QVDownloadStatus status) {
  switch (status) {
  case QVDownloadStatusInactive:
    return DownloadState::idle;
  case QVDownloadStatusPaused:
    return DownloadState::paused;
  case QVDownloadStatusDownloading:
    return DownloadState::running;
  }
  return std::nullopt;
}

std::string pathOfFileURL(const std::string& text) {
  auto url = platform::URL::URLWithString(text);
  return url && url->isFileURL() ? url->path() : text;
}

} // namespace

const platform::URLSessionConfiguration& DashDownloader::sessionConfiguration() {
  static const platform::URLSessionConfiguration configuration = [] {
    auto made = platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(
        "tolvane_Downloader_" + qvc::Uuid::generateRandom().toString().toStdString());
    made.sessionSendsLaunchEvents = true;
    return made;
  }();
  return configuration;
}

std::shared_ptr<DashDownloader> DashDownloader::shared() {
  static const std::shared_ptr<DashDownloader> instance = create(true, {});
  return instance;
}

std::shared_ptr<DashDownloader> DashDownloader::create(bool cellularAccess, platform::HTTPHeaders headers,
                                                       std::shared_ptr<halvix::HostEnvironment> environment) {
  return std::shared_ptr<DashDownloader>(
      new DashDownloader(cellularAccess, std::move(headers), std::move(environment)));
}

DashDownloader::DashDownloader(bool cellularAccess, platform::HTTPHeaders headers,
                               std::shared_ptr<halvix::HostEnvironment> environment)
    : BaseDownloader(libraryName, cellularAccess, std::move(headers), std::move(environment)) {
  platform::URLSessionConfiguration configuration = sessionConfiguration();
  if (this->environment())
    configuration.service = this->environment()->transferService();
  _downloader = QVMovieDownloader::downloaderWithConfiguration(configuration, downloadPath());
  loadItems();
}

DashDownloader::~DashDownloader() = default;

bool DashDownloader::canDownload(halvix::ContentType contentType) const {
  return halvix::rawValue(contentType) == halvix::rawValue(halvix::ContentType::dash);
}

std::shared_ptr<Download> DashDownloader::createDownload(const halvix::PlayerConfiguration& configuration,
                                                         const platform::HTTPHeaders& headers,
                                                         QVErrorRef* error) {
  setUuidGenerator([downloader = _downloader](const halvix::PlayerConfiguration& wanted) {
    return downloader->downloadIdWithURL(wanted.contentUrl);
  });
  return BaseDownloader::createDownload(configuration, headers, error);
}

std::shared_ptr<QVMovieDownloadSet> DashDownloader::activeSet(const std::string& uuid) const {
  if (auto sets = _downloader->activeDownloadSets())
    for (const auto& set : *sets)
      if (set->uuid() == uuid)
        return set;
  return nullptr;
}

void DashDownloader::describe(const QVMovieDownloadSet& set, Download& download) const {
  download.setTracks(describeTracks(*set.movie(), [&set](const std::shared_ptr<QVQuality>& quality) {
    return QualityState{set.expectedBytesForQuality(quality).value, set.isQualityDownloaded(quality)};
  }));
  if (set.movie()->duration() >= 0)
    download.setDuration(set.movie()->duration());
  std::vector<std::string> notices;
  if (std::size_t movies = set.playlist()->movies().size(); movies > 1)
    notices.push_back("the presentation has " + std::to_string(movies) +
                      " movies (periods); the first one is downloaded");
  download.setNotices(std::move(notices));
}

void DashDownloader::prepareDownload(const std::string& uuid, PrepareCompletion completion) {
  auto download = findDownload(uuid);
  if (!download)
    return completion(nullptr, fatal(ErrorType::downloader_request_creation_failed));
  std::weak_ptr<DashDownloader> weak = std::static_pointer_cast<DashDownloader>(shared_from_this());
  auto answer = [weak, download, completion](const std::shared_ptr<QVMovieDownloadSet>& set,
                                             const platform::ErrorRef& error) {
    auto self = weak.lock();
    if (error || !set || !self)
      return completion(nullptr, fatal(ErrorType::downloader_request_creation_failed, error));
    self->describe(*set, *download);
    completion(download, nullptr);
  };
  try {
    _downloader->fetchDownloadSetForURL(download->contentUrl(), answer, headersForDownload(uuid),
                                        download->refusesLive() ? refuseLive : nullptr);
  } catch (const platform::Exception& exception) {
    completion(nullptr, fatal(ErrorType::downloader_request_creation_failed, reasonOf(exception)));
  }
}

QVErrorRef DashDownloader::startDownload(const std::string& uuid,
                                         std::weak_ptr<halvix::DownloadDelegate> delegate) {
  auto download = findDownload(uuid);
  if (!download)
    return fatal(ErrorType::downloader_id_not_found);
  auto set = _downloader->fetchActiveDownloadSetForURL(download->contentUrl());
  if (!set)
    return QVErrorBuilder(ErrorType::downloader_request_creation_failed)
        .severity(ErrorSeverity::fatal)
        .message("the download was not prepared")
        .build();
  download->setDelegate(std::move(delegate));
  try {
    const auto chosen = selectRenditions(*set, *download);
    set->setDelegate(std::static_pointer_cast<DashDownloader>(shared_from_this()));
    set->setAdditionalHeaders(headersForDownload(uuid));
    set->setParallelDownloads(static_cast<std::size_t>(download->maximumConcurrentTransfers()));
    if (auto properties = set->properties();
        properties && !download->title().empty() && properties->title() != download->title())
      properties->setTitle(download->title());
    const bool started = _downloader->download(set);
    if (auto events = dispatcher())
      events->dispatchDownloadStart(download);
    if (started)
      return nullptr;
    // Nothing was left to fetch: all that is wanted is there, or it cannot be fetched at all. With nothing
    // wanted the download stays idle.
    if (auto error = unfetchableError(*set, chosen)) {
      movieDownloadSetDidCompleteWithError(set, error);
    } else if (!chosen.empty() && allDownloaded(*set, chosen)) {
      if (downloadedNothing(*set, chosen))
        return QVErrorBuilder(ErrorType::downloader_request_creation_failed)
            .severity(ErrorSeverity::fatal)
            .message("the manifest names no segments for what was chosen; there is nothing to download")
            .build();
      movieDownloadSetDidCompleteWithError(set, nullptr);
    } else if (!chosen.empty()) {
      return fatal(ErrorType::downloader_request_creation_failed, _downloader->sessionError());
    }
  } catch (const platform::Exception& exception) {
    return fatal(ErrorType::downloader_request_creation_failed, reasonOf(exception));
  }
  return nullptr;
}

template <class Command>
QVErrorRef DashDownloader::command(const std::string& uuid, const char* what, Command run) {
  auto set = activeSet(uuid);
  if (!set)
    return fatal(ErrorType::downloader_id_not_found);
  try {
    run(set);
  } catch (const platform::Exception& exception) {
    halvix::log_e(logTag, uuid + " cannot be " + what + ": " + exception.reason());
    return fatal(ErrorType::downloader_id_not_found, reasonOf(exception));
  }
  return nullptr;
}

QVErrorRef DashDownloader::pauseDownload(const std::string& uuid) {
  return command(uuid, "paused", [this](const auto& set) { _downloader->pause(set); });
}

QVErrorRef DashDownloader::resumeDownload(const std::string& uuid) {
  return command(uuid, "resumed", [this](const auto& set) { _downloader->resume(set); });
}

QVErrorRef DashDownloader::cancelDownload(const std::string& uuid) {
  return command(uuid, "cancelled", [this](const auto& set) { _downloader->cancel(set); });
}

QVErrorRef DashDownloader::removeDownload(const std::string& uuid) {
  if (auto set = activeSet(uuid)) {
    try {
      _downloader->remove(set);
    } catch (const platform::Exception& exception) {
      return fatal(ErrorType::storage_error_while_removing_file, reasonOf(exception));
    }
    halvix::log_d(logTag, uuid + " removed");
    return nullptr;
  }
  auto download = findDownload(uuid);
  if (!download)
    return fatal(ErrorType::storage_error_while_removing_file);
  // An unfinished download has no local path yet; its directory is named by its identifier all the same.
  std::string folder = downloadPath() + "/" + uuid;
  if (auto local = download->localUrl())
    folder = local->substr(0, local->rfind('/'));
  if (!platform::FileManager::fileExistsAtPath(folder) && !download->localUrl())
    return nullptr;
  if (auto error = halvix::Utils::removeFolder(folder))
    return fatal(ErrorType::storage_error_while_removing_file, error);
  return nullptr;
}

void DashDownloader::inspectContent(const std::string& source, const platform::HTTPHeaders& headers,
                                    halvix::ContentInspector::Completion completion) {
  auto answer = [source, completion](const std::shared_ptr<QVPlaylist>& playlist,
                                     const platform::ErrorRef& error) {
    if (error)
      return completion(nullptr, fatal(ErrorType::downloader_request_creation_failed, error));
    if (!playlist)
      return completion(nullptr, QVErrorBuilder(ErrorType::downloader_request_creation_failed)
                                     .message("the manifest holds nothing that can be downloaded")
                                     .build());
    auto presentation = std::make_shared<halvix::Presentation>();
    presentation->url = source;
    presentation->isLive = playlist->isLive();
    for (const auto& movie : playlist->movies())
      presentation->movies.push_back(
          {movie->duration(), describeTracks(*movie, [](const std::shared_ptr<QVQuality>& quality) {
             return QualityState{nominalBytes(*quality), false};
           })});
    completion(std::move(presentation), nullptr);
  };
  auto url = platform::URL::URLWithString(source);
  if (url && url->isHTTP()) {
    platform::HTTPHeaders all = this->headers();
    for (const auto& [name, value] : headers)
      all[name] = value;
    return QVPlaylistFactory::generateWithURL(
        source,
        [answer](std::shared_ptr<QVPlaylist> playlist, platform::DataRef, platform::ErrorRef error) {
          answer(playlist, error);
        },
        all);
  }
  platform::ErrorRef error;
  if (!platform::FileManager::contentsAtPath(source, &error))
    return answer(nullptr, error);
  auto playlist = QVPlaylistFactory::generateWithFile(source, &error);
  answer(playlist, error);
}

/// A line for each quality that is wanted or there, in the movie's order, so that a line keeps its place.
halvix::DownloadProgress::Renditions DashDownloader::renditionsOf(const QVMovieDownloadSet& set) const {
  QVQualityList qualities = set.downloadedQualities().value_or(QVQualityList());
  if (auto selected = set.selectedQualities())
    qualities.insert(qualities.end(), selected->begin(), selected->end());
  auto renditions = std::make_shared<std::vector<halvix::RenditionProgress>>();
  renditions->reserve(qualities.size());
  for (const auto& track : set.movie()->tracks())
    for (const auto& quality : track->qualities())
      if (std::find(qualities.begin(), qualities.end(), quality) != qualities.end()) {
        halvix::RenditionProgress rendition;
        rendition.renditionId = quality->identifier();
        rendition.label = displayLabel(*quality);
        rendition.expectedContentSize = set.expectedBytesForQuality(quality).value;
        rendition.downloadedContentSize = set.downloadedBytesForQuality(quality);
        renditions->push_back(std::move(rendition));
      }
  return renditions;
}

void DashDownloader::movieDownloadSetDidChangeStatus(const std::shared_ptr<QVMovieDownloadSet>& set,
                                                     QVDownloadStatus status) {
  auto download = findDownload(set->uuid());
  if (!download)
    return halvix::log_e(logTag, "::Completed download item not found " + set->uuid());
  if (auto state = hostState(status))
    download->setState(*state);
  storeItems();
}

void DashDownloader::movieDownloadSetDidUpdateProgress(const std::shared_ptr<QVMovieDownloadSet>& set,
                                                       QVDownloadProgress progress) {
  auto download = findDownload(set->uuid());
  if (!download)
    return;
  const auto told = download->progress();
  const std::int64_t expected = set->expectedBytes().value, downloaded = set->downloadedBytes();
  // A body that ends reports its last bytes a second time.
  if (told.renditions() && told.expectedContentSize() == expected &&
      told.downloadedContentSize() == downloaded)
    return;
  download->setProgress(told.copyWithExpectedContentSize(expected)
                            .copyWithDownloadedContentSize(downloaded)
                            .copyWithProgress(progress.value)
                            .copyWithRenditions(renditionsOf(*set)));
  if (halvix::logEnabled(halvix::LogLevel::debug))
    halvix::log_d(logTag, set->uuid() + " progress " + std::to_string(progress.value));
}

void DashDownloader::movieDownloadSetDidCompleteQuality(const std::shared_ptr<QVMovieDownloadSet>& set,
                                                        const std::shared_ptr<QVQuality>&,
                                                        const platform::ErrorRef&) {
  // Progress is not stored, but what a killed process leaves behind should not look as if it had done
  // nothing.
  if (auto download = findDownload(set->uuid())) {
    download->markChanged();
    storeItems();
  }
}

void DashDownloader::movieDownloadSetDidCompleteWithError(const std::shared_ptr<QVMovieDownloadSet>& set,
                                                          const platform::ErrorRef& error) {
  const std::string uuid = set->uuid();
  auto download = findDownload(uuid);
  if (!download)
    return halvix::log_e(logTag, "::Completed download item not found " + uuid);
  if (!error) {
    halvix::log_d(logTag, uuid + " completed");
    if (auto properties = set->properties())
      download->setLocalRelativePath(
          halvix::Utils::relativePath(pathOfFileURL(properties->localURL()), downloadPath()));
    const std::int64_t bytes = set->downloadedSize();
    download->setProgress(download->progress()
                              .copyWithExpectedContentSize(bytes)
                              .copyWithDownloadedContentSize(bytes)
                              .copyWithProgress(1)
                              .copyWithRenditions(renditionsOf(*set)));
    download->setState(DownloadState::success);
  } else {
    halvix::log_e(logTag, uuid + " completed with error " + error->localizedDescription());
    download->setState(DownloadState::failed);
    auto hostError = fatal(ErrorType::download_failed, error);
    platform::MainQueue::shared().async([weak = weak_from_this(), download, hostError] {
      auto self = weak.lock();
      if (auto events = self ? self->dispatcher() : nullptr)
        events->dispatchDownloadError(download, hostError);
    });
  }
  storeItems();
}
