#pragma once

#include "platform/transfer/URLSession.h"

#include <cstddef>
#include <memory>
#include <mutex>
#include <unordered_map>

class QVResourceDownloadInfo;

/// Which running task fetches which resource. Holds both strongly while they are attached.
///
/// Thread-safe through a leaf mutex of its own, under which nothing else is called: records attach and detach
/// while their set's lock is held, when the downloader's must not be taken any more.
class QVTaskTable {
public:
  void attach(const platform::DownloadTaskRef& task, std::shared_ptr<QVResourceDownloadInfo> resource);

  /// An unknown task is ignored.
  void detach(const platform::URLSessionTask& task);

  /// The resource of a task, or null.
  std::shared_ptr<QVResourceDownloadInfo> resourceForTask(const platform::URLSessionTask& task) const;

  std::size_t size() const;

private:
  struct Attached {
    platform::DownloadTaskRef task;
    std::shared_ptr<QVResourceDownloadInfo> resource;
  };

  mutable std::mutex _mutex;
  std::unordered_map<const platform::URLSessionTask*, Attached> _attached;
};
