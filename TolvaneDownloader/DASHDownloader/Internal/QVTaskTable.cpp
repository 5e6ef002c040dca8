#include "TolvaneDownloader/DASHDownloader/Internal/QVTaskTable.h"

void QVTaskTable::attach(const platform::DownloadTaskRef& task,
                         std::shared_ptr<QVResourceDownloadInfo> resource) {
  // What was replaced leaves outside the mutex: it may be the last reference.
  Attached attached{task, std::move(resource)};
  std::lock_guard lock(_mutex);
  std::swap(_attached[task.get()], attached);
}

void QVTaskTable::detach(const platform::URLSessionTask& task) {
  Attached gone; // likewise
  std::lock_guard lock(_mutex);
  const auto it = _attached.find(&task);
  if (it == _attached.end())
    return;
  gone = std::move(it->second);
  _attached.erase(it);
}

std::shared_ptr<QVResourceDownloadInfo>
QVTaskTable::resourceForTask(const platform::URLSessionTask& task) const {
  std::lock_guard lock(_mutex);
  const auto it = _attached.find(&task);
  return it == _attached.end() ? nullptr : it->second.resource;
}

std::size_t QVTaskTable::size() const {
  std::lock_guard lock(_mutex);
  return _attached.size();
}
