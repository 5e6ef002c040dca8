#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVDownloadTypes.h"

#include "platform/foundation/Error.h"

#include <memory>

class QVMovieDownloadSet;
class QVQuality;

/// What a download set tells. Every operation is optional.
///
/// Called on the thread that caused the event: the session's delegate queue for progress and completion, the
/// caller's for commands. The set's lock is not held then, the downloader's is, so that events come one after
/// the other: any set and the downloader may be used from within, but a delegate must not wait for another
/// thread that uses them. Exceptions that leave an operation are logged and dropped.
class QVMovieDownloadSetDelegate {
public:
  virtual ~QVMovieDownloadSetDelegate() = default;

  /// A run starts or is resumed (downloading), is paused, or is cancelled or over (inactive).
  virtual void movieDownloadSetDidChangeStatus(const std::shared_ptr<QVMovieDownloadSet>& set,
                                               QVDownloadStatus status) {
    (void)set, (void)status;
  }

  /// After each report of bytes, when the progress is known.
  virtual void movieDownloadSetDidUpdateProgressForQuality(const std::shared_ptr<QVMovieDownloadSet>& set,
                                                           QVDownloadProgress progress,
                                                           const std::shared_ptr<QVQuality>& quality) {
    (void)set, (void)progress, (void)quality;
  }
  virtual void movieDownloadSetDidUpdateProgress(const std::shared_ptr<QVMovieDownloadSet>& set,
                                                 QVDownloadProgress progress) {
    (void)set, (void)progress;
  }

  /// A quality of the run is over; `error` is null on success, else of code -1001.
  virtual void movieDownloadSetDidCompleteQuality(const std::shared_ptr<QVMovieDownloadSet>& set,
                                                  const std::shared_ptr<QVQuality>& quality,
                                                  const platform::ErrorRef& error) {
    (void)set, (void)quality, (void)error;
  }

  /// The run is over; `error` is null on success, else of code -1002. Not sent for a cancel.
  virtual void movieDownloadSetDidCompleteWithError(const std::shared_ptr<QVMovieDownloadSet>& set,
                                                    const platform::ErrorRef& error) {
    (void)set, (void)error;
  }
};
