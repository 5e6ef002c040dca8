#pragma once

#include "platform/transfer/internal/OwnerLocks.h"
#include "platform/transfer/internal/Task.h"

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace platform {
class TransferService;
}

namespace platform::transfer {

class Network;
class PartialStore;

/// The parts of a service that its sessions reach. A session outlives its service when somebody still holds
/// one of its tasks; then these are gone and its tasks have ended.
struct ServiceParts;

/// One session. The caller's reference is a handle of its own whose end calls `abandon`; the object itself
/// lives until its last task has been delivered and let go.
class Session final : public URLSession, public std::enable_shared_from_this<Session> {
public:
  Session(URLSessionConfiguration configuration, std::weak_ptr<URLSessionDelegate> delegate,
          std::shared_ptr<Queue> delegateQueue, std::weak_ptr<ServiceParts> parts, std::string owner,
          std::unique_ptr<OwnerLocks::Lock> lock);
  ~Session() override;

  const URLSessionConfiguration& configuration() const override { return _configuration; }
  DownloadTaskRef downloadTaskWithRequest(const URLRequest& request) override;
  DownloadTaskRef downloadTaskWithResumeData(const Data& resumeData) override;
  std::shared_ptr<URLSessionDataTask> dataTaskWithRequest(const URLRequest& request,
                                                          DataTaskCompletion completion) override;
  void getTasksWithCompletionHandler(std::function<void(std::vector<DownloadTaskRef>)> completion) override;
  void invalidateAndCancel() override;
  void finishTasksAndInvalidate() override;

  bool isBackground() const { return !_configuration.identifier.empty(); }
  /// Lock name that marks partial files as this session's.
  const std::string& owner() const { return _owner; }
  Queue& queue() { return *_queue; }
  std::shared_ptr<URLSessionDelegate> delegate() const { return _delegate.lock(); }

  /// Takes the tasks of an earlier process, starts the running ones, and tells of finished ones.
  void restore(const Journal::Session& record, const PartialStore& store);

  /// The handle is gone, or the service stops: stops all tasks, keeping what they hold. A session that is
  /// finishing its tasks goes on with them unless told otherwise.
  void abandon(bool evenWhenFinishing);
  /// Blocks until an ending session has given its identifier back. Does not wait for the delegate.
  void waitUntilReleased();
  bool isEnding() const;

  // For tasks and transfers.
  bool wakeNetwork(const TaskStateRef& task);
  void runOnNetwork(std::function<void()> work);
  void journal(std::shared_ptr<JournaledTask> task);
  void postProgress(const TaskStateRef& task);
  void postResumed(const TaskStateRef& task, std::int64_t offset, std::int64_t total);
  void postChallenge(const TaskStateRef& task, AuthenticationChallenge challenge, ChallengeCompletion answer);
  /// Hands the outcome to the delegate queue; only the first call for a task counts.
  void end(const TaskStateRef& task, Outcome outcome);
  /// On the delegate queue.
  void forget(TaskState& task);
  void taskWasDelivered();

private:
  enum class Phase {
    Open,
    Finishing,  ///< no new tasks, the others run to their end
    Cancelling, ///< no new tasks, the others are being cancelled
    Abandoned,  ///< nobody holds it: tasks are being stopped
  };

  template <class Task> std::shared_ptr<Task> makeTask(const URLRequest& request, bool isDownload);
  /// False when the session takes no more tasks.
  bool admit(const TaskStateRef& task);
  void releaseIfDone();
  void tellInvalidIfDone();
  void postInvalidIfIdle();
  std::vector<TaskStateRef> tasks() const;

  const URLSessionConfiguration _configuration;
  const std::weak_ptr<URLSessionDelegate> _delegate;
  const std::shared_ptr<Queue> _queue;
  const std::weak_ptr<ServiceParts> _parts;
  const std::string _owner;

  mutable std::mutex _mutex;
  std::condition_variable _released;
  std::unique_ptr<OwnerLocks::Lock> _lock;
  Phase _phase = Phase::Open;
  bool _isReleased = false;
  bool _toldInvalid = false;
  std::atomic<std::uint64_t> _nextTask{1};
  std::uint64_t _reservedTasks = 1;
  std::map<std::uint64_t, TaskStateRef> _tasks; ///< not yet delivered
  std::size_t _working = 0;                     ///< of them, those whose outcome is still open
};

} // namespace platform::transfer
