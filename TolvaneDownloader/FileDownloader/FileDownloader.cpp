#include "TolvaneDownloader/FileDownloader/FileDownloader.h"

#include "TolvaneDownloader/FileDownloader/FileFailure.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloadProgress.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloader.h"

#include "halvix/ContentName.h"
#include "halvix/Download.h"
#include "halvix/HostEnvironment.h"
#include "halvix/Log.h"
#include "halvix/ResourceHead.h"
#include "halvix/Utils.h"
#include "platform/concurrency/Queue.h"
#include "platform/foundation/FileManager.h"
#include "platform/foundation/Progress.h"
#include "platform/transfer/TransferService.h"

#include <utility>

using halvix::ContentType;
using halvix::Download;
using halvix::DownloadState;
using halvix::ErrorSeverity;
using halvix::ErrorType;
using halvix::QVErrorBuilder;
using halvix::QVErrorRef;
using platform::FileManager;

namespace {

constexpr const char* logTag = "[FileDownloader]";
/// Directory of this downloader's content in a library; persisted with every record.
constexpr const char* libraryName = "FileDownloader";
constexpr const char* bundleIdentifier = "tolvane";

QVErrorRef fatal(ErrorType type, const char* message = "") {
  QVErrorBuilder builder(type);
  builder.severity(ErrorSeverity::fatal);
  if (*message)
    builder.message(message);
  return builder.build();
}

bool isRegularFile(const std::string& path) {
  const auto attributes = FileManager::attributesOfItemAtPath(path);
  return attributes && attributes->type == platform::FileAttributes::Type::Regular;
}

} // namespace

std::shared_ptr<FileDownloader> FileDownloader::shared() {
  static const std::shared_ptr<FileDownloader> instance = create(true, {});
  return instance;
}

std::shared_ptr<FileDownloader> FileDownloader::create(bool cellularAccess, platform::HTTPHeaders headers,
                                                       std::shared_ptr<halvix::HostEnvironment> environment) {
  return std::shared_ptr<FileDownloader>(
      new FileDownloader(cellularAccess, std::move(headers), std::move(environment)));
}

FileDownloader::FileDownloader(bool cellularAccess, platform::HTTPHeaders headers,
                               std::shared_ptr<halvix::HostEnvironment> environment)
    : BaseDownloader(libraryName, cellularAccess, std::move(headers), std::move(environment)) {
  loadItems();
  fixDownloadsState();
}

FileDownloader::~FileDownloader() = default;

// The session has a new identifier in each process, so no transfer of an ended one is ever active here.
void FileDownloader::fixDownloadsState() {
  for (const auto& download : downloads())
    if (download->interruptedAtLoad()) {
      download->setState(DownloadState::paused);
      _interrupted.push_back(download->uuid());
    }
  if (!_interrupted.empty())
    storeItems();
}

void FileDownloader::reportInterruptedDownloads() {
  const auto events = dispatcher();
  if (!events)
    return;
  std::vector<std::string> interrupted;
  {
    std::lock_guard lock(_fileMutex);
    interrupted.swap(_interrupted);
  }
  for (const std::string& uuid : interrupted)
    if (auto download = findDownload(uuid); download && download->state() == DownloadState::paused)
      events->dispatchDownloadError(
          download,
          QVErrorBuilder(ErrorType::download_interrupted).severity(ErrorSeverity::recoverable).build());
}

/// Made when the first download starts: a process that only looks opens no session.
std::shared_ptr<ZRKFileDownloader> FileDownloader::downloader() {
  if (auto made = startedDownloader())
    return made;
  places();
  ZRKFileDownloaderEnvironment surroundings;
  surroundings.bundleIdentifier = bundleIdentifier;
  surroundings.documentsDirectory = downloadPath();
  std::int64_t limit = 0;
  if (environment()) {
    surroundings.service = environment()->transferService();
    limit = environment()->options().maximumConcurrentFiles;
  }
  auto made = ZRKFileDownloader::downloaderWithDelegate(
      std::static_pointer_cast<FileDownloader>(shared_from_this()), limit, std::move(surroundings));
  std::lock_guard lock(_fileMutex);
  if (!_downloader)
    _downloader = std::move(made);
  return _downloader;
}

std::shared_ptr<ZRKFileDownloader> FileDownloader::startedDownloader() const {
  std::lock_guard lock(_fileMutex);
  return _downloader;
}

bool FileDownloader::isUnderWay(const std::string& uuid) const {
  {
    std::lock_guard lock(_fileMutex);
    if (const auto run = _runs.find(uuid); run != _runs.end() && run->second.placed)
      return true;
  }
  const auto queue = startedDownloader();
  return queue && (queue->isDownloadingIdentifier(uuid) || queue->isWaitingForDownloadOfIdentifier(uuid));
}

/// Made when the first is needed: a process that only looks makes no directory.
FilePlaces& FileDownloader::places() {
  std::call_once(_placesMade, [this] {
    _places.emplace(downloadPath());
    _groupSync.emplace(downloadPath());
  });
  return *_places;
}

std::string FileDownloader::fileNameOf(const Download& download) const {
  {
    std::lock_guard lock(_fileMutex);
    if (const auto run = _runs.find(download.uuid()); run != _runs.end() && !run->second.fileName.empty())
      return run->second.fileName;
  }
  return halvix::contentFileNameFromURL(download.contentUrl(),
                                        download.contentType().value_or(ContentType::mp4));
}

/// Files of a download that an ended process has placed. A short one may have been placed before it was on
/// stable storage.
std::vector<FilePlaces::Left> FileDownloader::wholeLeftOf(const std::string& uuid) {
  auto files = places().leftOf(uuid);
  std::erase_if(files, [](const FilePlaces::Left& file) {
    return file.attributes.size <= longestUnsynced && !file.isOfThisRunOfTheSystem();
  });
  return files;
}

/// A title that is only the name follows it; one that somebody chose stays.
void FileDownloader::rename(Download& download, const std::string& name) {
  const std::string before = fileNameOf(download);
  withRun(download.uuid(), [&](Run& run) { run.fileName = name; });
  if (download.title() == before)
    download.setTitle(name);
}

bool FileDownloader::isPlainFile(ContentType contentType) {
  const std::string& raw = halvix::rawValue(contentType);
  return raw == halvix::rawValue(ContentType::mp4) || raw == halvix::rawValue(ContentType::mp3);
}

bool FileDownloader::canDownload(ContentType contentType) const {
  return isPlainFile(contentType);
}

std::shared_ptr<Download> FileDownloader::createDownload(const halvix::PlayerConfiguration& configuration,
                                                         const platform::HTTPHeaders& headers,
                                                         QVErrorRef* error) {
  auto download = BaseDownloader::createDownload(configuration, headers, error);
  if (!download)
    return nullptr;
  if (download->title().empty()) {
    const std::string name = fileNameOf(*download);
    withRun(download->uuid(), [&name](Run& run) { run.fileName = name; });
    download->setTitle(name);
  }
  return download;
}

void FileDownloader::prepareDownload(const std::string& uuid, PrepareCompletion completion) {
  auto download = findDownload(uuid);
  if (!download)
    return completion(nullptr, fatal(ErrorType::downloader_id_not_found));
  const ContentType type = download->contentType().value_or(ContentType::mp4);
  download->setTracks({});
  const bool nameFits = halvix::contentTypeFromURL(download->contentUrl()) == type;
  const bool isNew = download->isProvisional();
  withRun(uuid, [isNew](Run& run) { run.isNew = isNew; });
  // A file in its place without a record of its end: the process died between the two. The server knows
  // whether it is the one that is wanted.
  const bool mayBeThere = !isNew && download->state() != DownloadState::success && !isUnderWay(uuid) &&
                          !wholeLeftOf(uuid).empty();
  if (nameFits && !mayBeThere)
    return completion(download, nullptr);
  askServer(download, std::move(completion));
}

void FileDownloader::askServer(const std::shared_ptr<Download>& download, PrepareCompletion completion) {
  const auto url = platform::URL::URLWithString(download->contentUrl());
  if (!url)
    return completion(download, nullptr);
  std::weak_ptr<FileDownloader> weak = std::static_pointer_cast<FileDownloader>(shared_from_this());
  halvix::requestResourceHead(
      *url, headersForDownload(download->uuid()), environment() ? environment()->transferService() : nullptr,
      [weak, download, completion](const std::shared_ptr<const platform::HTTPURLResponse>& response,
                                   const platform::ErrorRef&) {
        // Without an answer the URL's own name will do; what is wrong shows when the file is fetched.
        if (auto self = weak.lock(); self && response)
          self->learnFrom(*response, *download);
        completion(download, nullptr);
      });
}

void FileDownloader::learnFrom(const platform::HTTPURLResponse& response, Download& download) {
  std::string name = halvix::contentFileNameFromResponse(response, download.contentUrl(),
                                                         download.contentType().value_or(ContentType::mp4));
  const auto length = halvix::resourceLength(response);
  const auto modified = response.lastModifiedSeconds();
  bool whole = false;
  if (length.value_or(0) > 0 && download.state() != DownloadState::success)
    for (const auto& [path, attributes] : wholeLeftOf(download.uuid())) {
      if (attributes.size != length ||
          attributes.modifiedSeconds != modified.value_or(attributes.modifiedSeconds))
        continue;
      whole = true;
      name = FilePlaces::nameOf(path);
      break;
    }
  rename(download, name);
  withRun(download.uuid(), [&](Run& run) { run.whole = whole; });
  if (length && download.progress().expectedContentSize() < 0)
    download.setProgress(download.progress().copyWithExpectedContentSize(*length));
}

/// The server's name for the file comes with the file itself: to ask for it before would double the requests
/// for many small files.
void FileDownloader::learnName(Download& download) {
  const auto queue = startedDownloader();
  const auto response = queue ? queue->responseForIdentifier(download.uuid()) : nullptr;
  if (!response || response->statusCode() < 200 || response->statusCode() > 299)
    return;
  bool isNews = false;
  withRun(download.uuid(), [&](Run& run) { isNews = std::exchange(run.response, response) != response; });
  if (!isNews)
    return;
  const auto modified = response->lastModifiedSeconds();
  withRun(download.uuid(), [&modified](Run& run) { run.modified = modified; });
  if (const auto told = halvix::fileNameFromContentDisposition(*response))
    rename(download, halvix::contentFileName(*told, download.contentType().value_or(ContentType::mp4)));
}

QVErrorRef FileDownloader::startDownload(const std::string& uuid,
                                         std::weak_ptr<halvix::DownloadDelegate> delegate) {
  auto download = findDownload(uuid);
  if (!download)
    return fatal(ErrorType::downloader_id_not_found);
  if (auto holder = findDownloadByContentUrl(download->contentUrl()); holder && holder != download)
    return fatal(ErrorType::downloader_already_exists);
  download->setDelegate(std::move(delegate));
  bool whole = false, later = false;
  {
    std::lock_guard lock(_fileMutex);
    Run& run = _runs[uuid];
    whole = std::exchange(run.whole, false);
    run.removed = false;
    later = run.ending;
    run.startAgain = later;
  }
  const auto local = download->localUrl();
  const bool done = download->state() == DownloadState::success && local && isRegularFile(*local);
  if (!later && (isUnderWay(uuid) || done))
    return nullptr;
  if (auto events = dispatcher())
    events->dispatchDownloadStart(download);
  if (whole) {
    const std::string path = places().path(uuid, fileNameOf(*download));
    place({uuid, path, FileManager::attributesOfItemAtPath(path), false});
    return nullptr;
  }
  return later ? nullptr : startFileDownload(download);
}

QVErrorRef FileDownloader::startFileDownload(const std::shared_ptr<Download>& download) {
  const std::string& uuid = download->uuid();
  const auto url = platform::URL::URLWithString(download->contentUrl());
  if (!url || !url->isHTTP())
    return fatal(ErrorType::downloader_request_creation_failed, "the download has no http or https URL");
  const auto queue = downloader();
  if (auto error = queue->sessionError())
    return QVErrorBuilder(ErrorType::downloader_request_creation_failed).parent(error).build();
  const bool goesOn = download->state() != DownloadState::success;
  const std::string name = fileNameOf(*download);
  withRun(uuid, [&](Run& run) {
    const bool isNew = run.isNew;
    run = Run();
    run.isNew = isNew;
    run.fileName = name;
    run.contentUrl = download->contentUrl();
    run.heldBefore = goesOn ? download->progress().downloadedContentSize() : 0;
    run.kept = std::chrono::steady_clock::now();
    _byRemoteURL[url->absoluteString()] = uuid;
  });
  download->setStarted(true);
  download->setNotices({});
  download->setLocalRelativePath(std::nullopt);
  // Told before the start, whose events may already end the run. One that waits for its turn is idle until
  // the queue asks for its request.
  const bool hasRoom = queue->activeDownloadsCount() < queue->maxConcurrentFileDownloadsCount();
  download->setState(hasRoom ? DownloadState::running : DownloadState::idle);
  // Resume data repeats its request, with the headers of that time. Where a download has its own they may be
  // newer (a token that expired), and a fresh request finds the same bytes.
  if (auto data = download->resumeData(); data && download->headers().empty())
    queue->startDownloadWithIdentifierUsingResumeData(uuid, *data);
  else
    queue->startDownloadWithIdentifierFromRemoteURL(uuid, *url);
  return nullptr;
}

QVErrorRef FileDownloader::pauseDownload(const std::string& uuid) {
  const auto queue = startedDownloader();
  auto download = findDownload(uuid);
  if (!queue || !download)
    return fatal(ErrorType::downloader_id_not_found);
  bool wasEnding = false, placed = false;
  // Marked before the look: an end that is told after it takes the mark away.
  withRun(uuid, [&](Run& run) {
    run.startAgain = false;
    placed = run.placed;
    wasEnding = std::exchange(run.ending, !placed);
  });
  if (placed)
    endCollecting(); // the process may be about to end
  if (wasEnding || placed)
    return nullptr;
  if (!isUnderWay(uuid)) {
    startsAgain(uuid);
    return fatal(ErrorType::downloader_id_not_found, "the download is not under way");
  }
  if (auto progress = queue->downloadProgressForIdentifier(uuid); progress && progress->nativeProgress()) {
    progress->nativeProgress()->pause();
    return nullptr;
  }
  // It waits for its turn, and leaves the line without an end being told.
  std::weak_ptr<FileDownloader> weak = std::static_pointer_cast<FileDownloader>(shared_from_this());
  queue->pauseDownloadWithIdentifier(uuid, [weak, uuid](const platform::DataRef& data) {
    auto self = weak.lock();
    if (!self)
      return;
    self->becamePaused(uuid, data);
    if (auto again = self->startsAgain(uuid) ? self->findDownload(uuid) : nullptr)
      self->startFileDownload(again);
  });
  return nullptr;
}

QVErrorRef FileDownloader::resumeDownload(const std::string& uuid) {
  auto download = findDownload(uuid);
  if (!download)
    return fatal(ErrorType::downloader_id_not_found);
  return startDownload(uuid, download->delegate());
}

bool FileDownloader::resumeDownloadWithIdentifier(const std::string& token) {
  if (auto error = resumeDownload(token))
    halvix::log_e(logTag, token + " cannot be resumed: " + error->description());
  return true;
}

QVErrorRef FileDownloader::cancelDownload(const std::string& uuid) {
  const auto queue = startedDownloader();
  if (!queue || !findDownload(uuid))
    return fatal(ErrorType::downloader_id_not_found);
  withRun(uuid, [](Run& run) { run.startAgain = false; });
  queue->cancelDownloadWithIdentifier(uuid);
  return nullptr;
}

QVErrorRef FileDownloader::removeDownload(const std::string& uuid) {
  auto download = findDownload(uuid);
  if (!download)
    return fatal(ErrorType::storage_error_while_removing_file);
  // What is under way lets its bytes go when its end is told.
  withRun(uuid, [](Run& run) { run.removed = true, run.startAgain = false; });
  const auto queue = startedDownloader();
  if (queue && isUnderWay(uuid))
    queue->cancelDownloadWithIdentifier(uuid);
  else
    discardParts(download->contentUrl());
  std::vector<std::string> files;
  if (auto local = download->localUrl())
    files.push_back(std::move(*local));
  else if (!download->isProvisional()) {
    for (FilePlaces::Left& left : places().leftOf(uuid))
      files.push_back(std::move(left.path));
    files.push_back(places().path(uuid, fileNameOf(*download)));
  }
  for (const std::string& file : files)
    if (auto error = FileManager::fileExistsAtPath(file) ? halvix::Utils::removeFile(file) : nullptr)
      return QVErrorBuilder(ErrorType::storage_error_while_removing_file)
          .severity(ErrorSeverity::fatal)
          .parent(error)
          .build();
  // Where an earlier version put it.
  if (const std::string folder = downloadPath() + "/" + uuid; FileManager::directoryExistsAtPath(folder))
    if (auto error = halvix::Utils::removeFolder(folder))
      return QVErrorBuilder(ErrorType::storage_error_while_removing_file)
          .severity(ErrorSeverity::fatal)
          .parent(error)
          .build();
  return nullptr;
}
