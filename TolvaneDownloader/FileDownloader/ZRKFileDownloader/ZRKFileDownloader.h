#pragma once

#include "platform/foundation/Data.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/URL.h"
#include "platform/transfer/URLRequest.h"
#include "platform/transfer/URLSession.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class ZRKConnectionDownload;
struct ZRKConnectionDownloadListener;
class ZRKFileDownloadDelegate;
class ZRKFileDownloadItem;
class ZRKFileDownloadProgress;

namespace platform {
class Progress;
class Queue;
class TransferService;
} // namespace platform

/// What a downloader takes from its application.
struct ZRKFileDownloaderEnvironment {
  std::string bundleIdentifier;   ///< of the application; begins the identifiers of its sessions
  std::string documentsDirectory; ///< holds "file-download", where files go that the delegate places nowhere
  std::string temporaryDirectory; ///< holds "file-download" of the older transport; empty: the system's
  /// Hosts the transfers; null: the process's default. One without background sessions is used through plain
  /// connections.
  std::shared_ptr<platform::TransferService> service;
  std::shared_ptr<platform::Queue> delegateQueue; ///< null: a serial queue of the downloader's own
};

/// A queue of whole-file HTTP downloads for one client: starts them on a background session, keeps at most so
/// many running, lets the rest wait in the order of their arrival, checks what has arrived, puts it in its
/// place and tells the client.
///
/// A download goes by the client's own name for it, its token (or identifier). Every start is answered by
/// exactly one completion or failure of that token, and every end starts the next one that waits. Two
/// downloads of one token may overlap for a moment, when one is started again before the end of a pause or a
/// cancel was told; a token then stands for the newest.
///
/// On a service without background sessions each download is a plain connection with the same reporting, but
/// nothing outlives the process and there is no resume data.
///
/// Thread-safe. The delegate says where its calls arrive. Dropping the last reference stops the transfers
/// without a further call; those of a background session stay with it for the next downloader of the same
/// identifier.
class ZRKFileDownloader : public platform::URLSessionDelegate,
                          public std::enable_shared_from_this<ZRKFileDownloader> {
public:
  using DownloadID = std::uint64_t;
  static constexpr std::uint64_t UnlimitedDownloads = ~std::uint64_t{0};

  /// Without a limit, on a session of a fresh identifier, "<bundle identifier>.ZRKFileDownload.<UUID>".
  static std::shared_ptr<ZRKFileDownloader>
  downloaderWithDelegate(std::weak_ptr<ZRKFileDownloadDelegate> delegate,
                         ZRKFileDownloaderEnvironment environment);
  /// At most `maxConcurrentDownloads` run at once; 0 or less: no limit.
  static std::shared_ptr<ZRKFileDownloader>
  downloaderWithDelegate(std::weak_ptr<ZRKFileDownloadDelegate> delegate, std::int64_t maxConcurrentDownloads,
                         ZRKFileDownloaderEnvironment environment);
  /// On the background session of that identifier, whose transfers outlive the process. When it cannot be
  /// opened `sessionError` says why and every start fails with that error.
  static std::shared_ptr<ZRKFileDownloader>
  downloaderWithDelegate(std::weak_ptr<ZRKFileDownloadDelegate> delegate, std::int64_t maxConcurrentDownloads,
                         const std::string& backgroundSessionIdentifier,
                         ZRKFileDownloaderEnvironment environment);
  ~ZRKFileDownloader() override;
  ZRKFileDownloader(const ZRKFileDownloader&) = delete;
  ZRKFileDownloader& operator=(const ZRKFileDownloader&) = delete;

  /// Takes over the transfers that an earlier process left in the session: each becomes active under its
  /// token. `completion` is called once, on the delegate queue, after which `isDownloadingIdentifier` knows
  /// them. A left transfer that has news earlier is taken over at that moment.
  void setupWithCompletionBlock(std::function<void()> completion);

  // ---- Commands

  /// Starts a download, or lets it wait when the limit is reached.
  void startDownloadWithIdentifierFromRemoteURL(const std::string& token, const platform::URL& remoteURL);
  /// The same from where an earlier run stopped; from zero when that cannot be gone on with.
  void startDownloadWithIdentifierUsingResumeData(const std::string& token, const platform::Data& resumeData);

  /// Stops a download without resume data; a waiting one is taken out of the list and nothing is told.
  void pauseDownloadWithIdentifier(const std::string& token);
  /// Stops a download; `resumeDataBlock` gets what to go on from (null: nothing), exactly once, on the
  /// delegate queue, before the end is told as a failure with NSURLErrorCancelled. A waiting one is taken out
  /// of the list, the block gets the resume data that it waited with, and nothing is told.
  void pauseDownloadWithIdentifier(const std::string& token,
                                   std::function<void(platform::DataRef)> resumeDataBlock);

  /// Stops a download for good: it ends as a failure with NSURLErrorCancelled, a waiting one too. Nothing for
  /// an unknown token.
  void cancelDownloadWithIdentifier(const std::string& token);

  /// Asks the delegate to start a download again that is neither running nor waiting.
  void resumeDownloadWithIdentifier(const std::string& token);

  /// Kept until the session has told everything that happened while no process listened, then called once on
  /// the delegate queue.
  void setBackgroundSessionCompletionHandlerBlock(std::function<void()> handler);

  /// Closes the session, at once with all its tasks or when these have ended, and opens a fresh one under a
  /// new identifier for what starts from now on.
  void invalidateSessionConfigurationAndCancelTasks(bool cancelTasks);

  // ---- Queries

  bool isDownloadingIdentifier(const std::string& token) const; ///< running; a waiting one is not
  bool isWaitingForDownloadOfIdentifier(const std::string& token) const;
  bool hasActiveDownloads() const;
  /// Null when the token is not running. Each call is a sample of the smoothed speed.
  std::shared_ptr<ZRKFileDownloadProgress> downloadProgressForIdentifier(const std::string& token) const;
  /// The newest response head of a running download; null before the first.
  std::shared_ptr<const platform::HTTPURLResponse> responseForIdentifier(const std::string& token) const;

  std::string backgroundSessionIdentifier() const;
  std::shared_ptr<platform::URLSession> backgroundSession() const; ///< null with the older transport
  platform::ErrorRef sessionError() const;                         ///< why there is no session
  std::uint64_t maxConcurrentFileDownloadsCount() const;           ///< all ones: no limit
  DownloadID highestDownloadID() const;                            ///< last one of the older transport
  std::size_t activeDownloadsCount() const;
  std::size_t waitingDownloadsCount() const;

  // ---- Class operations

  /// A new name in the folder "file-download" of the documents directory, with the extension of `remoteURL`.
  /// The folder is made when missing and marked as not worth a backup; nothing, with a log line, when that
  /// fails.
  static std::optional<platform::URL> localFileURLForRemoteURL(const platform::URL& remoteURL,
                                                               const std::string& documentsDirectory);
  /// Whether a response of that status holds the file: 200…299.
  static bool httpStatusCodeIsValidForDownloadIdentifier(int httpStatusCode, const std::string& token);

  struct SpeedAndRemainingTime {
    std::uint64_t bytesPerSecondSpeed = 0;
    double remainingTime = 0; ///< seconds
  };
  /// One sample at `now`: the speed since the start, smoothed with the item's last one, which it replaces.
  /// Zeros, changing nothing, while the received or the expected size is unknown.
  static SpeedAndRemainingTime remainingTimeAndBytesPerSecondForDownloadItem(
      ZRKFileDownloadItem& item,
      std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now());

  // ---- Session events

  void URLSessionDownloadTaskDidWriteData(platform::URLSession& session,
                                          const platform::DownloadTaskRef& task, std::int64_t bytesWritten,
                                          std::int64_t totalBytesWritten,
                                          std::int64_t totalBytesExpectedToWrite) override;
  void URLSessionDownloadTaskDidResumeAtOffset(platform::URLSession& session,
                                               const platform::DownloadTaskRef& task, std::int64_t fileOffset,
                                               std::int64_t expectedTotalBytes) override;
  void URLSessionDownloadTaskDidFinishDownloadingToURL(platform::URLSession& session,
                                                       const platform::DownloadTaskRef& task,
                                                       const std::string& location) override;
  void URLSessionTaskDidCompleteWithError(platform::URLSession& session,
                                          const std::shared_ptr<platform::URLSessionTask>& task,
                                          const platform::ErrorRef& error) override;
  void URLSessionTaskDidReceiveChallenge(platform::URLSession& session,
                                         const std::shared_ptr<platform::URLSessionTask>& task,
                                         const platform::AuthenticationChallenge& challenge,
                                         platform::ChallengeCompletion completion) override;
  void URLSessionDidFinishEventsForBackgroundURLSession(platform::URLSession& session) override;
  void URLSessionDidBecomeInvalidWithError(platform::URLSession& session,
                                           const platform::ErrorRef& error) override;

private:
  struct State;
  using ItemRef = std::shared_ptr<ZRKFileDownloadItem>;
  struct Beginning;
  using ResumeDataBlock = std::function<void(platform::DataRef)>;
  explicit ZRKFileDownloader(std::unique_ptr<State> state);

  // Sessions
  std::shared_ptr<platform::URLSession> _openSession(const std::string& identifier,
                                                     platform::ErrorRef* error);
  void _takeOverTasks(std::vector<platform::DownloadTaskRef> tasks, std::function<void()> completion);
  ItemRef _takeOver(const platform::DownloadTaskRef& task, DownloadID downloadID);
  ItemRef _itemForTask(const platform::URLSession& session, const platform::URLSessionTask& task,
                       const platform::DownloadTaskRef& download, DownloadID& downloadID);

  // The queue
  void _startDownloadWithDownloadToken(const std::string& token, std::optional<platform::URL> remoteURL,
                                       std::optional<platform::Data> resumeData);
  void _start(Beginning beginning);
  platform::DownloadTaskRef _makeTask(Beginning& beginning);
  std::shared_ptr<ZRKConnectionDownload> _makeConnection(Beginning& beginning);
  std::optional<platform::URLRequest> _requestForRemoteURL(Beginning& beginning);
  void _giveUpStart(Beginning beginning);
  void _attachHandlers(const ZRKFileDownloadItem& item);
  void _startNextWaitingDownload();
  enum class Stop { Pause, Cancel };
  void _stopDownload(const std::string& token, Stop how, ResumeDataBlock resumeDataBlock);
  void _stopNow(DownloadID downloadID, const ItemRef& item, const ResumeDataBlock& resumeDataBlock);
  static std::shared_ptr<ZRKFileDownloadProgress> _downloadProgressForItem(ZRKFileDownloadItem& item);
  void _answerLater(ResumeDataBlock resumeDataBlock, platform::DataRef resumeData);

  // Events of either transport
  void _handleProgress(const ItemRef& item, std::int64_t written, std::int64_t expected);
  void _handleFinishedFile(DownloadID downloadID, const ItemRef& item, int status,
                           const std::optional<platform::URL>& remoteURL, const std::string& location);
  void _handleEnd(DownloadID downloadID, const ItemRef& item, int status,
                  const std::optional<platform::URL>& remoteURL, const platform::ErrorRef& error);
  ZRKConnectionDownloadListener _listenerOfConnection(DownloadID downloadID, const ItemRef& item);
  void _handleChallenge(const std::string& token, const platform::AuthenticationChallenge& challenge,
                        platform::ChallengeCompletion completion);
  bool _statusIsValid(DownloadID downloadID, int status, const std::string& token);
  void _reportTaskNotFound(DownloadID downloadID, const ItemRef& item);
  bool _retire(DownloadID downloadID, const ItemRef& item);
  void _handleSuccessfulDownloadToLocalFileURL(const platform::URL& localFileURL, const ItemRef& item,
                                               DownloadID downloadID);
  void _handleDownloadWithError(const platform::ErrorRef& error, const ItemRef& item, DownloadID downloadID,
                                const platform::DataRef& resumeData);

  const std::unique_ptr<State> _state;
};
