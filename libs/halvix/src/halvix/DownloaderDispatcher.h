#pragma once

#include "halvix/DownloadState.h"
#include "halvix/QVError.h"

#include <memory>

namespace halvix {

class Download;

/// What a downloader tells the host about its downloads, on the way to the application of one session.
///
/// Every operation only enqueues an event and returns, so it may be called from any thread and under any
/// lock. Events of one download reach the application in the order of the calls. State and progress are sent
/// by `Download` itself when they change; downloaders send the others.
class DownloaderDispatcherProtocol {
public:
  virtual ~DownloaderDispatcherProtocol() = default;

  virtual void dispatchDownloadStart(const std::shared_ptr<Download>& download) = 0;
  /// Also keeps the error with the download and stores it.
  virtual void dispatchDownloadError(const std::shared_ptr<Download>& download, const QVErrorRef& error) = 0;
  /// A download whose state became success is finished without it; both together still make one event.
  virtual void dispatchDownloadFinished(const std::shared_ptr<Download>& download) = 0;

  virtual void dispatchDownloadStateChanged(const std::shared_ptr<Download>& download,
                                            DownloadState state) = 0;
  /// Coalesced: at most one undelivered progress event for each download.
  virtual void dispatchDownloadProgress(const std::shared_ptr<Download>& download) = 0;
};

/// What an application hears about its downloads, all of it on the main queue, one event at a time. Every
/// operation is optional. The download's own properties may already be newer than the event.
class DownloadDelegate {
public:
  virtual ~DownloadDelegate() = default;

  /// Asked when it is added as a listener. True: it looks at the downloads when it likes and is only told of
  /// their ends, which spares the main queue an event for each piece of news.
  virtual bool wantsOnlyEnds() const { return false; }

  virtual void downloadDidStart(const std::shared_ptr<Download>& download) { (void)download; }
  virtual void downloadDidChangeState(const std::shared_ptr<Download>& download, DownloadState state) {
    (void)download, (void)state;
  }
  virtual void downloadDidUpdateProgress(const std::shared_ptr<Download>& download) { (void)download; }
  /// A run ended with an error, or an earlier process left the download interrupted.
  virtual void downloadDidFail(const std::shared_ptr<Download>& download, const QVErrorRef& error) {
    (void)download, (void)error;
  }
  /// A run ended with everything on disk; once for each run, after the change of state.
  virtual void downloadDidFinish(const std::shared_ptr<Download>& download) { (void)download; }
};

} // namespace halvix
