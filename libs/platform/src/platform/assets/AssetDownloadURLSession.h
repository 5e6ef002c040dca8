#pragma once

#include "platform/assets/MediaSelection.h"
#include "platform/assets/URLAsset.h"
#include "platform/foundation/Data.h"
#include "platform/foundation/Error.h"
#include "platform/transfer/URLSession.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace platform {

class AssetDownloadURLSession;
class Queue;

/// Key of a task's options: bits per second (`std::int64_t`). The lowest variant at or above it is fetched,
/// the highest when there is none; without the option the highest.
inline constexpr const char* AVAssetDownloadTaskMinimumRequiredMediaBitrateKey =
    "AVAssetDownloadTaskMinimumRequiredMediaBitrateKey";

/// Key of a task's options: most transfers at once (`int`, at least 1), instead of the session's
/// `maximumTransfersPerPackage`.
inline constexpr const char* AssetDownloadTaskMaximumTransfersKey = "AssetDownloadTaskMaximumTransfersKey";

/// A stretch of an asset's time line, in seconds.
struct TimeRange {
  double start = 0;
  double duration = 0;
};

/// A resource as it would be fetched.
struct AssetResource {
  std::string url;
  std::int64_t offset = 0;  ///< of the first byte that is fetched
  std::int64_t length = -1; ///< bytes; -1: to the end
  std::string path;         ///< below the package
};

/// Where packages go, and how many transfers each uses. Plain values.
struct AssetDownloadOptions {
  /// Holds the packages; made when missing. On the file system of the transfer service's directory, so that a
  /// finished file is renamed into place.
  std::string directory;
  /// More than a host has connections: one whose body is being stored needs none.
  int maximumTransfersPerPackage = 12;
};

/// The download of one asset into one package: its variant, and the renditions of one or more selections.
///
/// Made by a session, suspended. Exactly one completion, whatever happens to it. Commands change what is
/// wanted and return at once. Thread-safe.
class AggregateAssetDownloadTask {
public:
  virtual ~AggregateAssetDownloadTask() = default;

  virtual std::uint64_t taskIdentifier() const = 0; ///< unique in its session
  virtual const std::shared_ptr<platform::URLAsset>& URLAsset() const = 0;
  virtual const std::string& assetTitle() const = 0;
  virtual URLSessionTaskState state() const = 0;
  virtual ErrorRef error() const = 0; ///< what it ended with; null before the end and on success
  /// The package directory; empty before `willDownloadTo`.
  virtual std::string location() const = 0;
  /// Bytes of the package's resources: held, those of an earlier run included, and of transfers under way.
  virtual std::int64_t countOfBytesReceived() const = 0;

  virtual void resume() = 0;  ///< Suspended → Running
  virtual void suspend() = 0; ///< Running → Suspended; what was fetched stays, also parts of files
  virtual void cancel() = 0;  ///< completes with NSURLErrorCancelled; the package stays, for a later download
};
using AggregateAssetDownloadTaskRef = std::shared_ptr<AggregateAssetDownloadTask>;

/// What a session tells, on its delegate queue, in order. Every operation is optional.
class AssetDownloadDelegate {
public:
  virtual ~AssetDownloadDelegate() = default;

  /// The package's directory is settled; sent once, before media is written and before any other event of the
  /// task but a failure of its playlists.
  virtual void URLSessionAggregateAssetDownloadTaskWillDownloadTo(AssetDownloadURLSession& session,
                                                                  const AggregateAssetDownloadTaskRef& task,
                                                                  const std::string& location) {
    (void)session, (void)task, (void)location;
  }

  /// More of the asset is on disk. `totalTimeRangesLoaded` is what all selected streams have, in order,
  /// without overlaps; `timeRange` the piece whose arrival this tells. Coalesced: one event may stand for
  /// many segments. The last one before a successful completion covers `timeRangeExpectedToLoad`.
  virtual void URLSessionAggregateAssetDownloadTaskDidLoad(
      AssetDownloadURLSession& session, const AggregateAssetDownloadTaskRef& task, const TimeRange& timeRange,
      const std::vector<TimeRange>& totalTimeRangesLoaded, const TimeRange& timeRangeExpectedToLoad,
      const MediaSelection& mediaSelection) {
    (void)session, (void)task, (void)timeRange, (void)totalTimeRangesLoaded, (void)timeRangeExpectedToLoad,
        (void)mediaSelection;
  }

  /// The last event of a task. The error names URL, cause and what to do.
  virtual void URLSessionTaskDidCompleteWithError(AssetDownloadURLSession& session,
                                                  const AggregateAssetDownloadTaskRef& task,
                                                  const ErrorRef& error) {
    (void)session, (void)task, (void)error;
  }
};

/// Downloads HLS assets into packages that play without a network.
///
/// A package is a directory with `master.m3u8`, media playlists with relative addresses, the media, and a
/// small state file. Its place is decided by the asset's URL, so a later download of the same URL, in any
/// process and under any identifier, finds what is there and fetches only what is missing. Thread-safe.
/// A task that was resumed keeps its session alive until it ends.
class AssetDownloadURLSession {
public:
  virtual ~AssetDownloadURLSession() = default;

  /// `configuration` is handed to the transfer service (identifier, headers, cap on connections); the
  /// delegate is held weakly; `delegateQueue` null: a queue of its own. Null with `error` set when the
  /// transfer service gives no session or the directory cannot be made.
  static std::shared_ptr<AssetDownloadURLSession>
  sessionWithConfiguration(const URLSessionConfiguration& configuration, AssetDownloadOptions options,
                           std::weak_ptr<AssetDownloadDelegate> assetDownloadDelegate,
                           std::shared_ptr<Queue> delegateQueue, ErrorRef* error = nullptr);

  /// Never null. `mediaSelections` empty: the preferred one. The asset need not be loaded. `artworkData`
  /// (null: none) is stored in the package. A second task for a package that another task of the process
  /// works on fails when it is resumed.
  virtual AggregateAssetDownloadTaskRef
  aggregateAssetDownloadTaskWithURLAsset(std::shared_ptr<URLAsset> asset,
                                         std::vector<MediaSelection> mediaSelections, std::string assetTitle,
                                         DataRef artworkData = nullptr, const UserInfo& options = {}) = 0;

  /// The tasks that have not ended, those of an earlier process under the same identifier included, in order
  /// of their identifiers; delivered once on the delegate queue. One of an earlier process is suspended; the
  /// few transfers that it had under way go on by themselves, and are taken up when it is resumed.
  virtual void getAllTasksWithCompletionHandler(
      std::function<void(std::vector<AggregateAssetDownloadTaskRef>)> completion) = 0;

  /// What a task made of the same arguments would fetch; nothing is written. `completion` is called exactly
  /// once, on a queue of the session, with the resources in order of their time, or with an error.
  virtual void getResourcesOfURLAsset(
      std::shared_ptr<URLAsset> asset, std::vector<MediaSelection> mediaSelections, const UserInfo& options,
      std::function<void(std::vector<AssetResource> resources, ErrorRef error)> completion) = 0;

  virtual void invalidateAndCancel() = 0; ///< cancels all tasks; new ones complete at once
};

} // namespace platform
