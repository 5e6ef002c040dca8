#include "halvix/DownloadManager.h"

#include "halvix/BaseDownloader.h"
#include "halvix/DownloadStore.h"
#include "halvix/HostEnvironment.h"
#include "halvix/ManagerState.h"
#include "halvix/Session.h"
#include "halvix/Utils.h"

#include "platform/concurrency/Queue.h"
#include "platform/foundation/FileManager.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace halvix {

namespace {

void answer(const DownloadManager::Completion& completion, QVErrorRef error) {
  platform::MainQueue::shared().async([completion, error = std::move(error)] { completion(error); });
}

QVErrorRef noDownloader() {
  return QVErrorBuilder(ErrorType::downloader_id_not_found)
      .message("the download belongs to nothing that is attached")
      .build();
}

/// The directory that a downloader names after a download; empty when the identifier is no directory name.
std::string ownFolder(const BaseDownloader& owner, const Download& download) {
  const std::string& uuid = download.uuid();
  if (!owner.environment() || uuid.find('/') != std::string::npos || uuid == "." || uuid == "..")
    return {};
  return owner.environment()->libraryDirectory() + "/" + owner.name() + "/" + uuid;
}

QVErrorRef checkSelection(const Download& download) {
  const auto tracks = download.tracks();
  if (!tracks || !tracks->offersChoice() || !download.selection().empty())
    return nullptr;
  return QVErrorBuilder(ErrorType::download_selection_empty)
      .message(download.hasSelection() ? "nothing of what was chosen is offered (any more)"
                                       : "nothing is selected")
      .build();
}

/// Sees to it that a preparation is answered once: not twice, and also when the downloader drops the
/// completion without a call.
class PreparationTicket {
public:
  using Ended = std::function<void(QVErrorRef error)>;
  explicit PreparationTicket(Ended ended) : _ended(std::move(ended)) {}
  ~PreparationTicket() {
    finish(QVErrorBuilder(ErrorType::downloader_request_creation_failed)
               .message("the preparation was abandoned")
               .build());
  }
  void finish(const QVErrorRef& error) {
    if (!_done.exchange(true))
      _ended(error);
  }

private:
  Ended _ended;
  std::atomic<bool> _done{false};
};

} // namespace

DownloadManager::DownloadManager(std::shared_ptr<HostEnvironment> environment)
    : _state(ManagerState::create(std::move(environment))) {}

std::shared_ptr<DownloadManager> DownloadManager::create(std::shared_ptr<HostEnvironment> environment) {
  if (environment && !HostEnvironment::defaultEnvironment())
    HostEnvironment::setDefault(environment);
  return std::shared_ptr<DownloadManager>(new DownloadManager(std::move(environment)));
}

DownloadManager::~DownloadManager() {
  detachPlugins();
}

const std::shared_ptr<HostEnvironment>& DownloadManager::environment() const {
  return _state->environment;
}
const std::shared_ptr<Session>& DownloadManager::session() const {
  return _state->session;
}
const std::shared_ptr<ComponentRegistry>& DownloadManager::components() const {
  return _state->components;
}

void DownloadManager::attachPlugin(std::shared_ptr<QVPluginProtocol> plugin) {
  {
    std::lock_guard lock(_state->mutex);
    _state->plugins.push_back(plugin);
  }
  plugin->pluginAttached(_state->context);
}

void DownloadManager::configurePlugins(const QVPluginConfiguration& configuration) {
  std::vector<std::shared_ptr<QVPluginProtocol>> plugins;
  {
    std::lock_guard lock(_state->mutex);
    plugins = _state->plugins;
  }
  for (const auto& plugin : plugins)
    plugin->configure(configuration);
}

void DownloadManager::detachPlugins() {
  std::vector<std::shared_ptr<QVPluginProtocol>> plugins;
  {
    std::lock_guard lock(_state->mutex);
    plugins.swap(_state->plugins);
  }
  for (const auto& plugin : plugins)
    plugin->pluginDetached();
}

void DownloadManager::addListener(const std::weak_ptr<DownloadDelegate>& listener) {
  _state->listeners.add(listener);
}

void DownloadManager::removeListener(const std::shared_ptr<DownloadDelegate>& listener) {
  _state->listeners.remove(listener);
}

std::shared_ptr<BaseDownloader> DownloadManager::downloaderForContentType(ContentType contentType,
                                                                          QVErrorRef* error) {
  auto downloader = _state->downloader(contentType);
  if (!downloader && error)
    *error = QVErrorBuilder(ErrorType::downloader_not_found)
                 .message("nothing is attached that downloads " + rawValue(contentType) + " content")
                 .build();
  return downloader;
}

void DownloadManager::determineContentType(const std::string& url, const platform::HTTPHeaders& headers,
                                           ContentTypeCompletion completion) {
  const auto& environment = _state->environment;
  platform::HTTPHeaders all = environment ? environment->options().headers : platform::HTTPHeaders();
  for (const auto& [name, value] : headers)
    all[name] = value;
  detectContentType(url, all, environment ? environment->transferService() : nullptr, std::move(completion));
}

std::shared_ptr<Download> DownloadManager::createDownload(const PlayerConfiguration& configuration,
                                                          const platform::HTTPHeaders& headers,
                                                          QVErrorRef* error) {
  // The one that is going to have it comes first: an empty list needs no other.
  if (configuration.contentType)
    _state->downloader(*configuration.contentType);
  if (auto known = findDownloadByContentUrl(configuration.contentUrl)) {
    if (!configuration.title.empty())
      known->setTitle(configuration.title);
    if (!headers.empty())
      known->setHeaders(headers);
    return known;
  }
  if (!configuration.contentType) {
    if (error)
      *error =
          QVErrorBuilder(ErrorType::content_type_unknown)
              .message("the kind of content is not known; supported are " + supportedContentDescription())
              .build();
    return nullptr;
  }
  const auto owner = downloaderForContentType(*configuration.contentType, error);
  if (!owner)
    return nullptr;
  auto download = owner->createDownload(configuration, headers, error);
  if (download && download->isProvisional() && owner->identifiesContent())
    if (const std::string folder = ownFolder(*owner, *download); !folder.empty())
      download->setFoundContent(platform::FileManager::fileExistsAtPath(folder));
  return download;
}

void DownloadManager::prepare(const std::shared_ptr<Download>& download, Completion completion) {
  const auto owner = _state->ownerOf(*download);
  if (!owner)
    return answer(completion, noDownloader());
  if (!_state->joinPreparation(download, std::move(completion)))
    return;
  // On the main queue as a whole: a downloader may call back under locks of its own.
  auto ticket =
      std::make_shared<PreparationTicket>([state = _state, download, owner](const QVErrorRef& error) {
        platform::MainQueue::shared().async([state, download, owner, error] {
          if (error && download->isProvisional())
            state->drop(*owner, download);
          for (const auto& waiting : state->endPreparation(download))
            waiting(error);
        });
      });
  owner->prepareDownload(download->uuid(),
                         [ticket](const std::shared_ptr<Download>& prepared, QVErrorRef error) {
                           if (!error && !prepared)
                             error = QVErrorBuilder(ErrorType::downloader_request_creation_failed).build();
                           ticket->finish(error);
                         });
}

QVErrorRef DownloadManager::select(const std::shared_ptr<Download>& download, const Selection& selection) {
  const auto tracks = download->tracks();
  if (tracks && !tracks->empty() && selection.matchedAgainst(*tracks).empty())
    return QVErrorBuilder(ErrorType::download_selection_empty)
        .message(selection.empty() ? "nothing is selected" : "nothing of what was chosen is offered")
        .build();
  download->setSelection(selection);
  const auto owner = _state->ownerOf(*download);
  return owner ? owner->storeItems() : nullptr;
}

QVErrorRef DownloadManager::start(const std::shared_ptr<Download>& download,
                                  std::weak_ptr<DownloadDelegate> delegate) {
  return _state->start({download}, delegate).front();
}

std::vector<QVErrorRef> DownloadManager::start(const std::vector<std::shared_ptr<Download>>& downloads) {
  return _state->start(downloads, {});
}

std::vector<QVErrorRef> ManagerState::start(const std::vector<std::shared_ptr<Download>>& downloads,
                                            const std::weak_ptr<DownloadDelegate>& delegate) {
  std::vector<QVErrorRef> errors(downloads.size());
  std::vector<std::shared_ptr<BaseDownloader>> owners(downloads.size());
  std::vector<bool> isNew(downloads.size());
  for (std::size_t i = 0; i < downloads.size(); ++i) {
    owners[i] = ownerOf(*downloads[i]);
    errors[i] = owners[i] ? checkSelection(*downloads[i]) : noDownloader();
    isNew[i] = !errors[i] && downloads[i]->isProvisional();
    if (isNew[i])
      downloads[i]->keep();
  }
  // On the list before the first byte: what is on disk without a record would be nobody's.
  std::map<std::shared_ptr<BaseDownloader>, QVErrorRef> stored;
  for (std::size_t i = 0; i < downloads.size(); ++i)
    if (isNew[i] && stored.try_emplace(owners[i]).second)
      stored[owners[i]] = owners[i]->storeItems();
  for (std::size_t i = 0; i < downloads.size(); ++i) {
    if (errors[i])
      continue;
    if (isNew[i])
      errors[i] = stored[owners[i]];
    if (!errors[i]) {
      // Set before the start, whose events may already end the run and with it the mark.
      downloads[i]->setStarted(true);
      if ((errors[i] = owners[i]->startDownload(downloads[i]->uuid(), delegate)))
        downloads[i]->setStarted(false);
    }
    if (errors[i] && isNew[i])
      drop(*owners[i], downloads[i]);
  }
  stored.clear();
  for (std::size_t i = 0; i < downloads.size(); ++i) {
    if (errors[i])
      continue;
    if (stored.try_emplace(owners[i]).second)
      stored[owners[i]] = owners[i]->storeItems();
    errors[i] = stored[owners[i]];
  }
  return errors;
}

QVErrorRef DownloadManager::pause(const std::shared_ptr<Download>& download) {
  const auto owner = _state->ownerOf(*download);
  if (!owner)
    return noDownloader();
  auto error = owner->pauseDownload(download->uuid());
  auto storing = owner->storeItems();
  return error ? error : storing;
}

void DownloadManager::resume(const std::shared_ptr<Download>& download, Completion completion) {
  const auto owner = _state->ownerOf(*download);
  if (!owner)
    return answer(completion, noDownloader());
  const DownloadState state = download->state();
  const bool underWay = (state == DownloadState::running && !download->interruptedAtLoad()) ||
                        (state == DownloadState::idle && download->isStarted()); // waits for its turn
  if (state == DownloadState::success || underWay)
    return answer(completion, nullptr);
  if (state == DownloadState::paused && download->isStarted()) {
    auto error = owner->resumeDownload(download->uuid());
    auto storing = owner->storeItems();
    return answer(completion, error ? error : storing);
  }
  prepare(download, [shared = _state, download, completion](const QVErrorRef& error) {
    completion(error ? error : shared->start({download}, download->delegate()).front());
  });
}

QVErrorRef DownloadManager::cancel(const std::shared_ptr<Download>& download) {
  const auto owner = _state->ownerOf(*download);
  if (!owner)
    return noDownloader();
  QVErrorRef error;
  if (download->isStarted() ||
      (download->state() == DownloadState::running && !download->interruptedAtLoad())) {
    error = owner->cancelDownload(download->uuid());
    if (!error)
      download->setStarted(false);
  } else if (download->state() != DownloadState::success) {
    download->setState(DownloadState::idle);
    download->setLastError(nullptr);
  }
  auto storing = owner->storeItems();
  return error ? error : storing;
}

QVErrorRef DownloadManager::remove(const std::shared_ptr<Download>& download) {
  const auto owner = _state->ownerOf(*download);
  if (!owner)
    return noDownloader();
  return _state->remove(*owner, download);
}

QVErrorRef ManagerState::remove(BaseDownloader& owner, const std::shared_ptr<Download>& download) {
  using platform::FileManager;
  if (auto error = owner.removeDownload(download->uuid())) {
    // A downloader knows the content of a finished download and of one that is under way. What an earlier
    // process left unfinished stands in the folder of its name; what somebody else removed needs no removing.
    const auto local = download->localUrl();
    if (local && (FileManager::fileExistsAtPath(*local) || FileManager::directoryExistsAtPath(*local)))
      return error;
    const std::string folder = ownFolder(owner, *download);
    if (!folder.empty() && FileManager::directoryExistsAtPath(folder))
      if (auto cause = Utils::removeFolder(folder))
        return QVErrorBuilder(ErrorType::storage_error_while_removing_file).parent(cause).build();
  }
  return owner.forgetDownload(download->uuid());
}

void ManagerState::drop(BaseDownloader& owner, const std::shared_ptr<Download>& download) {
  if (!download->foundContent() && !remove(owner, download))
    return;
  owner.forgetDownload(download->uuid());
}

void DownloadManager::discard(const std::shared_ptr<Download>& download) {
  const auto owner = _state->ownerOf(*download);
  if (owner && download->isProvisional())
    _state->drop(*owner, download);
}

QVErrorRef DownloadManager::store() {
  QVErrorRef first;
  for (const auto& downloader : _state->knownDownloaders())
    if (auto error = downloader->storeItems(); error && !first)
      first = error;
  return first;
}

std::vector<std::shared_ptr<Download>> DownloadManager::downloads() {
  std::vector<std::shared_ptr<Download>> all;
  for (const auto& downloader : _state->downloadersWithDownloads()) {
    auto some = downloader->downloads();
    all.insert(all.end(), std::make_move_iterator(some.begin()), std::make_move_iterator(some.end()));
  }
  std::stable_sort(all.begin(), all.end(), [](const auto& a, const auto& b) {
    return a->createdMilliseconds() < b->createdMilliseconds();
  });
  return all;
}

std::shared_ptr<Download> DownloadManager::findDownloadByContentUrl(std::string_view contentUrl) {
  for (const auto& downloader : _state->downloadersWithDownloads())
    if (auto download = downloader->findDownloadByContentUrl(contentUrl))
      return download;
  return nullptr;
}

std::shared_ptr<Download> DownloadManager::findDownload(std::string_view prefix, QVErrorRef* error) {
  constexpr std::size_t shown = 3;
  std::vector<std::shared_ptr<Download>> fitting;
  std::size_t count = 0;
  for (const auto& downloader : _state->downloadersWithDownloads()) {
    if (auto exact = downloader->findDownload(prefix))
      return exact;
    if (prefix.empty())
      continue;
    for (const auto& download : downloader->downloads())
      if (download->uuid().starts_with(prefix) && ++count <= shown)
        fitting.push_back(download);
  }
  if (count == 1)
    return fitting.front();
  if (!error)
    return nullptr;
  const std::string quoted = "\"" + std::string(prefix) + "\"";
  if (count == 0) {
    *error =
        QVErrorBuilder(ErrorType::downloader_id_not_found).message("there is no download " + quoted).build();
    return nullptr;
  }
  std::string message = std::to_string(count) + " downloads begin with " + quoted + ": ";
  for (const auto& download : fitting)
    message += (download == fitting.front() ? "" : ", ") + download->uuid();
  *error = QVErrorBuilder(ErrorType::download_id_ambiguous)
               .message(message + (count > shown ? ", …" : ""))
               .build();
  return nullptr;
}

} // namespace halvix
