#pragma once

#include "platform/transfer/URLSession.h"
#include "platform/transfer/internal/Journal.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace platform::transfer {

class Session;
class Transfer;

/// What a task's caller wants of it. The network thread compares it with what is and acts on the difference,
/// so the order and number of calls in between do not matter.
enum class Wanted {
  Run,
  Suspend,
  Cancel,     ///< and drop the bytes
  CancelKeep, ///< and make resume data
  Stop,       ///< the session ends under it: keep the bytes for whoever comes next
};

/// How a transfer ended, on its way to the delegate.
struct Outcome {
  ErrorRef error{};
  std::string file{}; ///< a finished download's body
  DataRef data{};     ///< a data task's body
  DataRef resumeData{};
};

/// The part of a task that all threads share. Thread-safe unless said otherwise; its lock is never held over
/// I/O or a call to anybody else.
class TaskState : public JournaledTask, public std::enable_shared_from_this<TaskState> {
public:
  TaskState(std::shared_ptr<Session> session, std::uint64_t identifier, URLRequest request, bool isDownload);
  ~TaskState() override;

  // For the caller, behind the public interface.
  std::uint64_t identifier() const { return _identifier; }
  const URLRequest& request() const { return _request; }
  std::shared_ptr<const HTTPURLResponse> currentResponse() const;
  URLSessionTaskState currentState() const;
  ErrorRef currentError() const;
  std::optional<std::string> description() const;
  void describe(std::optional<std::string> text);
  std::int64_t received() const { return _received; }
  std::int64_t expected() const { return _expected; }
  void requestResume();
  void requestSuspend();
  void requestCancel();
  void requestCancelWithResumeData(std::function<void(DataRef)> completion);
  void intend(const std::string& location);

  bool isDownload() const { return _isDownload; }
  const std::shared_ptr<Session>& session() const { return _session; }
  virtual std::shared_ptr<URLSessionTask> face() = 0;
  virtual DownloadTaskRef downloadFace() { return nullptr; }

  // Set before the task is known to anybody else.
  ErrorRef startError;       ///< fails with this when it is resumed
  std::string partialToTake; ///< from resume data
  DataTaskCompletion dataCompletion;
  void takePartial(const std::string& name, std::int64_t length, std::int64_t total);
  /// `finished`: the whole body is stored, its events are to be told.
  void restore(const TaskRow& row, std::int64_t held, bool finished);

  // For the network thread.
  Wanted wanted() const;
  std::unique_ptr<Transfer> transfer;
  std::atomic<bool> queuedForNetwork{false};
  void setResponse(std::shared_ptr<const HTTPURLResponse> response, std::int64_t held, std::int64_t expected);
  void setHeld(std::int64_t held) { _received = held; }
  /// Answers true when a progress event must be posted (none is under way).
  bool claimProgressEvent();
  bool hasUnreportedBytes() const;
  void setPartial(const std::string& name);
  std::string intended() const;
  /// The body is whole and stored at `path`. The journal claims it only when it is synced.
  void setComplete(std::int64_t length, const std::string& path, bool synced);

  // For the session.
  /// The session ends under it: → Canceling, keeping the row. False when it has ended already.
  bool stop();
  /// Marks that the completion was handed over; false when somebody else did it before.
  bool claimEnd() { return !_endClaimed.exchange(true); }
  bool hasEnded() const { return _endClaimed; }
  /// On the delegate queue: the events, in order.
  void deliverProgress();
  void deliverEnd(Outcome outcome);

  // Journal.
  const std::string& journalSession() const override;
  std::uint64_t journalIdentifier() const override { return _identifier; }
  std::optional<TaskRow> journalRow(bool withRequest) override;
  void touchJournal();

private:
  void wake();
  struct ProgressReport {
    bool due = false;
    std::int64_t written = 0, total = 0, expected = 0;
  };
  ProgressReport takeProgress(bool final);

  const std::shared_ptr<Session> _session;
  const std::uint64_t _identifier;
  const URLRequest _request;
  const bool _isDownload;

  mutable std::mutex _mutex;
  URLSessionTaskState _state = URLSessionTaskState::Suspended;
  std::shared_ptr<const HTTPURLResponse> _response;
  ErrorRef _error;
  std::optional<std::string> _description;
  std::vector<std::function<void(DataRef)>> _resumeDataWaiters;
  bool _stopped = false;    ///< ended by its session, not by its caller
  bool _delivering = false; ///< the delegate is being told that it succeeded: too late to cancel
  bool _firstEventDue = false;
  std::int64_t _reported = 0; ///< bytes that the delegate knows of, of this response
  // Journal
  TaskRow::State _rowState = TaskRow::Suspended;
  bool _rowGone = false;
  bool _touched = false;
  std::string _partial;
  std::string _finishedPath;
  std::string _intendedLocation;

  std::atomic<std::int64_t> _received{0};
  std::atomic<std::int64_t> _expected{NSURLSessionTransferSizeUnknown};
  std::atomic<bool> _progressPosted{false};
  std::atomic<std::int64_t> _reportedForNetwork{-1}; ///< as `_reported`, readable without the lock
  std::atomic<bool> _endClaimed{false};
};

using TaskStateRef = std::shared_ptr<TaskState>;

/// The two kinds of task over the shared part.
template <class Interface> class TaskFace : public Interface, public TaskState {
public:
  using TaskState::TaskState;
  std::uint64_t taskIdentifier() const override { return identifier(); }
  URLRequest originalRequest() const override { return request(); }
  std::shared_ptr<const HTTPURLResponse> response() const override { return currentResponse(); }
  URLSessionTaskState state() const override { return currentState(); }
  ErrorRef error() const override { return currentError(); }
  std::optional<std::string> taskDescription() const override { return description(); }
  void setTaskDescription(std::optional<std::string> text) override { describe(std::move(text)); }
  std::int64_t countOfBytesReceived() const override { return received(); }
  std::int64_t countOfBytesExpectedToReceive() const override { return expected(); }
  void resume() override { requestResume(); }
  void suspend() override { requestSuspend(); }
  void cancel() override { requestCancel(); }
  std::shared_ptr<URLSessionTask> face() override {
    return std::static_pointer_cast<TaskFace>(shared_from_this());
  }
};

class DownloadTask final : public TaskFace<URLSessionDownloadTask> {
public:
  using TaskFace::TaskFace;
  void cancelByProducingResumeData(std::function<void(DataRef)> completion) override {
    requestCancelWithResumeData(std::move(completion));
  }
  void setIntendedLocation(const std::string& path) override { intend(path); }
  std::string intendedLocation() const override { return intended(); }
  DownloadTaskRef downloadFace() override {
    return std::static_pointer_cast<DownloadTask>(shared_from_this());
  }
};

using DataTask = TaskFace<URLSessionDataTask>;

} // namespace platform::transfer
