#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVDownloadController.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTaskTable.h"

#include "platform/application/Application.h"
#include "platform/concurrency/OrderedRecursiveMutex.h"
#include "platform/foundation/Data.h"
#include "platform/foundation/Error.h"
#include "platform/transfer/URLRequest.h"
#include "platform/transfer/URLSession.h"
#include "platform/transfer/URLSessionConfiguration.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

class QVMovieDownloadProperties;
class QVMovieDownloadSet;
class QVMutableMovieDownloadProperties;
class QVPlaylist;
class QVRangedURL;

/// Entry point of segment-by-segment downloads: turns a manifest URL into a download set, owns the sets of
/// this process, the session that fetches their resources and the directory tree in which they live
/// (`downloadPath`/<download id>/).
///
/// Thread-safe. Every operation holds the downloader's recursive lock (rank 1; a set's is rank 2, a
/// properties object's 3) except attaching and detaching tasks and `downloadSession`, which sets use under
/// their own lock. Session events arrive on the session's delegate queue. Dropping the last reference stops
/// the transfers; those of a background session go on when the same identifier is opened again.
///
/// Misuse and file failures of commands raise a `platform::Exception` "QVMovieDownloaderException":
/// "DownloadSet is not owned by this instance", "Failed to remove files for DownloadSet", "Failed to remove
/// all downloader files" (the latter two with the error, a `platform::ErrorRef`, under "NSError").
class QVMovieDownloader : public QVDownloadController,
                          public platform::URLSessionDelegate,
                          public std::enable_shared_from_this<QVMovieDownloader> {
public:
  using FetchCompletion =
      std::function<void(std::shared_ptr<QVMovieDownloadSet> set, platform::ErrorRef error)>;
  /// Null to accept. Called on the transfer's queue, without a lock.
  using PlaylistCheck = std::function<platform::ErrorRef(const QVPlaylist& playlist)>;

  /// The process's instance, on the background session "QVMovieDownloader/SharedSession"; made at the first
  /// call, lives as long as the process.
  static std::shared_ptr<QVMovieDownloader> sharedDownloader();

  /// On a background session of that identifier (none: a session that ends with the process). The two flags
  /// are accepted and ignored: cellular access is always allowed, discretionary mode never set.
  static std::shared_ptr<QVMovieDownloader>
  downloaderWithIdentifier(const std::optional<std::string>& identifier = std::nullopt,
                           bool cellularAccess = false, bool discretionaryMode = false,
                           const std::optional<std::string>& downloadPath = std::nullopt);

  /// On a session of that configuration (none: a session that ends with the process). A session that cannot
  /// be opened leaves `downloadSession` null and its error in `sessionError`: what is stored can be listed
  /// and activated, but no download starts. Tasks that an earlier process left are taken over. `downloadPath`
  /// none: "QVMovieDownloader" in the documents directory; raises "QVMovieDownloaderException" "No download
  /// directory" when that was not set.
  static std::shared_ptr<QVMovieDownloader>
  downloaderWithConfiguration(const std::optional<platform::URLSessionConfiguration>& configuration,
                              const std::optional<std::string>& downloadPath);

  /// Where a downloader that was given no directory puts its own. The application sets it at its start.
  static void setDocumentsPath(const std::string& path);

  /// "manifest.mpd", whatever the manifest's format.
  static std::string getDefaultManifestLocalName();

  std::string downloadPath() const;
  void setDownloadPath(const std::string& path); ///< for downloads from now on
  std::optional<platform::HTTPHeaders> additionalHeaders() const;
  /// Headers of the requests of sets started from now on, and of manifests.
  void setAdditionalHeaders(std::optional<platform::HTTPHeaders> headers);
  bool allowsCellularAccess() const { return false; }                      ///< never written
  bool discretionary() const { return false; }                             ///< never written
  const platform::ErrorRef& sessionError() const { return _sessionError; } ///< why there is no session

  // Queries
  /// The id under which a manifest's download is stored: hashes of host, path and query. Scheme, port, user
  /// and fragment take no part; a directory of the older form without the query is found again.
  std::string downloadIdWithURL(const std::string& url) const;
  /// Name of the stored manifest in the set's directory; the default name when none is found.
  std::string findManifestLocalNameForDownloadId(const std::string& downloadId) const;
  /// The properties of everything stored, in listing order; nothing rather than an empty list.
  std::optional<std::vector<std::shared_ptr<QVMovieDownloadProperties>>> downloadedMovies() const;
  /// In the order of their ids; nothing rather than an empty list.
  std::optional<std::vector<std::shared_ptr<QVMovieDownloadSet>>> activeDownloadSets() const;

  /// The registered set, or null; never touches the disk.
  std::shared_ptr<QVMovieDownloadSet> fetchActiveDownloadSetForURL(const std::string& url) const;
  /// The registered set, or one from the stored manifest, or null.
  std::shared_ptr<QVMovieDownloadSet> activateDownloadSetForURL(const std::string& url);
  std::shared_ptr<QVMovieDownloadSet> activateDownloadSet(const QVMovieDownloadProperties& properties);

  /// The registered set, or one from the stored manifest (both at once, on this thread), or one from a
  /// manifest that is fetched and stored. `completion` is called exactly once, without a lock, with (set,
  /// null) or (null, error); after a fetch on the transfer's queue.
  ///
  /// `headers` are for the manifest's request alone and win over `additionalHeaders`. `check` sees what was
  /// fetched before anything of it is written: an error that it answers ends the fetch.
  void fetchDownloadSetForURL(const std::string& url, FetchCompletion completion,
                              platform::HTTPHeaders headers = {}, PlaylistCheck check = nullptr);

  // Commands. Each is a background task of the application.
  bool download(const std::shared_ptr<QVMovieDownloadSet>& set); ///< whether a run started
  bool pause(const std::shared_ptr<QVMovieDownloadSet>& set);    ///< whether it is paused now
  bool resume(const std::shared_ptr<QVMovieDownloadSet>& set);   ///< whether it is downloading now
  bool cancel(const std::shared_ptr<QVMovieDownloadSet>& set);   ///< false when it was inactive
  /// Cancels, deletes the set's directory and forgets the set; it stays registered when deleting fails.
  bool remove(const std::shared_ptr<QVMovieDownloadSet>& set);

  void pauseAll();
  void resumeAll();
  void cancelAll();
  /// Deletes everything below `downloadPath` and the directory; the sets stay registered when that fails.
  void removeAll();

  /// Kept until the session has delivered what happened while no process listened, then called on the main
  /// queue. Null is ignored.
  void handleBackgroundEventsWithCompletionHandler(std::function<void()> handler);

  // For records and sets
  std::shared_ptr<platform::URLSession> downloadSession() const override { return _session; }
  void resourceAttachTask(const std::shared_ptr<QVResourceDownloadInfo>& resource,
                          const platform::DownloadTaskRef& task) override;
  void resourceDetachTask(const std::shared_ptr<QVResourceDownloadInfo>& resource,
                          const platform::DownloadTaskRef& task) override;
  platform::OrderedRecursiveMutex& controllerLock() override { return _lock; }

  // Session events
  void URLSessionDownloadTaskDidWriteData(platform::URLSession& session,
                                          const platform::DownloadTaskRef& task, std::int64_t bytesWritten,
                                          std::int64_t totalBytesWritten,
                                          std::int64_t totalBytesExpectedToWrite) override;
  void URLSessionDownloadTaskDidFinishDownloadingToURL(platform::URLSession& session,
                                                       const platform::DownloadTaskRef& task,
                                                       const std::string& location) override;
  void URLSessionTaskDidCompleteWithError(platform::URLSession& session,
                                          const std::shared_ptr<platform::URLSessionTask>& task,
                                          const platform::ErrorRef& error) override;
  void URLSessionDidFinishEventsForBackgroundURLSession(platform::URLSession& session) override;

private:
  struct Passkey {
    explicit Passkey() = default;
  };

public:
  QVMovieDownloader(Passkey, std::string downloadPath);
  ~QVMovieDownloader() override;
  QVMovieDownloader(const QVMovieDownloader&) = delete;
  QVMovieDownloader& operator=(const QVMovieDownloader&) = delete;

private:
  void _open(const platform::URLSessionConfiguration& configuration);
  void _validateSet(const QVMovieDownloadSet& set) const;
  void _remove(const QVMovieDownloadSet& set);
  std::vector<std::shared_ptr<QVMovieDownloadSet>> _allSets() const;
  std::string _directoryOf(const std::string& downloadId) const;
  std::shared_ptr<QVMovieDownloadSet> _registeredSet(const std::string& downloadId) const;

  static void _saveManifest(const platform::Data& data, const std::string& directory);
  std::shared_ptr<QVMovieDownloadSet> _downloadSetWithPlaylist(const std::shared_ptr<QVPlaylist>& playlist,
                                                               const std::string& downloadPath,
                                                               const std::string& manifestName,
                                                               const std::string& sourceURL,
                                                               const std::string& downloadId);
  /// The registered set or one from the stored manifest; raises nothing.
  std::shared_ptr<QVMovieDownloadSet> _storedSet(const std::string& url, const std::string& downloadId,
                                                 const std::string& manifestName, platform::ErrorRef& error);
  /// A set from a fetched manifest, which it stores; raises nothing.
  std::shared_ptr<QVMovieDownloadSet> _fetchedSet(const std::shared_ptr<QVPlaylist>& playlist,
                                                  const platform::DataRef& data, const std::string& url,
                                                  const std::string& downloadId,
                                                  const std::string& manifestName, platform::ErrorRef& error);

  void _handleCompletedResource(const std::shared_ptr<QVResourceDownloadInfo>& resource,
                                const platform::DownloadTaskRef& task, const std::string& location);
  /// Makes files placed in `directory` (and all before) outlive a power failure; not each of them by itself,
  /// but before anything claims that a quality is there.
  platform::ErrorRef _syncPlaced(const std::string& directory, bool now);
  void _handleFailedResource(const std::shared_ptr<QVResourceDownloadInfo>& resource,
                             const platform::URLSessionTask& task, const platform::ErrorRef& error);
  std::shared_ptr<QVMovieDownloadSet> _setOfResource(const QVResourceDownloadInfo& resource) const;
  void _reattachTasks(const std::vector<platform::DownloadTaskRef>& tasks);
  void _reattachTask(const platform::DownloadTaskRef& task);
  void _refreshTask(const platform::DownloadTaskRef& task);

  void handleEnterForeground();
  void handleLeaveForeground();

  mutable platform::OrderedRecursiveMutex _lock{1, "movie downloader"};
  std::map<std::string, std::shared_ptr<QVMovieDownloadSet>> _downloadIdSetMap;
  std::shared_ptr<platform::URLSession> _session; ///< set once, before anybody else has the downloader
  platform::ErrorRef _sessionError;
  /// For the manifests: where they are fetched must be where the resources are.
  std::shared_ptr<platform::URLSession> _manifestSession;
  QVTaskTable _tasks;
  std::set<std::string> _unsyncedDirectories; ///< in which files were placed since they were synced
  std::size_t _numUnsynced = 0;               ///< such files
  std::vector<std::function<void()>> _backgroundCompletionHandlers;
  std::string _downloadPath;
  std::optional<platform::HTTPHeaders> _additionalHeaders;
  platform::Application::ObservationRef _enterForeground;
  platform::Application::ObservationRef _leaveForeground;
};
