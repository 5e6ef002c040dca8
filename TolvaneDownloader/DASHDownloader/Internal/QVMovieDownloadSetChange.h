#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVDownloadController.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVLog.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadSet.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadSetDelegate.h"

#include <exception>

// Private to the implementation of QVMovieDownloadSet.

/// The downloader's lock makes changes, and what the delegate hears of them, come one after the other without
/// the set's lock being held during a call-out: two sets' locks have the same rank, so a delegate could not
/// look at a second set otherwise.
class QVMovieDownloadSet::Change {
public:
  explicit Change(QVMovieDownloadSet& set)
      : _self(set.shared_from_this()), _controller(set._controller.lock()) {
    if (_controller)
      _gate = std::unique_lock(_controller->controllerLock());
  }

private:
  // A delegate may drop the last other references; the lock goes first.
  const std::shared_ptr<QVMovieDownloadSet> _self;
  const std::shared_ptr<QVDownloadController> _controller;
  std::unique_lock<platform::OrderedRecursiveMutex> _gate;
};

template <class Call> void QVMovieDownloadSet::_tell(Call&& call) {
  const auto listener = delegate();
  if (!listener)
    return;
  try {
    call(*listener, shared_from_this());
  } catch (const std::exception& exception) {
    QVLogError(std::string("A download set's delegate raised: ") + exception.what());
  } catch (...) {
    QVLogError("A download set's delegate raised something unknown");
  }
}
