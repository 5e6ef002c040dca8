#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVDownloadTypes.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceDownloadInfo.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

class QVMovieDownloadSet;
class QVQuality;
class QVResourceId;

/// Schedules the download of one quality: fetches its resources in list order, a few at a time, retries the
/// failed ones, and keeps counters from which status, size and progress follow.
///
/// No lock of its own: it is driven by its set, under the set's lock. No event costs more than the handful of
/// resources that are being fetched, however long the list is. A change of status of a resource always goes
/// through its quality, else the counters do not see it.
class QVQualityDownloadInfo : public std::enable_shared_from_this<QVQualityDownloadInfo> {
public:
  /// Lists the quality's resources, relative URLs read against `baseURL`. What the list builder raises goes
  /// through.
  static std::shared_ptr<QVQualityDownloadInfo>
  infoWithBaseURL(const std::string& baseURL, std::shared_ptr<const QVResourceDirectory> directory,
                  std::shared_ptr<QVQuality> quality, std::weak_ptr<QVMovieDownloadSet> set,
                  const std::weak_ptr<QVDownloadController>& controller);

  const std::string& downloadPath() const; ///< the set's directory
  const std::shared_ptr<QVQuality>& quality() const { return _quality; }
  std::shared_ptr<QVMovieDownloadSet> set() const; ///< null once it is gone
  const std::vector<std::shared_ptr<QVResourceDownloadInfo>>& resources() const { return _resources; }

  QVDownloadStatus status() const;
  bool completed() const { return _completed; } ///< every resource has finished
  bool failed() const { return _completed && !_failed.empty(); }
  /// Code -1001 with the error of every failed resource; null while none has failed for good.
  platform::ErrorRef error() const;
  /// Extrapolated from what is known; unknown below two known sizes (unless that is all).
  QVDownloadSize expectedBytes() const;
  std::int64_t downloadedBytes() const { return _downloadedBytes; } ///< received or found on disk
  QVDownloadProgress progress() const { return QVMakeDownloadProgress(_downloadedBytes, expectedBytes()); }

  const QVHeadersRef& additionalHeaders() const { return _additionalHeaders; }
  void setAdditionalHeaders(QVHeadersRef headers) { _additionalHeaders = std::move(headers); }
  std::size_t parallellDownloads() const { return _parallellDownloads; } ///< 4 at first
  /// Most resources to be fetched at once; counts from the next start of one.
  void setParallellDownloads(std::size_t limit) { _parallellDownloads = limit; }

  /// Starts fetching; false when there is nothing to fetch (or nothing to fetch it with).
  bool download();
  bool pause();  ///< false when nothing runs
  bool resume(); ///< false when nothing is paused
  bool cancel(); ///< false when nothing is being fetched

  /// Makes the failed resources fetchable again; false when there are none.
  bool clear();
  /// Forgets everything, after the files were deleted.
  void reset();

  /// Takes over a task of an earlier process; false when it is not wanted.
  bool reattachResource(const QVResourceId& resourceId, const platform::DownloadTaskRef& task);

  /// A resource's fetching ended; true when that finished the quality. One that is not being fetched (any
  /// more) is ignored.
  bool resourceCompleteWithError(const std::shared_ptr<QVResourceDownloadInfo>& resource,
                                 const platform::ErrorRef& error);
  void resourceBytesDownloaded(const std::shared_ptr<QVResourceDownloadInfo>& resource, std::int64_t bytes,
                               std::int64_t expected);
  void resourceCompleteWithBytesPreloaded(const std::shared_ptr<QVResourceDownloadInfo>& resource,
                                          std::int64_t bytes);

  /// Whether the end of one more resource finishes the quality.
  bool hasOneLeft() const { return _numCompleted + 1 == _resources.size(); }

  std::size_t numActive() const { return _paused.size() + _running.size(); } ///< being fetched
  std::size_t numRunning() const { return _running.size(); }                 ///< of those, not paused

  /// Counts everything again, in linear time: the first counter that is wrong, or nothing.
  std::string _checkCounters() const;

private:
  struct Passkey {
    explicit Passkey() = default;
  };

public:
  QVQualityDownloadInfo(Passkey, std::shared_ptr<const QVResourceDirectory> directory,
                        std::shared_ptr<QVQuality> quality, std::weak_ptr<QVMovieDownloadSet> set);
  ~QVQualityDownloadInfo();

private:
  void _fill(const std::string& baseURL, const std::weak_ptr<QVDownloadController>& controller);
  bool _owns(const QVResourceDownloadInfo& resource) const;
  std::shared_ptr<QVResourceDownloadInfo> _nextResource();
  void _activateDownloads();
  bool _retryResource(const std::shared_ptr<QVResourceDownloadInfo>& resource,
                      const platform::ErrorRef& error);
  void _moveStatus(std::size_t index, QVDownloadStatus from, QVDownloadStatus to);
  void _updateExpected(const QVDownloadSize& from, const QVDownloadSize& to);
  void _updateDownloaded(std::int64_t from, std::int64_t to);

  std::vector<std::shared_ptr<QVResourceDownloadInfo>> _resources;
  std::size_t _numSized = 0;
  std::size_t _numEstimated = 0;
  std::size_t _numCompleted = 0;
  std::size_t _numUnfetchable = 0;
  std::int64_t _sizedBytes = 0;
  bool _estimated = false;
  bool _completed = false;

  // Indices, in order. Their sizes are the counts of active, running and failed resources, and pausing,
  // resuming, cancelling and clearing walk them instead of the list.
  std::set<std::size_t> _paused;
  std::set<std::size_t> _running;
  std::set<std::size_t> _failed;

  /// No resource before it can be fetched.
  std::size_t _cursor = 0;

  const std::shared_ptr<const QVResourceDirectory> _directory;
  const std::shared_ptr<QVQuality> _quality;
  const std::weak_ptr<QVMovieDownloadSet> _set;
  QVHeadersRef _additionalHeaders;
  std::size_t _parallellDownloads = 4;
  std::int64_t _downloadedBytes = 0;
  std::int64_t _sizedBytesBias = 0; ///< what the sum started with besides sizes; for the recount
};
