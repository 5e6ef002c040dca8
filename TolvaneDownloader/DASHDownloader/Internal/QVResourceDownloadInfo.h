#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVDownloadTypes.h"

#include "platform/foundation/Data.h"
#include "platform/foundation/Error.h"
#include "platform/transfer/URLRequest.h"
#include "platform/transfer/URLSession.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

class QVDownloadController;
class QVQualityDownloadInfo;
class QVRangedURL;
class QVResourceDirectory;

/// Headers that many requests share; null: none.
using QVHeadersRef = std::shared_ptr<const platform::HTTPHeaders>;

/// The record of one file to fetch: where it comes from, where it goes, the task that fetches it, and how far
/// that is.
///
/// A set holds tens of thousands of records, so nothing that can be derived is kept. No lock of its own: what
/// changes is touched only under the set's lock; `resource`, `index`, the paths, `quality` and `controller`
/// never change. Owned by its quality, and by the task table while a task fetches it.
///
/// A resource that may not stand where its reference puts it is *unfetchable*: created completed with the
/// error that tells why, and never anything else.
class QVResourceDownloadInfo : public std::enable_shared_from_this<QVResourceDownloadInfo> {
public:
  /// `expectedSize` is an estimate; a resource with a length of its own starts with that instead.
  static std::shared_ptr<QVResourceDownloadInfo>
  infoWithResource(std::shared_ptr<QVRangedURL> resource,
                   std::shared_ptr<const QVResourceDirectory> directory,
                   std::weak_ptr<QVQualityDownloadInfo> quality, std::size_t index,
                   const QVDownloadSize& expectedSize, std::weak_ptr<QVDownloadController> controller);

  const std::shared_ptr<QVRangedURL>& resource() const { return _resource; }
  std::size_t index() const { return _index; }              ///< place in the quality's list
  std::shared_ptr<QVQualityDownloadInfo> quality() const;   ///< null once it is gone
  std::shared_ptr<QVDownloadController> controller() const; ///< null once it is gone
  const std::string& relativeResourcePath() const;          ///< the reference URL's text
  std::string relativePathOnDisk() const; ///< below the set's directory; empty when unfetchable
  std::string resourcePath() const;       ///< absolute path of the file; empty when unfetchable
  bool unfetchable() const { return _unfetchable; }

  bool completed() const { return _completed; } ///< finished, with or without an error
  bool failed() const { return _error != nullptr; }
  const platform::ErrorRef& error() const { return _error; }
  QVDownloadStatus status() const { return _status; }
  const platform::DownloadTaskRef& downloadTask() const { return _downloadTask; }
  std::int64_t downloadedBytes() const { return _downloadedBytes; }
  QVDownloadSize expectedBytes() const { return _expectedBytes; }
  QVDownloadProgress progress() const { return QVMakeDownloadProgress(_downloadedBytes, _expectedBytes); }

  const QVHeadersRef& additionalHeaders() const { return _additionalHeaders; }
  /// Headers of the next request; they win over the request's own.
  void setAdditionalHeaders(QVHeadersRef headers) { _additionalHeaders = std::move(headers); }

  unsigned reactivations() const { return _reactivations; }       ///< restarts since the last `clear`
  unsigned maxReactivations() const { return _maxReactivations; } ///< 4 at first
  void setMaxReactivations(unsigned limit) { _maxReactivations = limit; }

  /// Creates a suspended task and becomes paused. False, with nothing changed, unless inactive and not
  /// completed, or when there is no session.
  bool activate();
  bool activateWithTask(const platform::DownloadTaskRef& task);

  /// Uses up one restart and forgets the outcome; false, with nothing changed, when none is left.
  bool reactivateReset();
  /// Reset and activation; when the latter is impossible the outcome stays as it was.
  bool reactivate();
  bool reactivateWithData(const platform::Data& resumeData);

  /// Takes over a task of an earlier process with the status that the record had there. False when the record
  /// has a task or needs none, or when the task is being cancelled.
  bool reattachWithStatus(std::uint64_t status, const platform::DownloadTaskRef& task);

  bool pause();  ///< downloading → paused
  bool resume(); ///< paused → downloading
  bool cancel(); ///< not inactive → inactive, without the bytes so far

  /// Ends the fetching; `error` null: the file is in its place.
  void completeWithError(platform::ErrorRef error);
  /// The file was found on disk.
  void completeWithBytesPreloaded(std::int64_t bytes);
  /// `expected` -1: the expectation stays.
  void bytesDownloaded(std::int64_t downloaded, std::int64_t expected);

  /// Makes a failed record fetchable again, with all its restarts; false for others.
  bool clear();
  /// Back to the state of creation; a task is dropped, not cancelled.
  void reset();

private:
  struct Passkey {
    explicit Passkey() = default;
  };

public:
  QVResourceDownloadInfo(Passkey, std::shared_ptr<QVRangedURL> resource,
                         std::shared_ptr<const QVResourceDirectory> directory,
                         std::weak_ptr<QVQualityDownloadInfo> quality, std::size_t index,
                         const QVDownloadSize& expectedSize, std::weak_ptr<QVDownloadController> controller);
  ~QVResourceDownloadInfo();

private:
  platform::DownloadTaskRef _makeTask(const platform::Data* resumeData) const;
  bool _reactivateWithTask(const platform::Data* resumeData);
  void _describeTask();
  void _releaseTask();

  const std::shared_ptr<QVRangedURL> _resource;
  const std::shared_ptr<const QVResourceDirectory> _directory;
  const std::weak_ptr<QVQualityDownloadInfo> _quality;
  const std::weak_ptr<QVDownloadController> _controller;
  const std::size_t _index;
  QVHeadersRef _additionalHeaders;
  platform::DownloadTaskRef _downloadTask;
  platform::ErrorRef _error;
  std::int64_t _downloadedBytes = 0;
  QVDownloadSize _expectedBytes;
  unsigned _maxReactivations = 4;
  unsigned _reactivations = 0;
  QVDownloadStatus _status = QVDownloadStatusInactive;
  bool _completed = false;
  bool _unfetchable = false;
};
