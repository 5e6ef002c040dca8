// The session's events, the tasks of an earlier process, and the return to the foreground.

#include "TolvaneDownloader/DASHDownloader/Internal/QVDownloadErrors.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVLog.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadSet.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloader.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVQualityDownloadInfo.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVRangedURL.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceDownloadInfo.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceId.h"

#include "platform/concurrency/Queue.h"
#include "platform/foundation/FileManager.h"

#include <cerrno>
#include <chrono>
#include <exception>

using Lock = std::lock_guard<platform::OrderedRecursiveMutex>;

namespace {

constexpr std::chrono::milliseconds refreshPause{1000};
// Files whose directory entry a power failure may undo; their bytes are then fetched again.
constexpr std::size_t mostUnsynced = 256;

/// Runs the handling of an event on a platform queue, where nobody could catch what it raises.
template <class Handle> void guarded(const Handle& handle) {
  try {
    handle();
  } catch (const std::exception& exception) {
    QVLogError(std::string("A session event could not be handled: ") + exception.what());
  }
}

/// Whether a whole entity of `size` bytes (-1: not known yet) stands for the resource: it does not when the
/// resource is a part of it. A range from 0 asks for one byte more than its length.
bool wholeEntityIsResource(const QVRangedURL& resource, std::int64_t size) {
  if (!resource.hasRange())
    return true;
  if (resource.offset() != 0)
    return false;
  return size <= 0 || static_cast<std::uint64_t>(size) - 1 <= resource.length();
}

/// What is wrong with the answer to a resource's request, or null. `size`: bytes of the body, -1 when
/// unknown.
platform::ErrorRef errorOfResponse(const platform::URLSessionTask& task, const QVRangedURL& resource,
                                   std::int64_t size) {
  const auto response = task.response();
  if (!response)
    return nullptr;
  if (auto error = QVMakeHTTPError(*response))
    return error;
  if (response->statusCode() == 200 && !wholeEntityIsResource(resource, size))
    return QVMakeResourceError(QVDownloadErrorResourceRange, resource.referenceURL(),
                               "the server sent the whole file instead of the range that was asked for");
  return nullptr;
}

std::string parentOf(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}

} // namespace

void QVMovieDownloader::URLSessionDownloadTaskDidWriteData(platform::URLSession&,
                                                           const platform::DownloadTaskRef& task,
                                                           std::int64_t bytesWritten,
                                                           std::int64_t totalBytesWritten,
                                                           std::int64_t totalBytesExpectedToWrite) {
  guarded([&] {
    Lock lock(_lock);
    const auto resource = _tasks.resourceForTask(*task);
    if (!resource)
      return;
    if (bytesWritten == totalBytesWritten) { // the first bytes of a response
      if (const auto error = errorOfResponse(*task, *resource->resource(), totalBytesExpectedToWrite)) {
        task->cancel();
        _handleFailedResource(resource, *task, error);
        return;
      }
    }
    if (const auto set = _setOfResource(*resource))
      set->resourceBytesDownloaded(resource, totalBytesWritten, totalBytesExpectedToWrite);
  });
}

void QVMovieDownloader::URLSessionDownloadTaskDidFinishDownloadingToURL(platform::URLSession&,
                                                                        const platform::DownloadTaskRef& task,
                                                                        const std::string& location) {
  guarded([&] {
    Lock lock(_lock);
    const auto resource = _tasks.resourceForTask(*task);
    if (!resource)
      return;
    if (const auto error = task->error()) {
      _handleFailedResource(resource, *task, error);
      return;
    }
    // Looked at again: the progress of an empty body may never have been told, and only now is the size sure.
    if (const auto error = errorOfResponse(*task, *resource->resource(), task->countOfBytesReceived())) {
      _handleFailedResource(resource, *task, error);
      return;
    }
    _handleCompletedResource(resource, task, location);
  });
}

void QVMovieDownloader::URLSessionTaskDidCompleteWithError(
    platform::URLSession&, const std::shared_ptr<platform::URLSessionTask>& task,
    const platform::ErrorRef& error) {
  if (!error)
    return; // the finished file has told everything
  guarded([&] {
    Lock lock(_lock);
    const auto resource = _tasks.resourceForTask(*task);
    if (!resource)
      return;
    // Only the platform's very own constant marks a cancel that came from here.
    if (error->domain().isIdenticalTo(platform::NSURLErrorDomain) &&
        error->code() == platform::NSURLErrorCancelled)
      return;
    const QVRangedURL& wanted = *resource->resource();
    if (!wanted.prepareRequest())
      _handleFailedResource(resource, *task,
                            QVMakeResourceError(QVDownloadErrorResourceURL, wanted.referenceURL(),
                                                "the resource has no usable URL", error));
    else
      _handleFailedResource(resource, *task, error);
  });
}

void QVMovieDownloader::URLSessionDidFinishEventsForBackgroundURLSession(platform::URLSession&) {
  Lock lock(_lock);
  if (_backgroundCompletionHandlers.empty())
    return;
  std::vector<std::function<void()>> handlers;
  if (_tasks.size() > 0) {
    handlers.push_back(std::move(_backgroundCompletionHandlers.front()));
    _backgroundCompletionHandlers.erase(_backgroundCompletionHandlers.begin());
  } else {
    handlers.swap(_backgroundCompletionHandlers);
  }
  for (auto& handler : handlers)
    platform::MainQueue::shared().async(std::move(handler));
}

void QVMovieDownloader::_handleCompletedResource(const std::shared_ptr<QVResourceDownloadInfo>& resource,
                                                 const platform::DownloadTaskRef& task,
                                                 const std::string& location) {
  using platform::FileManager;
  const auto set = _setOfResource(*resource);
  const std::string target = resource->resourcePath();
  if (!set || target.empty()) {
    _tasks.detach(*task);
    return;
  }
  // Replaces an older version. A directory there holds other resources, and is no version of this one: that
  // fails by itself.
  auto error = FileManager::moveItemAtPathUnsynced(location, target);
  if (error && error->code() == ENOENT) {
    error = FileManager::createDirectoryAtPath(parentOf(target), true);
    if (!error)
      error = FileManager::moveItemAtPathUnsynced(location, target);
  }
  if (!error)
    error = _syncPlaced(parentOf(target), resource->quality()->hasOneLeft());
  if (error)
    return _handleFailedResource(resource, *task, error);

  set->resourceBytesDownloaded(resource, task->countOfBytesReceived(), task->countOfBytesExpectedToReceive());
  // The delegate may have cancelled the set just now; the file is found again when it is started.
  if (_tasks.resourceForTask(*task) == resource)
    set->resourceCompleteWithError(resource, nullptr);
}

platform::ErrorRef QVMovieDownloader::_syncPlaced(const std::string& directory, bool now) {
  _unsyncedDirectories.insert(directory);
  if (++_numUnsynced < mostUnsynced && !now)
    return nullptr;
  // One that was removed meanwhile went with all that was in it.
  for (auto& error :
       platform::FileManager::syncItemsAtPaths({_unsyncedDirectories.begin(), _unsyncedDirectories.end()}))
    if (error)
      return std::move(error);
  _unsyncedDirectories.clear();
  _numUnsynced = 0;
  return nullptr;
}

void QVMovieDownloader::_handleFailedResource(const std::shared_ptr<QVResourceDownloadInfo>& resource,
                                              const platform::URLSessionTask& task,
                                              const platform::ErrorRef& error) {
  if (const auto set = _setOfResource(*resource))
    set->resourceCompleteWithError(resource, error);
  else
    _tasks.detach(task);
}

/// Null when the set went away while its tasks were attached.
std::shared_ptr<QVMovieDownloadSet>
QVMovieDownloader::_setOfResource(const QVResourceDownloadInfo& resource) const {
  const auto quality = resource.quality();
  return quality ? quality->set() : nullptr;
}

// After a relaunch

void QVMovieDownloader::_reattachTasks(const std::vector<platform::DownloadTaskRef>& tasks) {
  Lock lock(_lock);
  for (const auto& task : tasks)
    guarded([&] { _reattachTask(task); });
}

void QVMovieDownloader::_reattachTask(const platform::DownloadTaskRef& task) {
  // A task that was made since the session was opened is in good hands.
  if (_tasks.resourceForTask(*task))
    return;
  const auto description = task->taskDescription();
  if (!description) {
    task->cancel();
    return;
  }
  const auto resourceId = QVResourceId::resourceIdWithJSONString(*description);
  const auto set = resourceId.manifestURL() ? activateDownloadSetForURL(*resourceId.manifestURL()) : nullptr;
  bool wanted = false;
  guarded([&] { wanted = set && set->reattachResource(resourceId, task); });
  if (wanted)
    return;
  task->setTaskDescription(std::nullopt);
  task->cancel();
}

// In the foreground again

void QVMovieDownloader::handleLeaveForeground() {}

void QVMovieDownloader::handleEnterForeground() {
  const auto backgroundTask =
      platform::Application::shared().beginBackgroundTask("QVMovieDownloader: Refresh all", nullptr);
  if (!_session) {
    platform::Application::shared().endBackgroundTask(backgroundTask);
    return;
  }
  _session->getTasksWithCompletionHandler(
      [weak = weak_from_this(), backgroundTask](const std::vector<platform::DownloadTaskRef>& tasks) {
        if (const auto self = weak.lock()) {
          Lock lock(self->_lock);
          for (const auto& task : tasks)
            if (task->state() == platform::URLSessionTaskState::Running)
              self->_refreshTask(task);
        }
        platform::Application::shared().endBackgroundTask(backgroundTask);
      });
}

/// A transfer may hang on a connection that died while the process was away; a short pause opens a new one.
void QVMovieDownloader::_refreshTask(const platform::DownloadTaskRef& task) {
  auto& mainQueue = platform::MainQueue::shared();
  mainQueue.async([&mainQueue, weak = weak_from_this(), task] {
    task->suspend();
    mainQueue.after(refreshPause, [weak, task] {
      const auto self = weak.lock();
      if (!self)
        return task->resume();
      Lock lock(self->_lock);
      const auto resource = self->_tasks.resourceForTask(*task);
      const auto set = resource ? self->_setOfResource(*resource) : nullptr;
      if (!set)
        return task->resume();
      // Paused by its user in the meantime: it stays so.
      Lock setLock(set->_lock);
      if (resource->status() == QVDownloadStatusDownloading)
        task->resume();
    });
  });
}
