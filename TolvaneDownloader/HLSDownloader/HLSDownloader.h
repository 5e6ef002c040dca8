#pragma once

#include "halvix/BaseDownloader.h"
#include "halvix/Presentation.h"

#include "platform/assets/AssetDownloadURLSession.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

/// Joins the host's download framework with the platform's asset-download service: it describes an HLS asset
/// in the host's terms, turns chosen renditions into media selections, and carries the service's events back
/// into the host's records.
///
/// Thread-safe. The service's events arrive on the main queue. Commands may come from any thread; the tables
/// are held under a lock of their own, which is never held over a call-out.
///
/// A download must have been prepared in this process before it is started. The content of a download is a
/// package, a directory whose place the content URL decides; a download that is started again goes on from
/// what its package holds. A package holds one variant: the one of `preferredBitrate` when that is set, else
/// of the best chosen video rendition.
class HLSDownloader final : public halvix::BaseDownloader,
                            public halvix::ContentInspector,
                            public platform::AssetDownloadDelegate {
public:
  /// The process's instance: cellular access, no headers, over the host's default environment.
  static std::shared_ptr<HLSDownloader> shared();

  /// `environment` null: the host's default. Downloads of an earlier process that were not at their end are
  /// looked up among the tasks that survived it; one without a task becomes failed.
  static std::shared_ptr<HLSDownloader>
  create(bool cellularAccess, platform::HTTPHeaders headers,
         std::shared_ptr<halvix::HostEnvironment> environment = nullptr);
  ~HLSDownloader() override;

  using BaseDownloader::canDownload;
  bool canDownload(halvix::ContentType contentType) const override;
  /// Refused when another download of the list holds the content URL.
  void prepareDownload(const std::string& uuid, PrepareCompletion completion) override;
  halvix::QVErrorRef startDownload(const std::string& uuid,
                                   std::weak_ptr<halvix::DownloadDelegate> delegate) override;
  halvix::QVErrorRef pauseDownload(const std::string& uuid) override;
  halvix::QVErrorRef resumeDownload(const std::string& uuid) override;
  /// The run ends as failed, with the error that says it was cancelled.
  halvix::QVErrorRef cancelDownload(const std::string& uuid) override;
  halvix::QVErrorRef removeDownload(const std::string& uuid) override;

  void inspectContent(const std::string& source, const platform::HTTPHeaders& headers,
                      halvix::ContentInspector::Completion completion) override;

  void URLSessionAggregateAssetDownloadTaskWillDownloadTo(platform::AssetDownloadURLSession& session,
                                                          const platform::AggregateAssetDownloadTaskRef& task,
                                                          const std::string& location) override;
  void URLSessionAggregateAssetDownloadTaskDidLoad(
      platform::AssetDownloadURLSession& session, const platform::AggregateAssetDownloadTaskRef& task,
      const platform::TimeRange& timeRange, const std::vector<platform::TimeRange>& totalTimeRangesLoaded,
      const platform::TimeRange& timeRangeExpectedToLoad,
      const platform::MediaSelection& mediaSelection) override;
  void URLSessionTaskDidCompleteWithError(platform::AssetDownloadURLSession& session,
                                          const platform::AggregateAssetDownloadTaskRef& task,
                                          const platform::ErrorRef& error) override;

private:
  using TaskRef = platform::AggregateAssetDownloadTaskRef;
  using AssetRef = std::shared_ptr<platform::URLAsset>;

  HLSDownloader(bool cellularAccess, platform::HTTPHeaders headers,
                std::shared_ptr<halvix::HostEnvironment> environment);

  void openSession();
  void syncRunningTasksWithStoredDownloads(const std::vector<std::shared_ptr<halvix::Download>>& stored,
                                           const std::vector<TaskRef>& tasks);
  std::shared_ptr<platform::TransferService> transferService() const;
  AssetRef makeAsset(const platform::URL& url, const platform::HTTPHeaders& headers) const;
  /// Loads the asset and the playlist's summary, and describes both.
  void describe(
      const AssetRef& asset,
      std::function<void(halvix::Tracks tracks, std::vector<std::string> keyIds, halvix::QVErrorRef error)>
          completion) const;
  TaskRef createAssetDownloadTask(halvix::Download& download, halvix::QVErrorRef* error);
  halvix::QVErrorRef deleteDownloadedContent(const halvix::Download& download) const;
  void fail(const std::shared_ptr<halvix::Download>& download, const halvix::QVErrorRef& error);
  void sweepRemovedPackage(const TaskRef& task);

  TaskRef findTask(const std::string& uuid) const;
  std::shared_ptr<halvix::Download> findDownloadOfTask(const TaskRef& task) const;
  void registerTask(const TaskRef& task, const std::string& uuid);
  void forgetTask(const TaskRef& task);
  /// Whether the task was cancelled by command; ends the mark.
  bool takeCancelMark(const TaskRef& task);

  std::shared_ptr<platform::AssetDownloadURLSession> _session; ///< set once, before anything else runs
  platform::ErrorRef _sessionError;

  /// When a task's progress was stored; on the main queue only.
  std::map<std::uint64_t, std::chrono::steady_clock::time_point> _progressStored;

  mutable std::mutex _mapMutex;
  std::map<std::string, AssetRef> downloadIdToAssetMap;
  std::map<std::uint64_t, std::string> taskIdToDownloadIdMap;
  std::vector<TaskRef> runningTasks;
  std::set<std::uint64_t> _cancelledTasks; ///< by command, and not ended yet
  std::map<std::uint64_t, std::string>
      _removedPackages; ///< of removed downloads whose task has not ended yet
};
