#pragma once

#include "platform/foundation/Data.h"
#include "platform/foundation/Error.h"
#include "platform/transfer/URLRequest.h"
#include "platform/transfer/URLSessionConfiguration.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace platform {

class Queue;
class URLSession;
class URLSessionDelegate;

/// A byte count that a server did not tell.
inline constexpr std::int64_t NSURLSessionTransferSizeUnknown = -1;

enum class URLSessionTaskState { Running = 0, Suspended = 1, Canceling = 2, Completed = 3 };

/// One transfer of a session.
///
/// Created suspended. Every task that was created gets exactly one `URLSessionTaskDidCompleteWithError`,
/// whatever happens to it: success, failure, cancel, invalidation of its session, shutdown of the service.
/// Thread-safe; no operation blocks on the network or the disk.
class URLSessionTask {
public:
  virtual ~URLSessionTask() = default;

  virtual std::uint64_t taskIdentifier() const = 0; ///< unique in its session, never reused by its identifier
  virtual URLRequest originalRequest() const = 0;
  /// The newest response head; null before the first.
  virtual std::shared_ptr<const HTTPURLResponse> response() const = 0;
  virtual URLSessionTaskState state() const = 0;
  /// The error it ended with; null before the end and on success.
  virtual ErrorRef error() const = 0;

  /// Free text of the application; journaled with the task of a background session.
  virtual std::optional<std::string> taskDescription() const = 0;
  virtual void setTaskDescription(std::optional<std::string> text) = 0;

  /// Body bytes held so far, those of a resumed or adopted part included.
  virtual std::int64_t countOfBytesReceived() const = 0;
  /// Length of the whole body that the task will hold, NSURLSessionTransferSizeUnknown when unknown.
  virtual std::int64_t countOfBytesExpectedToReceive() const = 0;

  virtual void resume() = 0;  ///< Suspended → Running; otherwise nothing
  virtual void suspend() = 0; ///< Running → Suspended, keeping the bytes; otherwise nothing
  virtual void
  cancel() = 0; ///< → Canceling, then the completion with NSURLErrorCancelled; nothing when ended
};

/// A task whose body goes to a file.
class URLSessionDownloadTask : public URLSessionTask {
public:
  /// Where the delegate is going to have the file, if it knows that ahead; to be told before `resume`, and
  /// not journaled. It saves a move: a body of a success that is handed over unsynced (see
  /// `maximumLengthUnsynced`) is written there at once, when nothing stands there. The delegate then gets
  /// this path, and what stands there is its own, whether it wants it or not.
  virtual void setIntendedLocation(const std::string& path) = 0;
  virtual std::string intendedLocation() const = 0; ///< empty: it is not known ahead

  /// Cancels; `completion` gets the resume data, or null when there is nothing to resume from. It is called
  /// exactly once on the session's delegate queue, before the task's completion with NSURLErrorCancelled,
  /// whose user info carries the same data. On a task that has ended: null.
  virtual void cancelByProducingResumeData(std::function<void(DataRef)> completion) = 0;
};

/// A task whose body is collected in memory and handed to a completion handler.
class URLSessionDataTask : public URLSessionTask {};

using DownloadTaskRef = std::shared_ptr<URLSessionDownloadTask>;

/// Called exactly once. On a transfer failure: (null, response or null, error). Otherwise data (maybe empty)
/// and response, whatever the HTTP status.
using DataTaskCompletion =
    std::function<void(DataRef data, std::shared_ptr<const HTTPURLResponse> response, ErrorRef error)>;

enum class AuthChallengeDisposition { UseCredential, PerformDefaultHandling, CancelAuthenticationChallenge };
struct URLCredential {
  std::string user;
  std::string password;
};
struct AuthenticationChallenge {
  std::string host;
  std::string realm;
  std::string scheme; ///< "basic" or "digest"
  int previousFailureCount = 0;
};
/// `credential` counts only with UseCredential.
using ChallengeCompletion =
    std::function<void(AuthChallengeDisposition, std::optional<URLCredential> credential)>;

/// A group of tasks with one delegate and one delegate queue.
///
/// The delegate gets the events of a task in order, never two events of a session at once, never under a lock
/// of the service. Destroying the last reference of a session stops its transfers: a background session's
/// tasks stay in the journal with the bytes that they hold.
class URLSession {
public:
  virtual ~URLSession() = default;

  /// Opens a session on the configuration's service. `delegateQueue` null: a serial queue of its own. The
  /// delegate is held weakly. Null with `error` set when the identifier is held by another process or
  /// session, or when the journal cannot be used; a configuration without an identifier fails only without a
  /// service.
  static std::shared_ptr<URLSession> sessionWithConfiguration(const URLSessionConfiguration& configuration,
                                                              std::weak_ptr<URLSessionDelegate> delegate,
                                                              std::shared_ptr<Queue> delegateQueue,
                                                              ErrorRef* error = nullptr);

  /// The shared session of the process's default service, for data tasks; null when there is no service.
  static std::shared_ptr<URLSession> sharedSession();

  virtual const URLSessionConfiguration& configuration() const = 0;

  /// Never null. A request that cannot work (scheme, URL) yields a task that fails when it is resumed; after
  /// invalidation, one that completes with NSURLErrorCancelled at once.
  virtual DownloadTaskRef downloadTaskWithRequest(const URLRequest& request) = 0;

  /// Goes on from resume data. Data that is garbled or no longer fits starts the original request from zero
  /// when it still tells it, else yields a task that fails with NSURLErrorUnknown.
  virtual DownloadTaskRef downloadTaskWithResumeData(const Data& resumeData) = 0;

  virtual std::shared_ptr<URLSessionDataTask> dataTaskWithRequest(const URLRequest& request,
                                                                  DataTaskCompletion completion) = 0;

  /// Download tasks that have not ended, those of an earlier process under the same identifier included, in
  /// order of their identifiers; delivered once on the delegate queue.
  virtual void
  getTasksWithCompletionHandler(std::function<void(std::vector<DownloadTaskRef>)> completion) = 0;

  /// Cancels all tasks, lets them complete, then sends `URLSessionDidBecomeInvalidWithError`. The identifier
  /// is free afterwards.
  virtual void invalidateAndCancel() = 0;

  /// The same without cancelling: no new tasks, the others run to their end first.
  virtual void finishTasksAndInvalidate() = 0;
};

/// What a session tells. Every operation is optional.
class URLSessionDelegate {
public:
  virtual ~URLSessionDelegate() = default;

  /// Progress; coalesced, so one event may stand for many writes. In the first one of a response
  /// `bytesWritten` equals `totalBytesWritten`; a response without a body sends one with zeros. The task's
  /// response is set.
  virtual void URLSessionDownloadTaskDidWriteData(URLSession& session, const DownloadTaskRef& task,
                                                  std::int64_t bytesWritten, std::int64_t totalBytesWritten,
                                                  std::int64_t totalBytesExpectedToWrite) {
    (void)session, (void)task, (void)bytesWritten, (void)totalBytesWritten, (void)totalBytesExpectedToWrite;
  }

  /// The transfer goes on at `fileOffset`: from resume data, or from an orphaned part of an earlier process.
  virtual void URLSessionDownloadTaskDidResumeAtOffset(URLSession& session, const DownloadTaskRef& task,
                                                       std::int64_t fileOffset,
                                                       std::int64_t expectedTotalBytes) {
    (void)session, (void)task, (void)fileOffset, (void)expectedTotalBytes;
  }

  /// The whole body is in the file at `location`, synced to stable storage. Move it away before returning:
  /// the service removes it afterwards, unless it is the task's intended location. Followed by the completion
  /// without an error. Sent for every HTTP status.
  virtual void URLSessionDownloadTaskDidFinishDownloadingToURL(URLSession& session,
                                                               const DownloadTaskRef& task,
                                                               const std::string& location) {
    (void)session, (void)task, (void)location;
  }

  /// The last event of a task.
  virtual void URLSessionTaskDidCompleteWithError(URLSession& session,
                                                  const std::shared_ptr<URLSessionTask>& task,
                                                  const ErrorRef& error) {
    (void)session, (void)task, (void)error;
  }

  /// A server asks for credentials. `completion` must be called exactly once, from any thread.
  virtual void URLSessionTaskDidReceiveChallenge(URLSession& session,
                                                 const std::shared_ptr<URLSessionTask>& task,
                                                 const AuthenticationChallenge& challenge,
                                                 ChallengeCompletion completion) {
    (void)session, (void)task, (void)challenge;
    completion(AuthChallengeDisposition::PerformDefaultHandling, std::nullopt);
  }

  /// A background session that found tasks of an earlier process has delivered every event that was waiting.
  virtual void URLSessionDidFinishEventsForBackgroundURLSession(URLSession& session) { (void)session; }

  virtual void URLSessionDidBecomeInvalidWithError(URLSession& session, const ErrorRef& error) {
    (void)session, (void)error;
  }
};

} // namespace platform
