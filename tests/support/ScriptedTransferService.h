#pragma once

#include "platform/transfer/TransferService.h"
#include "platform/transfer/URLSession.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace support {

namespace scripted {
struct Core;
struct SessionState;
} // namespace scripted
class ScriptedSession;
class ScriptedTransferService;

/// What the code under test did to a task.
struct TaskCalls {
  int resumed = 0;
  int suspended = 0;
  int cancelled = 0; ///< by either kind of cancel
  std::vector<std::optional<std::string>> descriptions;
};

/// What is common to the tasks of a scripted session. Thread-safe.
template <class Interface>
class ScriptedTaskOf : public Interface, public std::enable_shared_from_this<ScriptedTaskOf<Interface>> {
public:
  std::uint64_t taskIdentifier() const override { return _identifier; }
  platform::URLRequest originalRequest() const override { return _request; }
  std::shared_ptr<const platform::HTTPURLResponse> response() const override { return locked(_response); }
  platform::URLSessionTaskState state() const override { return locked(_state); }
  platform::ErrorRef error() const override { return locked(_error); }
  std::optional<std::string> taskDescription() const override { return locked(_description); }
  void setTaskDescription(std::optional<std::string> text) override;
  std::int64_t countOfBytesReceived() const override { return locked(_received); }
  std::int64_t countOfBytesExpectedToReceive() const override { return locked(_expected); }
  void resume() override;
  void suspend() override;
  void cancel() override;

  TaskCalls calls() const { return locked(_calls); }
  const platform::URLRequest& request() const { return _request; }

  /// Ends the task with `error`. Like every scripted step it answers false, and does nothing, when the task
  /// has already ended or was cancelled.
  bool fail(const platform::ErrorRef& error);
  bool fail(platform::URLErrorCode code);

protected:
  friend struct scripted::Core;
  friend class ScriptedSession;
  friend class ScriptedTransferService;
  ScriptedTaskOf(std::shared_ptr<scripted::Core> core, std::shared_ptr<scripted::SessionState> session,
                 std::uint64_t identifier, platform::URLRequest request);

  std::shared_ptr<Interface> self() { return this->shared_from_this(); }
  template <class Value> Value locked(const Value& value) const {
    std::lock_guard lock(coreMutex());
    return value;
  }
  std::mutex& coreMutex() const;

  // The core's lock must be held for all operations below.
  bool isRunning() const { return _state == platform::URLSessionTaskState::Running && !_ended; }
  bool endLocked(const platform::ErrorRef& error);
  void respondLocked(int status, platform::HTTPHeaders headers);
  virtual void startLocked() = 0;
  virtual void completeLocked() = 0;

  const std::shared_ptr<scripted::Core> _core;
  const std::shared_ptr<scripted::SessionState> _session;
  const std::uint64_t _identifier;
  const platform::URLRequest _request;

  platform::URLSessionTaskState _state = platform::URLSessionTaskState::Suspended;
  bool _ended = false; // the outcome stands, its events may still wait
  bool _startWaiting = false;
  platform::ErrorRef _outcome;
  platform::ErrorRef _error;
  platform::ErrorRef _failsWhenStarted;
  std::shared_ptr<const platform::HTTPURLResponse> _response;
  std::optional<std::string> _description;
  std::int64_t _received = 0;
  std::int64_t _expected = platform::NSURLSessionTransferSizeUnknown;
  TaskCalls _calls;
};

/// A download task that does what the test says.
///
/// The steps `respond`, `write`, `finish`, `fail` play the part of the network: they change the
/// task at once and queue the events, which `ScriptedTransferService::run` delivers. Steps need a running
/// task; on any other they answer false and do nothing (`fail` also works on a suspended one).
class ScriptedTask final : public ScriptedTaskOf<platform::URLSessionDownloadTask> {
public:
  void cancelByProducingResumeData(std::function<void(platform::DataRef)> completion) override;
  /// Not taken up: the body always comes in a temporary file.
  void setIntendedLocation(const std::string& path) override { _intendedLocation = path; }
  std::string intendedLocation() const override { return _intendedLocation; }

  /// The response head. Content-Length sets the expected total. After resume data, 206 goes on at the offset
  /// and tells the delegate; any other status starts from zero.
  bool respond(int status, platform::HTTPHeaders headers = {});

  /// `bytes` more arrived of `expectedTotal` (unknown: as told before). Answers with 200 or 206 first when no
  /// head was scripted. Writes that were not delivered yet make one progress event.
  bool write(std::int64_t bytes, std::int64_t expectedTotal = platform::NSURLSessionTransferSizeUnknown);

  /// The whole body is `content`: missing progress, the finished event with a temporary file, the completion.
  bool finish(std::string content);

  /// What `cancelByProducingResumeData` hands out instead of data made from the task (null: nothing).
  void setResumeData(platform::DataRef data);

  /// The resume data that the task was created with.
  const std::optional<platform::Data>& resumeData() const { return _resumeData; }

private:
  friend struct scripted::Core;
  friend class ScriptedSession;
  friend class ScriptedTransferService;
  using ScriptedTaskOf::ScriptedTaskOf;
  void startLocked() override;
  void completeLocked() override;
  void progressLocked();
  bool finishLocked(std::int64_t size);
  platform::DataRef makeResumeDataLocked() const;

  std::optional<platform::Data> _resumeData;
  std::int64_t _resumeOffset = 0;
  std::string _intendedLocation; // for the thread that makes the task
  bool _firstOfResponse = true;
  bool _progressWaiting = false;
  std::int64_t _reported = 0;
  std::string _content;
  bool _finished = false;
  std::optional<platform::DataRef> _scriptedResumeData;
};

/// A data task that the test answers.
class ScriptedDataTask final : public ScriptedTaskOf<platform::URLSessionDataTask> {
public:
  /// Ends the task with a response and its body.
  bool answer(int status, std::string_view body, platform::HTTPHeaders headers = {});

private:
  friend struct scripted::Core;
  friend class ScriptedSession;
  friend class ScriptedTransferService;
  using ScriptedTaskOf::ScriptedTaskOf;
  void startLocked() override;
  void completeLocked() override;

  platform::DataTaskCompletion _completion;
  platform::DataRef _body;
};

using ScriptedTaskRef = std::shared_ptr<ScriptedTask>;
using ScriptedDataTaskRef = std::shared_ptr<ScriptedDataTask>;

/// A session of the scripted service. Holding one keeps its identifier in use, as with any session.
class ScriptedSession final : public platform::URLSession {
public:
  ~ScriptedSession() override;

  const platform::URLSessionConfiguration& configuration() const override { return _configuration; }
  platform::DownloadTaskRef downloadTaskWithRequest(const platform::URLRequest& request) override;
  platform::DownloadTaskRef downloadTaskWithResumeData(const platform::Data& resumeData) override;
  std::shared_ptr<platform::URLSessionDataTask>
  dataTaskWithRequest(const platform::URLRequest& request, platform::DataTaskCompletion completion) override;
  void getTasksWithCompletionHandler(
      std::function<void(std::vector<platform::DownloadTaskRef>)> completion) override;
  void invalidateAndCancel() override;
  void finishTasksAndInvalidate() override;

  /// The download task of that identifier that has not ended, or null.
  ScriptedTaskRef task(std::uint64_t taskIdentifier) const;

  /// Download tasks that have not ended, in order of their identifiers.
  std::vector<ScriptedTaskRef> liveTasks() const;

  /// Queues `URLSessionDidFinishEventsForBackgroundURLSession`.
  void finishEvents();

private:
  friend struct scripted::Core;
  friend class ScriptedTransferService;
  ScriptedSession(std::shared_ptr<scripted::Core> core, std::shared_ptr<scripted::SessionState> state,
                  platform::URLSessionConfiguration configuration);
  ScriptedTaskRef makeTaskLocked(std::uint64_t identifier, const platform::URLRequest& request);
  void admitLocked(const ScriptedTaskRef& task);
  void cancelLocked(bool journaled);
  void invalidate(bool cancelTasks);
  void journalLocked(const ScriptedTask& task);

  const std::shared_ptr<scripted::Core> _core;
  const std::shared_ptr<scripted::SessionState> _state;
  const platform::URLSessionConfiguration _configuration;
};

/// A task that an earlier process left behind.
struct Survivor {
  explicit Survivor(platform::URLRequest theRequest) : request(std::move(theRequest)) {}
  platform::URLRequest request;
  std::optional<std::string> description;
  platform::URLSessionTaskState state = platform::URLSessionTaskState::Running;
  std::int64_t bytesReceived = 0;
  std::int64_t bytesExpected = platform::NSURLSessionTransferSizeUnknown;
  /// The body, when the transfer ended while no process was listening: finished and completion are delivered
  /// as soon as the session is open.
  std::optional<std::string> finishedContent;
};

/// A transfer service without a network: the test plays every response, byte, failure and relaunch.
///
/// It keeps the contracts of URLSession.h. Events wait until the test delivers them with `run`
/// on its own thread (`Delivery::Pumped`), which makes a test deterministic, or go to the sessions' queues at
/// once (`Delivery::OnQueue`). Thread-safe; no callback runs under a lock. Every step takes constant or
/// logarithmic time, so it carries benchmarks with very many tasks.
class ScriptedTransferService final : public platform::TransferService {
public:
  enum class Delivery { Pumped, OnQueue };

  /// `directory` takes the temporary files and must exist.
  explicit ScriptedTransferService(std::string directory, Delivery delivery = Delivery::Pumped);
  ~ScriptedTransferService() override;

  std::shared_ptr<platform::URLSession> openSession(const platform::URLSessionConfiguration& configuration,
                                                    std::weak_ptr<platform::URLSessionDelegate> delegate,
                                                    std::shared_ptr<platform::Queue> delegateQueue,
                                                    platform::ErrorRef* error) override;
  std::shared_ptr<platform::URLSession> sharedSession() override;
  void shutdown() override;

  /// Delivers events, those that they cause included, until none waits; answers how many. With
  /// `Delivery::OnQueue` it waits until the queues have delivered theirs
  /// (so it is not for a delegate queue's own thread).
  std::size_t run();

  /// The open session of that identifier, or null.
  std::shared_ptr<ScriptedSession> session(const std::string& identifier) const;

  /// Every download task, of any session, in order of creation; survivors when their session is opened.
  std::vector<ScriptedTaskRef> tasks() const;
  std::size_t taskCount() const;
  ScriptedTaskRef task(std::size_t index) const; ///< null when there is none

  /// The newest download task for that URL that runs, or null.
  ScriptedTaskRef runningTask(const std::string& url) const;

  std::vector<ScriptedDataTaskRef> dataTasks() const;

  /// Called, like an event, whenever a download task starts to run: the place of a script that answers by
  /// itself. Set it before tasks run.
  void onStart(std::function<void(ScriptedTask&)> handler);

  /// The same for data tasks.
  void onDataStart(std::function<void(ScriptedDataTask&)> handler);

  /// Data tasks for that URL are answered with this. Counts before `onDataStart`.
  void serveData(const std::string& url, int status, std::string body);

  /// A task for the session of that identifier to find when it is opened; answers the task's identifier.
  std::uint64_t addSurvivor(const std::string& sessionIdentifier, Survivor survivor);

  /// The service as the next process finds it: a fresh one with the tasks that this one left behind. Call
  /// `shutdown` or drop the sessions before.
  std::shared_ptr<ScriptedTransferService> relaunched() const;

private:
  const std::shared_ptr<scripted::Core> _core;
};

} // namespace support
