// The queue itself: what starts, what waits, what stops. What transfers tell is in
// ZRKFileDownloaderEvents.cpp.

#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloader.h"

#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKConnectionDownload.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloadDelegate.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloadItem.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloaderState.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileLog.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileStorage.h"

#include "platform/concurrency/Queue.h"
#include "platform/foundation/Progress.h"
#include "platform/foundation/UUID.h"
#include "platform/transfer/TransferService.h"
#include "platform/transfer/URLConnection.h"

#include <algorithm>
#include <filesystem>
#include <utility>

using namespace platform;

/// A start on its way from the command to the running transfer.
struct ZRKFileDownloader::Beginning {
  std::string token;
  std::optional<URL> remoteURL;
  std::optional<Data> resumeData;
  State::StartingPlace place;
  DownloadID base = 0; ///< of the session that made the task
  ErrorRef error{};    ///< why it comes to nothing
  std::vector<std::string> messages{};

  void refuse(ErrorRef why, std::string line) {
    error = std::move(why);
    messages.insert(messages.begin(), std::move(line));
  }
};

// ---- Making one

ZRKFileDownloader::ZRKFileDownloader(std::unique_ptr<State> state) : _state(std::move(state)) {}
ZRKFileDownloader::~ZRKFileDownloader() = default;

std::shared_ptr<ZRKFileDownloader>
ZRKFileDownloader::downloaderWithDelegate(std::weak_ptr<ZRKFileDownloadDelegate> delegate,
                                          ZRKFileDownloaderEnvironment environment) {
  return downloaderWithDelegate(std::move(delegate), 0, std::move(environment));
}

std::shared_ptr<ZRKFileDownloader>
ZRKFileDownloader::downloaderWithDelegate(std::weak_ptr<ZRKFileDownloadDelegate> delegate,
                                          std::int64_t maxConcurrentDownloads,
                                          ZRKFileDownloaderEnvironment environment) {
  auto identifier = environment.bundleIdentifier + ".ZRKFileDownload." + newUUIDString();
  return downloaderWithDelegate(std::move(delegate), maxConcurrentDownloads, identifier,
                                std::move(environment));
}

std::shared_ptr<ZRKFileDownloader> ZRKFileDownloader::downloaderWithDelegate(
    std::weak_ptr<ZRKFileDownloadDelegate> delegate, std::int64_t maxConcurrentDownloads,
    const std::string& backgroundSessionIdentifier, ZRKFileDownloaderEnvironment environment) {
  auto made = std::make_unique<State>();
  auto& state = *made;
  state.fileDownloadDelegate = std::move(delegate);
  state.environment = std::move(environment);
  if (state.environment.temporaryDirectory.empty())
    state.environment.temporaryDirectory = std::filesystem::temp_directory_path().string();
  state.queue = state.environment.delegateQueue ? state.environment.delegateQueue
                                                : std::make_shared<SerialQueue>(backgroundSessionIdentifier);
  state.service = state.environment.service ? state.environment.service : TransferService::defaultService();
  state.hasSessions = !state.service || state.service->hasBackgroundSessions();
  if (maxConcurrentDownloads > 0)
    state.maxConcurrentFileDownloadsCount = static_cast<std::uint64_t>(maxConcurrentDownloads);
  state.backgroundSessionIdentifier = backgroundSessionIdentifier;
  std::shared_ptr<ZRKFileDownloader> downloader(new ZRKFileDownloader(std::move(made)));
  if (state.hasSessions) {
    ErrorRef error;
    auto session = downloader->_openSession(backgroundSessionIdentifier, &error);
    std::lock_guard guard(state.mutex);
    state.backgroundSession = std::move(session);
    state.sessionError = std::move(error);
  } else {
    state.downloadFileSerialWriterDispatchQueue =
        std::make_shared<SerialQueue>(state.environment.bundleIdentifier + ".downloadFileWriter");
    // What a client adds for all its requests holds for this transport too.
    if (auto client = state.fileDownloadDelegate.lock())
      client->customizeBackgroundSessionConfiguration(state.connectionConfiguration);
  }
  return downloader;
}

std::shared_ptr<URLSession> ZRKFileDownloader::_openSession(const std::string& identifier, ErrorRef* error) {
  auto configuration = URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(identifier);
  configuration.service = _state->service;
  if (auto delegate = _state->fileDownloadDelegate.lock())
    delegate->customizeBackgroundSessionConfiguration(configuration);
  auto session = URLSession::sessionWithConfiguration(configuration, weak_from_this(), _state->queue, error);
  if (!session && !*error)
    *error = makeError(NSURLErrorDomain, NSURLErrorUnknown,
                       "The session \"" + identifier + "\" cannot be opened.");
  return session;
}

void ZRKFileDownloader::invalidateSessionConfigurationAndCancelTasks(bool cancelTasks) {
  auto& state = *_state;
  if (!state.hasSessions)
    return;
  // The new one first, so that what starts meanwhile never meets a closed session.
  auto identifier = state.environment.bundleIdentifier + "." + newUUIDString();
  ErrorRef error;
  auto fresh = _openSession(identifier, &error);
  std::shared_ptr<URLSession> old;
  {
    std::lock_guard guard(state.mutex);
    old = std::exchange(state.backgroundSession, std::move(fresh));
    state.sessionError = std::move(error);
    state.backgroundSessionIdentifier = std::move(identifier);
    if (old) {
      state.closingSessions.emplace(old->configuration().identifier, State::Closing{old, state.sessionBase});
      constexpr DownloadID TasksOfOneSession = DownloadID{1} << 48;
      state.sessionBase += TasksOfOneSession;
    }
  }
  if (!old)
    return;
  if (cancelTasks)
    old->invalidateAndCancel();
  else
    old->finishTasksAndInvalidate();
}

// ---- Tasks of an earlier process

void ZRKFileDownloader::setupWithCompletionBlock(std::function<void()> completion) {
  auto open = backgroundSession();
  if (!open) {
    _state->queue->async(std::move(completion));
    return;
  }
  open->getTasksWithCompletionHandler(
      [weak = weak_from_this(), completion = std::move(completion)](std::vector<DownloadTaskRef> tasks) {
        if (auto self = weak.lock())
          self->_takeOverTasks(std::move(tasks), completion);
        else
          completion();
      });
}

void ZRKFileDownloader::_takeOverTasks(std::vector<DownloadTaskRef> tasks, std::function<void()> completion) {
  {
    // A start of our own that has its task and not yet its item would look like one of an earlier process.
    std::lock_guard guard(_state->mutex);
    if (!_state->starting.empty()) {
      _state->queue->async([weak = weak_from_this(), completion = std::move(completion)] {
        if (auto self = weak.lock())
          self->setupWithCompletionBlock(completion);
        else
          completion();
      });
      return;
    }
  }
  for (const auto& task : tasks) {
    DownloadID downloadID;
    {
      std::lock_guard guard(_state->mutex);
      downloadID = _state->sessionBase + task->taskIdentifier();
      if (_state->activeDownloadsDictionary.contains(downloadID))
        continue;
    }
    if (!_takeOver(task, downloadID))
      ZRKLogError("Missing task description");
  }
  completion();
}

ZRKFileDownloader::ItemRef ZRKFileDownloader::_takeOver(const DownloadTaskRef& task, DownloadID downloadID) {
  auto token = task->taskDescription();
  if (!token)
    return nullptr;
  auto delegate = _state->fileDownloadDelegate.lock();
  auto item = ZRKFileDownloadItem::itemWithDownloadToken(*token, task, nullptr,
                                                         delegate ? delegate->rootProgress() : nullptr);
  if (delegate)
    delegate->incrementNetworkActivityIndicatorActivityCount();
  {
    std::lock_guard guard(_state->mutex);
    _state->activeDownloadsDictionary.emplace(downloadID, State::Active{item, nullptr, std::nullopt});
    _state->activeTokens.emplace(*token, downloadID);
  }
  _attachHandlers(*item);
  // Made by a process that died before it could start it.
  if (task->state() == URLSessionTaskState::Suspended)
    task->resume();
  return item;
}

// ---- Starting

void ZRKFileDownloader::startDownloadWithIdentifierFromRemoteURL(const std::string& token,
                                                                 const URL& remoteURL) {
  _startDownloadWithDownloadToken(token, remoteURL, std::nullopt);
}

void ZRKFileDownloader::startDownloadWithIdentifierUsingResumeData(const std::string& token,
                                                                   const Data& resumeData) {
  _startDownloadWithDownloadToken(token, std::nullopt, resumeData);
}

void ZRKFileDownloader::_startDownloadWithDownloadToken(const std::string& token,
                                                        std::optional<URL> remoteURL,
                                                        std::optional<Data> resumeData) {
  State::StartingPlace place;
  {
    std::lock_guard guard(_state->mutex);
    if (_state->isFull()) {
      _state->wait({token, std::move(resumeData), std::move(remoteURL)});
      return;
    }
    place = _state->beginStart(token);
  }
  _start({token, std::move(remoteURL), std::move(resumeData), place});
}

void ZRKFileDownloader::_startNextWaitingDownload() {
  std::optional<State::Waiting> next;
  State::StartingPlace place;
  {
    std::lock_guard guard(_state->mutex);
    if (_state->isFull() || !(next = _state->takeOldestWaiting()))
      return;
    place = _state->beginStart(next->downloadToken);
  }
  _start({std::move(next->downloadToken), std::move(next->remoteURL), std::move(next->resumeData), place});
}

void ZRKFileDownloader::_start(Beginning beginning) {
  auto delegate = _state->fileDownloadDelegate.lock();
  auto root = delegate ? delegate->rootProgress() : nullptr;
  ItemRef item;
  DownloadTaskRef task;
  std::shared_ptr<ZRKConnectionDownload> connection;
  if (_state->hasSessions) {
    if ((task = _makeTask(beginning)))
      item = ZRKFileDownloadItem::itemWithDownloadToken(beginning.token, task, nullptr, root);
  } else if ((connection = _makeConnection(beginning))) {
    item =
        ZRKFileDownloadItem::itemWithDownloadToken(beginning.token, nullptr, connection->connection(), root);
  }
  if (!item) {
    beginning.messages.insert(beginning.messages.begin(), ZRKLogError("No download item"));
    _giveUpStart(std::move(beginning));
    return;
  }
  if (beginning.resumeData) {
    item->setResumedFileSizeInBytes(static_cast<std::int64_t>(beginning.resumeData->size()));
    item->setDownloadStartDate(ZRKFileDownloadItem::Clock::now());
    item->setBytesPerSecondSpeed(0);
  }
  // Before anybody can stop it, so that the counts always come in pairs.
  if (delegate)
    delegate->incrementNetworkActivityIndicatorActivityCount();
  std::vector<std::function<void(DownloadID, const ItemRef&)>> commands;
  DownloadID downloadID;
  {
    std::lock_guard guard(_state->mutex);
    downloadID = task ? beginning.base + task->taskIdentifier() : ++_state->highestDownloadID;
  }
  // A connection ends when it is stopped, also before it has started.
  if (connection)
    connection->listen(_listenerOfConnection(downloadID, item));
  {
    std::lock_guard guard(_state->mutex);
    _state->activeDownloadsDictionary.emplace(downloadID, State::Active{item, connection, std::nullopt});
    _state->activeTokens.emplace(beginning.token, downloadID);
    commands.swap(beginning.place->commands);
    _state->starting.erase(beginning.place);
  }
  _attachHandlers(*item);
  if (task)
    task->resume();
  else
    connection->start();
  for (const auto& command : commands)
    command(downloadID, item);
  // A task of a session that had been closed was told as ended before it had its item.
  if (task && task->state() == URLSessionTaskState::Completed)
    _state->queue->async([weak = weak_from_this(), downloadID, item, task] {
      if (auto self = weak.lock())
        self->_handleEnd(downloadID, item, 0, task->originalRequest().url(), task->error());
    });
}

DownloadTaskRef ZRKFileDownloader::_makeTask(Beginning& beginning) {
  std::shared_ptr<URLSession> session;
  {
    std::lock_guard guard(_state->mutex);
    session = _state->backgroundSession;
    beginning.base = _state->sessionBase;
    beginning.error = _state->sessionError;
  }
  if (!session)
    return nullptr;
  DownloadTaskRef task;
  if (beginning.resumeData)
    task = session->downloadTaskWithResumeData(*beginning.resumeData);
  else if (auto request = _requestForRemoteURL(beginning))
    task = session->downloadTaskWithRequest(*request);
  if (!task)
    return nullptr;
  task->setTaskDescription(beginning.token);
  if (auto delegate = _state->fileDownloadDelegate.lock())
    if (auto intended = delegate->intendedLocalFileURLForIdentifier(beginning.token))
      task->setIntendedLocation(intended->path());
  return task;
}

std::shared_ptr<ZRKConnectionDownload> ZRKFileDownloader::_makeConnection(Beginning& beginning) {
  if (!beginning.remoteURL) {
    beginning.refuse(makeError(NSURLErrorDomain, NSURLErrorBadURL,
                               "Without background sessions a download cannot go on from resume data: start "
                               "it again from its URL."),
                     ZRKLogError("Missing remote url"));
    return nullptr;
  }
  auto request = _requestForRemoteURL(beginning);
  if (!request)
    return nullptr;
  auto made = ZRKConnectionDownload::downloadWithRequest(
      *request, *_state->service, _state->connectionConfiguration, _state->environment.temporaryDirectory,
      _state->downloadFileSerialWriterDispatchQueue, _state->queue);
  if (!made)
    beginning.error =
        makeError(NSURLErrorDomain, NSURLErrorUnknown, "The transfer service has no connections.");
  return made;
}

std::optional<URLRequest> ZRKFileDownloader::_requestForRemoteURL(Beginning& beginning) {
  // A plain request is what the platform sends anyway: nothing is cached here, and the configuration's 60
  // seconds without a byte end it.
  std::optional<URLRequest> request(*beginning.remoteURL);
  if (auto delegate = _state->fileDownloadDelegate.lock())
    if (auto answer = delegate->urlRequestForRemoteURL(*beginning.remoteURL))
      request = std::move(*answer);
  if (!request)
    beginning.refuse(makeError(NSURLErrorDomain, NSURLErrorBadURL,
                               "There is no request for " + beginning.remoteURL->absoluteString() + "."),
                     ZRKLogError("No url request"));
  return request;
}

void ZRKFileDownloader::_giveUpStart(Beginning beginning) {
  std::vector<std::function<void(DownloadID, const ItemRef&)>> commands;
  {
    std::lock_guard guard(_state->mutex);
    commands.swap(beginning.place->commands);
    _state->starting.erase(beginning.place);
  }
  for (const auto& command : commands)
    command(0, nullptr);
  // Later and on the delegate's queue: nobody expects an answer inside of the call that starts, and thousands
  // of bad starts in the list must not stand on one stack.
  _state->queue->async([weak = weak_from_this(), beginning = std::move(beginning)] {
    auto self = weak.lock();
    if (!self)
      return;
    if (auto delegate = self->_state->fileDownloadDelegate.lock())
      delegate->downloadFailedWithIdentifier(beginning.token, beginning.error, 0, beginning.messages,
                                             nullptr);
    self->_startNextWaitingDownload();
  });
}

void ZRKFileDownloader::_attachHandlers(const ZRKFileDownloadItem& item) {
  auto weak = weak_from_this();
  const auto& token = item.downloadToken();
  item.progress()->setCancellationHandler([weak, token] {
    if (auto self = weak.lock())
      self->cancelDownloadWithIdentifier(token);
  });
  item.progress()->setResumingHandler([weak, token] {
    if (auto self = weak.lock())
      self->resumeDownloadWithIdentifier(token);
  });
  item.progress()->setPausingHandler([weak, token] {
    if (auto self = weak.lock())
      self->pauseDownloadWithIdentifier(token, [weak, token](const DataRef& resumeData) {
        auto downloader = weak.lock();
        auto delegate = downloader ? downloader->_state->fileDownloadDelegate.lock() : nullptr;
        if (delegate)
          delegate->downloadPausedWithIdentifier(token, resumeData);
      });
  });
}

// ---- Stopping

void ZRKFileDownloader::pauseDownloadWithIdentifier(const std::string& token) {
  _stopDownload(token, Stop::Pause, nullptr);
}

void ZRKFileDownloader::pauseDownloadWithIdentifier(const std::string& token,
                                                    ResumeDataBlock resumeDataBlock) {
  _stopDownload(token, Stop::Pause, std::move(resumeDataBlock));
}

void ZRKFileDownloader::cancelDownloadWithIdentifier(const std::string& token) {
  _stopDownload(token, Stop::Cancel, nullptr);
}

void ZRKFileDownloader::_stopDownload(const std::string& token, Stop how, ResumeDataBlock resumeDataBlock) {
  ItemRef item;
  DownloadID downloadID = 0;
  std::optional<State::Waiting> waited;
  {
    std::lock_guard guard(_state->mutex);
    auto start = std::find_if(_state->starting.begin(), _state->starting.end(),
                              [&](const auto& entry) { return entry.downloadToken == token; });
    if (start != _state->starting.end()) {
      start->commands.push_back([this, resumeDataBlock = std::move(resumeDataBlock)](
                                    DownloadID started, const ItemRef& startedItem) {
        if (startedItem)
          _stopNow(started, startedItem, resumeDataBlock);
        else if (resumeDataBlock)
          _answerLater(resumeDataBlock, nullptr);
      });
      return;
    }
    if (auto active = _state->downloadIDForActiveDownloadToken(token)) {
      downloadID = *active;
      item = _state->item(downloadID);
    } else {
      waited = _state->removeWaitingDownloadObject(token);
    }
  }
  if (item) {
    _stopNow(downloadID, item, resumeDataBlock);
    return;
  }
  if (resumeDataBlock)
    _answerLater(std::move(resumeDataBlock),
                 waited && waited->resumeData ? std::make_shared<const Data>(std::move(*waited->resumeData))
                                              : nullptr);
  if (waited && how == Stop::Cancel)
    _state->queue->async([weak = weak_from_this(), token] {
      auto self = weak.lock();
      if (!self)
        return;
      if (auto delegate = self->_state->fileDownloadDelegate.lock())
        delegate->downloadFailedWithIdentifier(
            token,
            makeError(NSURLErrorDomain, NSURLErrorCancelled, "The download was cancelled before it started."),
            0, {}, nullptr);
      self->_startNextWaitingDownload();
    });
}

void ZRKFileDownloader::_answerLater(ResumeDataBlock resumeDataBlock, DataRef resumeData) {
  _state->queue->async([resumeDataBlock = std::move(resumeDataBlock), resumeData = std::move(resumeData)] {
    resumeDataBlock(resumeData);
  });
}

void ZRKFileDownloader::_stopNow(DownloadID downloadID, const ItemRef& item,
                                 const ResumeDataBlock& resumeDataBlock) {
  {
    // From here on the token is free for another start; this one only waits for its end.
    std::lock_guard guard(_state->mutex);
    _state->activeTokens.erase({item->downloadToken(), downloadID});
  }
  if (auto task = item->sessionDownloadTask()) {
    if (resumeDataBlock)
      task->cancelByProducingResumeData(resumeDataBlock);
    else
      task->cancel();
    if (task->state() == URLSessionTaskState::Completed)
      _state->queue->async([weak = weak_from_this(), downloadID, item] {
        if (auto self = weak.lock())
          self->_reportTaskNotFound(downloadID, item);
      });
    return;
  }
  if (resumeDataBlock)
    _answerLater(resumeDataBlock, nullptr);
  item->urlConnection()->cancel();
}

void ZRKFileDownloader::resumeDownloadWithIdentifier(const std::string& token) {
  if (isDownloadingIdentifier(token) || isWaitingForDownloadOfIdentifier(token))
    return;
  auto delegate = _state->fileDownloadDelegate.lock();
  if (!delegate || !delegate->resumeDownloadWithIdentifier(token))
    ZRKLogError("Resume action called without implementation");
}
