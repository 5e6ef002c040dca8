#pragma once

#include "platform/transfer/URLSession.h"

#include <memory>

class QVResourceDownloadInfo;

namespace platform {
class OrderedRecursiveMutex;
}

/// What sets and resource records need from the downloader that owns them.
///
/// The session and the task table may be used under a set's lock: neither takes the downloader's.
class QVDownloadController {
public:
  virtual ~QVDownloadController() = default;

  /// The session whose tasks fetch the resources; null when it could not be opened. Never changes.
  virtual std::shared_ptr<platform::URLSession> downloadSession() const = 0;

  /// From now on the task's events are the resource's.
  virtual void resourceAttachTask(const std::shared_ptr<QVResourceDownloadInfo>& resource,
                                  const platform::DownloadTaskRef& task) = 0;

  /// The task's further events are nobody's.
  virtual void resourceDetachTask(const std::shared_ptr<QVResourceDownloadInfo>& resource,
                                  const platform::DownloadTaskRef& task) = 0;

  /// The downloader's own lock (rank 1). A set takes it before its own (rank 2) in every operation that
  /// changes the set, so that a delegate called from there may turn to the downloader or another set.
  virtual platform::OrderedRecursiveMutex& controllerLock() = 0;
};
