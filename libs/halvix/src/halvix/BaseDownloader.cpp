#include "halvix/BaseDownloader.h"

#include "halvix/DownloadHub.h"
#include "halvix/DownloadRecord.h"
#include "halvix/DownloadStore.h"
#include "halvix/HostEnvironment.h"
#include "halvix/Log.h"

#include "platform/concurrency/Queue.h"
#include "platform/foundation/ASCII.h"
#include "platform/foundation/FileManager.h"
#include "platform/foundation/UUID.h"

#include <algorithm>
#include <utility>

namespace halvix {

namespace {

constexpr std::string_view tag = "[BaseDownloader]";

std::string randomUuid() {
  return platform::asciiLowered(platform::newUUIDString());
}

platform::HTTPHeaders overlaid(platform::HTTPHeaders under, const platform::HTTPHeaders& over) {
  for (const auto& [name, value] : over)
    under[name] = value;
  return under;
}

std::shared_ptr<HostEnvironment> orDefault(std::shared_ptr<HostEnvironment> environment) {
  return environment ? std::move(environment) : HostEnvironment::defaultEnvironment();
}

} // namespace

BaseDownloader::BaseDownloader(std::string name, bool cellularAccess, platform::HTTPHeaders headers,
                               std::shared_ptr<HostEnvironment> environment)
    : _name(std::move(name)), _cellularAccess(cellularAccess),
      _environment(orDefault(std::move(environment))),
      _headers(_environment ? overlaid(_environment->options().headers, headers) : std::move(headers)),
      _hub(std::make_shared<DownloadHub>(_environment ? _environment->libraryDirectory() + "/" + _name
                                                      : std::string())) {}

BaseDownloader::~BaseDownloader() = default;

std::string BaseDownloader::downloadPath() const {
  const std::string& path = _hub->downloadPath();
  // Looked at once: each file of thousands asks for it, and what writes there will tell when it is gone.
  if (path.empty() || _pathIsThere)
    return path;
  std::vector<std::string> changed;
  if (auto error = platform::FileManager::createDirectoryAtPath(path, true, &changed)) {
    log_e(tag, error->localizedDescription());
    return path;
  }
  _pathIsThere = true;
  // Beside what comes next, and ahead of all that writes records there on the same queue.
  if (!changed.empty())
    platform::SerialQueue::background().async([changed = std::move(changed)] {
      for (const auto& error : platform::FileManager::syncItemsAtPaths(changed))
        if (error)
          log_e(tag, error->localizedDescription());
    });
  return path;
}

platform::HTTPHeaders BaseDownloader::headersForDownload(const std::string& uuid) const {
  const auto download = findDownload(uuid);
  return download ? overlaid(_headers, download->headers()) : _headers;
}

std::shared_ptr<DownloaderDispatcherProtocol> BaseDownloader::dispatcher() const {
  return _hub->dispatcher();
}

void BaseDownloader::setDispatcher(std::shared_ptr<DownloaderDispatcherProtocol> dispatcher) {
  _hub->setDispatcher(std::move(dispatcher));
}

std::vector<std::shared_ptr<Download>> BaseDownloader::downloads() const {
  std::lock_guard lock(_mutex);
  return _downloads;
}

std::shared_ptr<Download> BaseDownloader::findDownload(std::string_view uuid) const {
  std::lock_guard lock(_mutex);
  const auto it = _byUuid.find(uuid);
  return it == _byUuid.end() ? nullptr : it->second;
}

std::shared_ptr<Download> BaseDownloader::findDownloadByContentUrl(std::string_view contentUrl) const {
  std::lock_guard lock(_mutex);
  const auto it = _byContentUrl.find(std::string(contentUrl));
  return it == _byContentUrl.end() ? nullptr : it->second;
}

QVErrorRef BaseDownloader::loadItems() {
  if (!_environment)
    return nullptr;
  QVErrorRef error;
  std::vector<DownloadRecord> records = _environment->store()->load(_name, &error);
  if (error) {
    log_e(tag, error->description());
    return error;
  }
  std::lock_guard lock(_mutex);
  _downloads.reserve(_downloads.size() + records.size());
  _byUuid.reserve(_byUuid.size() + records.size());
  _byContentUrl.reserve(_byContentUrl.size() + records.size());
  for (DownloadRecord& record : records)
    insertLocked(std::make_shared<Download>(std::move(record), _hub, true));
  return nullptr;
}

void BaseDownloader::insertLocked(std::shared_ptr<Download> download) {
  if (!_byUuid.emplace(std::string_view(download->uuid()), download).second)
    return;
  _byContentUrl.emplace(download->contentUrl(), download);
  _downloads.push_back(std::move(download));
}

QVErrorRef BaseDownloader::storeItems() {
  std::lock_guard order(_storeMutex);
  return writeChanged();
}

QVErrorRef BaseDownloader::storeItemsFor(const Download& download) {
  std::lock_guard order(_storeMutex);
  return download.hasChangedRecord() ? writeChanged() : nullptr;
}

QVErrorRef BaseDownloader::writeChanged() {
  const auto allChanged = _hub->takeChanged();
  std::vector<std::shared_ptr<Download>> taken;
  std::vector<DownloadRecord> records;
  taken.reserve(allChanged.size());
  records.reserve(allChanged.size());
  for (const auto& changed : allChanged)
    if (auto download = changed.lock())
      if (auto record = download->takeChangedRecord()) {
        taken.push_back(std::move(download));
        records.push_back(std::move(*record));
      }
  if (records.empty() || !_environment)
    return nullptr;
  QVErrorRef error = _environment->store()->write(records);
  if (error) {
    log_e(tag, error->description());
    for (const auto& download : taken)
      download->markChanged();
  }
  return error;
}

QVErrorRef BaseDownloader::forgetDownload(const std::string& uuid) {
  std::shared_ptr<Download> download;
  {
    std::lock_guard lock(_mutex);
    const auto it = _byUuid.find(uuid);
    if (it == _byUuid.end())
      return nullptr;
    download = it->second;
    _byUuid.erase(it);
    if (const auto byUrl = _byContentUrl.find(download->contentUrl());
        byUrl != _byContentUrl.end() && byUrl->second == download)
      _byContentUrl.erase(byUrl);
    _downloads.erase(std::find(_downloads.begin(), _downloads.end(), download));
  }
  const bool stored = !download->isProvisional();
  download->markRemoved();
  // A writing that took the record before it was marked must end before the row goes.
  std::lock_guard order(_storeMutex);
  return stored && _environment ? _environment->store()->remove(_name, download->uuid()) : nullptr;
}

void BaseDownloader::settleInterruptedDownloads() {
  for (const auto& download : downloads())
    if (download->interruptedAtLoad())
      download->setState(DownloadState::paused);
}

void BaseDownloader::toggleActivityIndicator(bool active) {
  std::lock_guard lock(_mutex);
  _activityCount = active ? _activityCount + 1 : std::max(0, _activityCount - 1);
}

int BaseDownloader::activityCount() const {
  std::lock_guard lock(_mutex);
  return _activityCount;
}

void BaseDownloader::setUuidGenerator(UuidGenerator generator) {
  std::lock_guard lock(_mutex);
  _uuidGenerator.swap(generator);
}

bool BaseDownloader::identifiesContent() const {
  std::lock_guard lock(_mutex);
  return static_cast<bool>(_uuidGenerator);
}

BaseDownloader::UuidGenerator BaseDownloader::uuidGenerator() const {
  std::lock_guard lock(_mutex);
  return _uuidGenerator;
}

bool BaseDownloader::canDownload(const PlayerConfiguration& configuration) const {
  return configuration.contentType && canDownload(*configuration.contentType);
}

std::shared_ptr<Download> BaseDownloader::createDownload(const PlayerConfiguration& configuration,
                                                         const platform::HTTPHeaders& headers,
                                                         QVErrorRef* error) {
  auto fail = [error](const char* message) {
    if (error)
      *error = QVErrorBuilder(ErrorType::downloader_request_creation_failed).message(message).build();
    return nullptr;
  };
  if (configuration.contentUrl.empty())
    return fail("a download needs a URL");
  const UuidGenerator generator = uuidGenerator();
  const std::string uuid = generator ? generator(configuration) : randomUuid();
  if (uuid.empty())
    return fail("the download has no identifier");

  std::shared_ptr<Download> known;
  {
    std::lock_guard lock(_mutex);
    if (const auto it = _byUuid.find(uuid); it != _byUuid.end()) {
      known = it->second;
    } else {
      DownloadRecord record;
      record.uuid = uuid;
      record.downloader = _name;
      record.contentUrl = configuration.contentUrl;
      record.title = configuration.title;
      record.contentType = configuration.contentType;
      auto download = std::make_shared<Download>(std::move(record), _hub, false);
      download->setHeaders(headers);
      insertLocked(download);
      return download;
    }
  }
  if (!configuration.title.empty())
    known->setTitle(configuration.title);
  if (!headers.empty())
    known->setHeaders(headers);
  return known;
}

} // namespace halvix
