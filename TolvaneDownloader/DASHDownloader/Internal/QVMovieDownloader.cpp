#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloader.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadSet.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMutableMovieDownloadProperties.h"

#include "platform/foundation/Exception.h"
#include "platform/foundation/FileManager.h"
#include "platform/transfer/TransferService.h"

#include <cerrno>
#include <mutex>

using Lock = std::lock_guard<platform::OrderedRecursiveMutex>;

namespace {

constexpr const char* exceptionName = "QVMovieDownloaderException";

struct DocumentsPath {
  std::mutex mutex;
  std::string path;
};

DocumentsPath& documentsPath() {
  static DocumentsPath path;
  return path;
}

std::string defaultDownloadPath() {
  auto& documents = documentsPath();
  std::lock_guard lock(documents.mutex);
  if (documents.path.empty())
    throw platform::Exception(exceptionName, "No download directory");
  return documents.path + "/QVMovieDownloader";
}

platform::BackgroundTaskIdentifier beginBackgroundTask(const char* name) {
  return platform::Application::shared().beginBackgroundTask(name, nullptr);
}

void endBackgroundTask(platform::BackgroundTaskIdentifier task) {
  platform::Application::shared().endBackgroundTask(task);
}

/// A background task that ends with its scope.
class BackgroundTask {
public:
  explicit BackgroundTask(const char* name) : _identifier(beginBackgroundTask(name)) {}
  ~BackgroundTask() { endBackgroundTask(_identifier); }
  BackgroundTask(const BackgroundTask&) = delete;
  BackgroundTask& operator=(const BackgroundTask&) = delete;

private:
  const platform::BackgroundTaskIdentifier _identifier;
};

} // namespace

// Creation

std::shared_ptr<QVMovieDownloader> QVMovieDownloader::sharedDownloader() {
  // Never destroyed: session events may still arrive while the process ends.
  static const auto& shared =
      *new std::shared_ptr<QVMovieDownloader>(downloaderWithIdentifier("QVMovieDownloader/SharedSession"));
  return shared;
}

std::shared_ptr<QVMovieDownloader>
QVMovieDownloader::downloaderWithIdentifier(const std::optional<std::string>& identifier, bool cellularAccess,
                                            bool discretionaryMode,
                                            const std::optional<std::string>& downloadPath) {
  (void)cellularAccess, (void)discretionaryMode;
  auto configuration = platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(
      identifier.value_or(std::string()));
  configuration.sessionSendsLaunchEvents = true;
  configuration.allowsCellularAccess = true;
  return downloaderWithConfiguration(configuration, downloadPath);
}

std::shared_ptr<QVMovieDownloader> QVMovieDownloader::downloaderWithConfiguration(
    const std::optional<platform::URLSessionConfiguration>& configuration,
    const std::optional<std::string>& downloadPath) {
  auto downloader =
      std::make_shared<QVMovieDownloader>(Passkey(), downloadPath ? *downloadPath : defaultDownloadPath());
  // Without a configuration there is no identifier, and the session is no background session.
  downloader->_open(configuration.value_or(platform::URLSessionConfiguration::defaultSessionConfiguration()));
  return downloader;
}

QVMovieDownloader::QVMovieDownloader(Passkey, std::string downloadPath)
    : _downloadPath(std::move(downloadPath)) {
  _backgroundCompletionHandlers.reserve(4);
}

QVMovieDownloader::~QVMovieDownloader() {
  _enterForeground = nullptr;
  _leaveForeground = nullptr;
}

void QVMovieDownloader::_open(const platform::URLSessionConfiguration& configuration) {
  const std::weak_ptr<QVMovieDownloader> weak = weak_from_this();
  {
    // Events may come before the session has been stored; they wait for the lock.
    Lock lock(_lock);
    _session = platform::URLSession::sessionWithConfiguration(configuration, weak, nullptr, &_sessionError);
    if (_session)
      _sessionError = nullptr;
    else if (!_sessionError)
      _sessionError = platform::makeError(platform::NSURLErrorDomain, platform::NSURLErrorUnknown,
                                          std::string("The download session could not be opened"));
    if (configuration.service)
      _manifestSession = configuration.service->sharedSession();
  }
  auto& application = platform::Application::shared();
  _leaveForeground = application.observeDidEnterBackground([weak] {
    if (const auto self = weak.lock())
      self->handleLeaveForeground();
  });
  _enterForeground = application.observeWillEnterForeground([weak] {
    if (const auto self = weak.lock())
      self->handleEnterForeground();
  });
  if (_session)
    _session->getTasksWithCompletionHandler([weak](const std::vector<platform::DownloadTaskRef>& tasks) {
      if (const auto self = weak.lock())
        self->_reattachTasks(tasks);
    });
}

void QVMovieDownloader::setDocumentsPath(const std::string& path) {
  auto& documents = documentsPath();
  std::lock_guard lock(documents.mutex);
  documents.path = path;
}

std::string QVMovieDownloader::getDefaultManifestLocalName() {
  return "manifest.mpd";
}

// Attributes

std::string QVMovieDownloader::downloadPath() const {
  Lock lock(_lock);
  return _downloadPath;
}

void QVMovieDownloader::setDownloadPath(const std::string& path) {
  Lock lock(_lock);
  _downloadPath = path;
}

std::optional<platform::HTTPHeaders> QVMovieDownloader::additionalHeaders() const {
  Lock lock(_lock);
  return _additionalHeaders;
}

void QVMovieDownloader::setAdditionalHeaders(std::optional<platform::HTTPHeaders> headers) {
  Lock lock(_lock);
  _additionalHeaders = std::move(headers);
}

// Queries

std::optional<std::vector<std::shared_ptr<QVMovieDownloadProperties>>>
QVMovieDownloader::downloadedMovies() const {
  Lock lock(_lock);
  std::vector<std::shared_ptr<QVMovieDownloadProperties>> movies;
  for (const auto& name : platform::FileManager::contentsOfDirectoryAtPath(_downloadPath)) {
    const std::string directory = _directoryOf(name);
    const char* const jsonName = QVMovieDownloadProperties::defaultJSONName;
    if (!platform::FileManager::fileExistsAtPath(directory + "/" + jsonName))
      continue;
    if (auto properties = QVMovieDownloadProperties::propertiesWithLocalPath(directory, jsonName))
      movies.push_back(std::move(properties));
  }
  if (movies.empty())
    return std::nullopt;
  return movies;
}

std::optional<std::vector<std::shared_ptr<QVMovieDownloadSet>>>
QVMovieDownloader::activeDownloadSets() const {
  Lock lock(_lock);
  if (_downloadIdSetMap.empty())
    return std::nullopt;
  return _allSets();
}

std::shared_ptr<QVMovieDownloadSet>
QVMovieDownloader::fetchActiveDownloadSetForURL(const std::string& url) const {
  Lock lock(_lock);
  return _registeredSet(downloadIdWithURL(url));
}

std::string QVMovieDownloader::_directoryOf(const std::string& downloadId) const {
  return _downloadPath + "/" + downloadId;
}

std::shared_ptr<QVMovieDownloadSet> QVMovieDownloader::_registeredSet(const std::string& downloadId) const {
  const auto it = _downloadIdSetMap.find(downloadId);
  return it == _downloadIdSetMap.end() ? nullptr : it->second;
}

/// A copy: a delegate may change the map while it is walked.
std::vector<std::shared_ptr<QVMovieDownloadSet>> QVMovieDownloader::_allSets() const {
  std::vector<std::shared_ptr<QVMovieDownloadSet>> sets;
  sets.reserve(_downloadIdSetMap.size());
  for (const auto& [downloadId, set] : _downloadIdSetMap)
    sets.push_back(set);
  return sets;
}

// Commands on a set. Pausing, resuming and cancelling end their background task only when they act; otherwise
// it is left to expire.

bool QVMovieDownloader::download(const std::shared_ptr<QVMovieDownloadSet>& set) {
  Lock lock(_lock);
  const BackgroundTask task("QVMovieDownloader: Initiate download");
  _validateSet(*set);
  return set->downloadWithAdditionalHeaders(_additionalHeaders);
}

bool QVMovieDownloader::pause(const std::shared_ptr<QVMovieDownloadSet>& set) {
  Lock lock(_lock);
  const auto task = beginBackgroundTask("QVMovieDownloader: Pause download");
  _validateSet(*set);
  const QVDownloadStatus status = set->status();
  if (status != QVDownloadStatusDownloading)
    return status == QVDownloadStatusPaused;
  set->pause();
  endBackgroundTask(task);
  return true;
}

bool QVMovieDownloader::resume(const std::shared_ptr<QVMovieDownloadSet>& set) {
  Lock lock(_lock);
  const auto task = beginBackgroundTask("QVMovieDownloader: Resume download");
  _validateSet(*set);
  const QVDownloadStatus status = set->status();
  if (status != QVDownloadStatusPaused)
    return status == QVDownloadStatusDownloading;
  set->resume();
  endBackgroundTask(task);
  return true;
}

bool QVMovieDownloader::cancel(const std::shared_ptr<QVMovieDownloadSet>& set) {
  Lock lock(_lock);
  const auto task = beginBackgroundTask("QVMovieDownloader: Cancel download");
  _validateSet(*set);
  if (set->status() == QVDownloadStatusInactive)
    return false;
  set->cancel();
  endBackgroundTask(task);
  return true;
}

bool QVMovieDownloader::remove(const std::shared_ptr<QVMovieDownloadSet>& set) {
  Lock lock(_lock);
  const BackgroundTask task("QVMovieDownloader: Remove download");
  _validateSet(*set);
  const auto kept = set; // the caller's reference may stand in the map
  if (kept->status() != QVDownloadStatusInactive)
    kept->cancel();
  _remove(*kept);
  _downloadIdSetMap.erase(kept->downloadId());
  return true;
}

void QVMovieDownloader::_validateSet(const QVMovieDownloadSet& set) const {
  if (!_registeredSet(set.downloadId()))
    throw platform::Exception(exceptionName, "DownloadSet is not owned by this instance");
}

void QVMovieDownloader::_remove(const QVMovieDownloadSet& set) {
  Lock lock(set._lock);
  if (!platform::FileManager::fileExistsAtPath(set.downloadPath()))
    return;
  auto error = platform::FileManager::removeItemAtPath(set.downloadPath());
  // A file that was being written at this moment may have come after the directory was emptied.
  for (int again = 0; again < 3 && error && error->code() == ENOTEMPTY; ++again)
    error = platform::FileManager::removeItemAtPath(set.downloadPath());
  if (error && error->code() != ENOENT)
    throw platform::Exception(exceptionName, "Failed to remove files for DownloadSet", {{"NSError", error}});
}

// Commands on all sets

void QVMovieDownloader::pauseAll() {
  Lock lock(_lock);
  const BackgroundTask task("QVMovieDownloader: Pause all");
  for (const auto& set : _allSets())
    if (set->status() == QVDownloadStatusDownloading)
      set->pause();
}

void QVMovieDownloader::resumeAll() {
  Lock lock(_lock);
  const BackgroundTask task("QVMovieDownloader: Resume all");
  for (const auto& set : _allSets())
    if (set->status() == QVDownloadStatusPaused)
      set->resume();
}

void QVMovieDownloader::cancelAll() {
  Lock lock(_lock);
  const BackgroundTask task("QVMovieDownloader: Cancel all");
  for (const auto& set : _allSets())
    set->cancel();
}

void QVMovieDownloader::removeAll() {
  Lock lock(_lock);
  const BackgroundTask task("QVMovieDownloader: Remove all");
  for (const auto& set : _allSets())
    if (set->status() != QVDownloadStatusInactive)
      set->cancel();
  if (platform::FileManager::fileExistsAtPath(_downloadPath))
    if (const auto error = platform::FileManager::removeItemAtPath(_downloadPath))
      throw platform::Exception(exceptionName, "Failed to remove all downloader files", {{"NSError", error}});
  _downloadIdSetMap.clear();
}

void QVMovieDownloader::handleBackgroundEventsWithCompletionHandler(std::function<void()> handler) {
  if (!handler)
    return;
  Lock lock(_lock);
  _backgroundCompletionHandlers.push_back(std::move(handler));
}

// For records and sets

void QVMovieDownloader::resourceAttachTask(const std::shared_ptr<QVResourceDownloadInfo>& resource,
                                           const platform::DownloadTaskRef& task) {
  _tasks.attach(task, resource);
}

void QVMovieDownloader::resourceDetachTask(const std::shared_ptr<QVResourceDownloadInfo>& resource,
                                           const platform::DownloadTaskRef& task) {
  (void)resource;
  _tasks.detach(*task);
}
