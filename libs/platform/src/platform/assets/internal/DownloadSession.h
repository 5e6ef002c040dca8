#pragma once

#include "platform/assets/AssetDownloadURLSession.h"
#include "platform/assets/internal/AggregateTask.h"
#include "platform/assets/internal/LeftTransfers.h"
#include "platform/concurrency/Queue.h"

#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace platform::assets {

/// The session: it owns the transfers' session and leads its events to the tasks. Transfers' events and the
/// engines of all tasks run on one queue.
class DownloadSession final : public AssetDownloadURLSession,
                              public URLSessionDelegate,
                              public std::enable_shared_from_this<DownloadSession> {
public:
  DownloadSession(AssetDownloadOptions options, std::weak_ptr<AssetDownloadDelegate> delegate,
                  std::shared_ptr<Queue> delegateQueue);
  ErrorRef open(const URLSessionConfiguration& configuration);

  AggregateAssetDownloadTaskRef
  aggregateAssetDownloadTaskWithURLAsset(std::shared_ptr<URLAsset> asset,
                                         std::vector<MediaSelection> mediaSelections, std::string assetTitle,
                                         DataRef artworkData, const UserInfo& options) override;
  void getAllTasksWithCompletionHandler(
      std::function<void(std::vector<AggregateAssetDownloadTaskRef>)> completion) override;
  void getResourcesOfURLAsset(std::shared_ptr<URLAsset> asset, std::vector<MediaSelection> mediaSelections,
                              const UserInfo& options,
                              std::function<void(std::vector<AssetResource>, ErrorRef)> completion) override;
  void invalidateAndCancel() override;

  // For tasks.
  const AssetDownloadOptions& options() const { return _options; }
  const std::string& identifier() const { return _identifier; }
  const std::shared_ptr<SerialQueue>& work() const { return _work; }
  const std::shared_ptr<URLSession>& transfers() const { return _transfers; }
  bool isInvalidated() const;
  /// A transfer of a task: from now on its events go there. On the work queue, before it is resumed.
  void attach(const DownloadTaskRef& transfer, const std::shared_ptr<AggregateTask>& task);
  /// On the work queue. A transfer that is taken from there is attached by the taker.
  LeftTransfers& leftTransfers() { return _left; }
  /// Runs on the delegate queue with the delegate, when there is one.
  void tell(std::function<void(AssetDownloadDelegate&)> event);
  void onDelegateQueue(std::function<void()> work) { _delegateQueue->async(std::move(work)); }
  void forget(const AggregateTask& task);

  // Transfers' events.
  void URLSessionDownloadTaskDidWriteData(URLSession& session, const DownloadTaskRef& task,
                                          std::int64_t bytesWritten, std::int64_t totalBytesWritten,
                                          std::int64_t totalBytesExpectedToWrite) override;
  void URLSessionDownloadTaskDidResumeAtOffset(URLSession& session, const DownloadTaskRef& task,
                                               std::int64_t fileOffset,
                                               std::int64_t expectedTotalBytes) override;
  void URLSessionDownloadTaskDidFinishDownloadingToURL(URLSession& session, const DownloadTaskRef& task,
                                                       const std::string& location) override;
  void URLSessionTaskDidCompleteWithError(URLSession& session, const std::shared_ptr<URLSessionTask>& task,
                                          const ErrorRef& error) override;

private:
  void restoreTasks(const AssetEnvironment& environment);
  std::vector<std::shared_ptr<AggregateTask>> tasks() const;
  std::shared_ptr<AggregateTask> ownerOf(const URLSessionTask& transfer) const;

  const AssetDownloadOptions _options;
  const std::weak_ptr<AssetDownloadDelegate> _delegate;
  const std::shared_ptr<SerialQueue> _work;
  const std::shared_ptr<Queue> _delegateQueue;
  std::string _identifier;
  std::shared_ptr<URLSession> _transfers;

  mutable std::mutex _mutex;
  std::map<std::uint64_t, std::shared_ptr<AggregateTask>> _tasks;
  std::uint64_t _nextTask = 1;
  bool _invalidated = false;

  // For the work queue.
  std::unordered_map<std::uint64_t, std::shared_ptr<AggregateTask>> _owners;
  LeftTransfers _left;
};

} // namespace platform::assets
