// What transfers tell of themselves, from either transport, and what the client hears of it.

#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKConnectionDownload.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloadDelegate.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloadItem.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloader.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloaderState.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileLog.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileStorage.h"

#include "platform/concurrency/Queue.h"
#include "platform/foundation/FileManager.h"
#include "platform/foundation/Progress.h"

#include <utility>

using namespace platform;

namespace {

int statusOf(const URLSessionTask& task) {
  auto response = task.response();
  return response ? response->statusCode() : 0;
}

/// Nothing for a task that was made from resume data which tells no address.
std::optional<URL> remoteURLOf(const URLSessionTask& task) {
  auto url = task.originalRequest().url();
  return url.isHTTP() ? std::optional(std::move(url)) : std::nullopt;
}

ErrorRef failureOf(std::int64_t code, const std::string& what, const std::optional<URL>& remoteURL) {
  UserInfo userInfo{
      {NSLocalizedDescriptionKey, remoteURL ? what + " (" + remoteURL->absoluteString() + ")." : what + "."}};
  if (remoteURL) {
    userInfo[NSURLErrorFailingURLErrorKey] = *remoteURL;
    userInfo[NSURLErrorFailingURLStringErrorKey] = remoteURL->absoluteString();
  }
  return makeError(NSURLErrorDomain, code, std::move(userInfo));
}

std::string statusText(int status) {
  auto text = HTTPURLResponse::localizedStringForStatusCode(status);
  return std::to_string(status) + (text ? " (" + *text + ")" : "");
}

} // namespace

// ---- From the session

ZRKFileDownloader::ItemRef ZRKFileDownloader::_itemForTask(const URLSession& session,
                                                           const URLSessionTask& task,
                                                           const DownloadTaskRef& download,
                                                           DownloadID& downloadID) {
  {
    std::lock_guard guard(_state->mutex);
    downloadID = _state->baseOf(session) + task.taskIdentifier();
    if (auto item = _state->item(downloadID))
      return item;
    // Only the first session can hold tasks of an earlier process. One that tells something before
    // `setupWithCompletionBlock` came round to it must not lose it: its file would be gone.
    if (downloadID != task.taskIdentifier() || !download)
      return nullptr;
  }
  return _takeOver(download, downloadID);
}

void ZRKFileDownloader::URLSessionDownloadTaskDidWriteData(URLSession& session, const DownloadTaskRef& task,
                                                           std::int64_t, std::int64_t totalBytesWritten,
                                                           std::int64_t totalBytesExpectedToWrite) {
  DownloadID downloadID;
  if (auto item = _itemForTask(session, *task, task, downloadID))
    _handleProgress(item, totalBytesWritten, totalBytesExpectedToWrite);
}

void ZRKFileDownloader::URLSessionDownloadTaskDidResumeAtOffset(URLSession&, const DownloadTaskRef& task,
                                                                std::int64_t fileOffset,
                                                                std::int64_t expectedTotalBytes) {
  ZRKLogInfo("Download (id: " + task->taskDescription().value_or("") +
             ") resumed (offset: " + std::to_string(fileOffset) +
             " bytes, expected: " + std::to_string(expectedTotalBytes) + " bytes");
}

void ZRKFileDownloader::URLSessionDownloadTaskDidFinishDownloadingToURL(URLSession& session,
                                                                        const DownloadTaskRef& task,
                                                                        const std::string& location) {
  DownloadID downloadID;
  auto item = _itemForTask(session, *task, task, downloadID);
  if (!item) {
    ZRKLogError("Missing download item for taskIdentifier: " + std::to_string(task->taskIdentifier()));
  } else {
    _handleFinishedFile(downloadID, item, statusOf(*task), remoteURLOf(*task), location);
    if (item->finalLocalFileURL())
      return;
  }
  // The service leaves what was written to its place ahead.
  if (location == task->intendedLocation() && FileManager::fileExistsAtPath(location))
    if (auto error = FileManager::removeItemAtPath(location))
      ZRKLogError("Error on removing file at " + location + ": " + ZRKDescribe(error));
}

void ZRKFileDownloader::URLSessionTaskDidCompleteWithError(URLSession& session,
                                                           const std::shared_ptr<URLSessionTask>& task,
                                                           const ErrorRef& error) {
  // The end alone is not enough to take a task over: one of our own may end before its start has put it in.
  bool starting;
  {
    std::lock_guard guard(_state->mutex);
    starting = !_state->starting.empty();
  }
  DownloadID downloadID;
  auto item =
      _itemForTask(session, *task,
                   starting ? nullptr : std::dynamic_pointer_cast<URLSessionDownloadTask>(task), downloadID);
  if (!item) {
    ZRKLogError("Download item not found for download task: " + std::to_string(task->taskIdentifier()));
    return;
  }
  _handleEnd(downloadID, item, statusOf(*task), remoteURLOf(*task), error);
}

void ZRKFileDownloader::URLSessionTaskDidReceiveChallenge(URLSession& session,
                                                          const std::shared_ptr<URLSessionTask>& task,
                                                          const AuthenticationChallenge& challenge,
                                                          ChallengeCompletion completion) {
  DownloadID downloadID;
  auto item =
      _itemForTask(session, *task, std::dynamic_pointer_cast<URLSessionDownloadTask>(task), downloadID);
  _handleChallenge(item ? item->downloadToken() : task->taskDescription().value_or(""), challenge,
                   std::move(completion));
}

void ZRKFileDownloader::setBackgroundSessionCompletionHandlerBlock(std::function<void()> handler) {
  {
    std::lock_guard guard(_state->mutex);
    if (!std::exchange(_state->eventsFinished, false)) {
      _state->bgSessionCompletionHandlerBlock = std::move(handler);
      return;
    }
  }
  if (handler)
    _state->queue->async(std::move(handler));
}

void ZRKFileDownloader::URLSessionDidFinishEventsForBackgroundURLSession(URLSession&) {
  std::function<void()> handler;
  {
    std::lock_guard guard(_state->mutex);
    handler = std::exchange(_state->bgSessionCompletionHandlerBlock, nullptr);
    _state->eventsFinished = !handler;
  }
  if (handler)
    handler();
}

void ZRKFileDownloader::URLSessionDidBecomeInvalidWithError(URLSession& session, const ErrorRef& error) {
  if (error)
    ZRKLogError("Session did become invalid with error: " + ZRKDescribe(error));
  else
    ZRKLogInfo("Session has been intentionally invalidated");
  std::shared_ptr<URLSession> closed;
  std::lock_guard guard(_state->mutex);
  auto found = _state->closingSessions.find(session.configuration().identifier);
  if (found == _state->closingSessions.end())
    return;
  closed = std::move(found->second.session);
  _state->closingSessions.erase(found);
}

// ---- From a connection

ZRKConnectionDownloadListener ZRKFileDownloader::_listenerOfConnection(DownloadID downloadID,
                                                                       const ItemRef& item) {
  auto weak = weak_from_this();
  ZRKConnectionDownloadListener listener;
  const auto url = item->urlConnection()->originalRequest().url();
  listener.progress = [weak, item](std::int64_t written, std::int64_t expected) {
    if (auto self = weak.lock())
      self->_handleProgress(item, written, expected);
  };
  listener.finished = [weak, item, downloadID, url](int status, const std::string& location) {
    if (auto self = weak.lock())
      self->_handleFinishedFile(downloadID, item, status, url, location);
  };
  listener.ended = [weak, item, downloadID, url](int status, const ErrorRef& error) {
    if (auto self = weak.lock())
      self->_handleEnd(downloadID, item, status, url, error);
  };
  listener.challenge = [weak, token = item->downloadToken()](const AuthenticationChallenge& challenge,
                                                             ChallengeCompletion completion) {
    if (auto self = weak.lock())
      self->_handleChallenge(token, challenge, std::move(completion));
    else
      completion(AuthChallengeDisposition::PerformDefaultHandling, std::nullopt);
  };
  return listener;
}

// ---- From either

void ZRKFileDownloader::_handleProgress(const ItemRef& item, std::int64_t written, std::int64_t expected) {
  if (!item->downloadStartDate())
    item->setDownloadStartDate(ZRKFileDownloadItem::Clock::now());
  // The size first: bytes count as units of the progress only once it is known.
  item->setExpectedFileSizeInBytes(expected);
  item->setReceivedFileSizeInBytes(written);
  if (auto delegate = _state->fileDownloadDelegate.lock())
    delegate->downloadProgressChangedForIdentifier(item->downloadToken());
}

bool ZRKFileDownloader::_statusIsValid(DownloadID downloadID, int status, const std::string& token) {
  {
    std::lock_guard guard(_state->mutex);
    auto found = _state->activeDownloadsDictionary.find(downloadID);
    if (found != _state->activeDownloadsDictionary.end() && found->second.statusIsValid)
      return *found->second.statusIsValid;
  }
  auto delegate = _state->fileDownloadDelegate.lock();
  auto answer = delegate ? delegate->httpStatusCodeIsValidForDownloadIdentifier(status, token) : std::nullopt;
  const bool valid = answer ? *answer : httpStatusCodeIsValidForDownloadIdentifier(status, token);
  std::lock_guard guard(_state->mutex);
  auto found = _state->activeDownloadsDictionary.find(downloadID);
  if (found != _state->activeDownloadsDictionary.end())
    found->second.statusIsValid = valid;
  return valid;
}

void ZRKFileDownloader::_handleFinishedFile(DownloadID downloadID, const ItemRef& item, int status,
                                            const std::optional<URL>& remoteURL,
                                            const std::string& location) {
  const auto& token = item->downloadToken();
  // An error page is not the file, and must not take the place of one that is there already.
  if (!_statusIsValid(downloadID, status, token))
    return;
  const auto refuse = [&](std::string line) { item->pushErrorMessage(std::move(line)); };
  auto delegate = _state->fileDownloadDelegate.lock();
  std::optional<URL> destination;
  if (!remoteURL) {
    refuse(ZRKLogError("Missing information: Remote URL (token: " + token + ")"));
    return;
  }
  if (auto answer = delegate ? delegate->localFileURLForIdentifier(token, *remoteURL) : std::nullopt)
    destination = std::move(*answer);
  else
    destination = localFileURLForRemoteURL(*remoteURL, _state->environment.documentsDirectory);
  const auto path = destination ? destination->path() : std::string();
  if (path.empty()) {
    refuse(ZRKLogError("Missing information: Local file URL (token: " + token + ")"));
    return;
  }
  std::int64_t size = 0;
  if (auto line = ZRKPlaceFile(location, path, size)) {
    refuse(std::move(*line));
    return;
  }
  std::optional<bool> answer = true;
  std::optional<std::string> line;
  if (size == 0)
    line = ZRKLogError("Zero file size for item at " + path + ": " +
                       ZRKDescribe(makeError(NSURLErrorDomain, NSURLErrorZeroByteResource,
                                             "The server sent an empty file.")));
  else if (delegate &&
           (answer = delegate->downloadAtLocalFileURLIsValidForDownloadIdentifier(*destination, token)) &&
           !*answer)
    line = ZRKLogError("Download check failed for item at " + path);
  if (!line) {
    item->setFinalLocalFileURL(std::move(*destination));
    return;
  }
  refuse(std::move(*line));
  // Nobody will ask for it.
  if (auto error = FileManager::removeItemAtPath(path))
    ZRKLogError("Error on removing file at " + path + ": " + ZRKDescribe(error));
}

void ZRKFileDownloader::_handleEnd(DownloadID downloadID, const ItemRef& item, int status,
                                   const std::optional<URL>& remoteURL, const ErrorRef& error) {
  item->setLastHttpStatusCode(status);
  if (error) {
    auto data = error->value<DataRef>(NSURLSessionDownloadTaskResumeData);
    _handleDownloadWithError(error, item, downloadID, data ? *data : nullptr);
    return;
  }
  if (!_statusIsValid(downloadID, status, item->downloadToken())) {
    item->pushErrorMessage("Invalid http status code: " + std::to_string(status));
    _handleDownloadWithError(failureOf(NSURLErrorBadServerResponse,
                                       "The server answered with status " + statusText(status), remoteURL),
                             item, downloadID, nullptr);
    return;
  }
  if (auto file = item->finalLocalFileURL()) {
    _handleSuccessfulDownloadToLocalFileURL(*file, item, downloadID);
    return;
  }
  auto messages = item->errorMessagesStack();
  _handleDownloadWithError(failureOf(NSURLErrorResourceUnavailable,
                                     "The received file cannot be used" +
                                         (messages.empty() ? std::string() : ": " + messages.front()),
                                     remoteURL),
                           item, downloadID, nullptr);
}

bool ZRKFileDownloader::_retire(DownloadID downloadID, const ItemRef& item) {
  std::shared_ptr<ZRKConnectionDownload> connection;
  {
    std::lock_guard guard(_state->mutex);
    auto found = _state->activeDownloadsDictionary.find(downloadID);
    if (found == _state->activeDownloadsDictionary.end() || found->second.item != item)
      return false;
    connection = std::move(found->second.connectionDownload);
    _state->activeDownloadsDictionary.erase(found);
    _state->activeTokens.erase({item->downloadToken(), downloadID});
  }
  item->progress()->setCompletedUnitCount(item->progress()->totalUnitCount());
  if (auto delegate = _state->fileDownloadDelegate.lock())
    delegate->decrementNetworkActivityIndicatorActivityCount();
  return true;
}

void ZRKFileDownloader::_handleSuccessfulDownloadToLocalFileURL(const URL& localFileURL, const ItemRef& item,
                                                                DownloadID downloadID) {
  if (!_retire(downloadID, item))
    return;
  if (auto delegate = _state->fileDownloadDelegate.lock())
    delegate->downloadDidCompleteWithIdentifier(item->downloadToken(), localFileURL);
  _startNextWaitingDownload();
}

void ZRKFileDownloader::_handleDownloadWithError(const ErrorRef& error, const ItemRef& item,
                                                 DownloadID downloadID, const DataRef& resumeData) {
  if (!_retire(downloadID, item))
    return;
  if (auto delegate = _state->fileDownloadDelegate.lock())
    delegate->downloadFailedWithIdentifier(item->downloadToken(), error, item->lastHttpStatusCode(),
                                           item->errorMessagesStack(), resumeData);
  _startNextWaitingDownload();
}

void ZRKFileDownloader::_reportTaskNotFound(DownloadID downloadID, const ItemRef& item) {
  {
    // The end of a task that has ended is told before this runs. One that kept it to itself is gone.
    std::lock_guard guard(_state->mutex);
    if (!_state->activeDownloadsDictionary.contains(downloadID))
      return;
  }
  ZRKLogInfo("NSURLSessionDownloadTask cancelled (task not found): " + std::to_string(downloadID));
  _handleDownloadWithError(failureOf(NSURLErrorCancelled, "The download was cancelled",
                                     item->sessionDownloadTask()->originalRequest().url()),
                           item, downloadID, nullptr);
}

void ZRKFileDownloader::_handleChallenge(const std::string& token, const AuthenticationChallenge& challenge,
                                         ChallengeCompletion completion) {
  auto delegate = _state->fileDownloadDelegate.lock();
  if (delegate && delegate->onAuthenticationChallenge(challenge, token, completion))
    return;
  ZRKLogError("Received authentication challenge with no delegate method implemented");
  completion(AuthChallengeDisposition::PerformDefaultHandling, std::nullopt);
}
