#pragma once

#include "TolvaneDownloader/FileDownloader/FilePlaces.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloadDelegate.h"

#include "halvix/BaseDownloader.h"
#include "platform/foundation/FileManager.h"
#include "platform/foundation/GroupSync.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

class ZRKFileDownloader;

/// Joins the host's download framework with the queue of whole files: MP4 and MP3 by their URL. A host
/// download's `uuid` is its token in the queue. The finished file stands in `downloadPath`, see `FilePlaces`.
///
/// Thread-safe. Events of the queue arrive on its delegate queue, never under a lock; nothing here waits for
/// another thread.
///
/// A download that was paused or that failed keeps what to go on from in its record. One that an ended
/// process left running has none: starting it asks for the URL anew, and the transfer service finds the bytes
/// that are on disk.
class FileDownloader final : public halvix::BaseDownloader, public ZRKFileDownloadDelegate {
public:
  /// The process's instance: cellular access, no headers, over the host's default environment.
  static std::shared_ptr<FileDownloader> shared();

  /// `environment` null: the host's default. Its options limit how many files are fetched at once.
  static std::shared_ptr<FileDownloader>
  create(bool cellularAccess, platform::HTTPHeaders headers,
         std::shared_ptr<halvix::HostEnvironment> environment = nullptr);
  ~FileDownloader() override;

  /// True for `mp4` and `mp3`.
  static bool isPlainFile(halvix::ContentType contentType);

  /// Tells the dispatcher of every download that an ended process had left running: a download error
  /// (`download_interrupted`). Each is told once; call it when there is a dispatcher.
  void reportInterruptedDownloads();

  using BaseDownloader::canDownload;
  bool canDownload(halvix::ContentType contentType) const override;
  /// A title that is not given becomes the file's name. New headers make what was fetched with the old ones
  /// be asked for anew (the bytes on disk still count).
  std::shared_ptr<halvix::Download> createDownload(const halvix::PlayerConfiguration& configuration,
                                                   const platform::HTTPHeaders& headers,
                                                   halvix::QVErrorRef* error) override;
  /// Asks the server for the file's name when the URL has none that fits, and about a file that an ended
  /// process left in its place. A server that does not tell is no failure. The name that comes with the file
  /// itself replaces the URL's while it is fetched.
  void prepareDownload(const std::string& uuid, PrepareCompletion completion) override;
  /// A download beyond the limit stays idle until its turn. One that is complete, under way or waiting is a
  /// success without an effect.
  halvix::QVErrorRef startDownload(const std::string& uuid,
                                   std::weak_ptr<halvix::DownloadDelegate> delegate) override;
  /// The state is paused once what to go on from is stored.
  halvix::QVErrorRef pauseDownload(const std::string& uuid) override;
  halvix::QVErrorRef resumeDownload(const std::string& uuid) override;
  /// The run ends as failed, cancelled; what was fetched is kept.
  halvix::QVErrorRef cancelDownload(const std::string& uuid) override;
  halvix::QVErrorRef removeDownload(const std::string& uuid) override;

  void incrementNetworkActivityIndicatorActivityCount() override;
  void decrementNetworkActivityIndicatorActivityCount() override;
  void customizeBackgroundSessionConfiguration(platform::URLSessionConfiguration& configuration) override;
  ZRKIfImplemented<std::optional<platform::URLRequest>>
  urlRequestForRemoteURL(const platform::URL& remoteURL) override;
  ZRKIfImplemented<std::optional<platform::URL>>
  localFileURLForIdentifier(const std::string& token, const platform::URL& remoteURL) override;
  ZRKIfImplemented<platform::URL> intendedLocalFileURLForIdentifier(const std::string& token) override;
  void downloadProgressChangedForIdentifier(const std::string& token) override;
  void downloadDidCompleteWithIdentifier(const std::string& token,
                                         const platform::URL& localFileURL) override;
  void downloadFailedWithIdentifier(const std::string& token, const platform::ErrorRef& error,
                                    int httpStatusCode, const std::vector<std::string>& errorMessagesStack,
                                    const platform::DataRef& resumeData) override;
  void downloadPausedWithIdentifier(const std::string& token, const platform::DataRef& resumeData) override;
  bool resumeDownloadWithIdentifier(const std::string& token) override;
  bool onAuthenticationChallenge(const platform::AuthenticationChallenge& challenge, const std::string& token,
                                 const platform::ChallengeCompletion& completionHandler) override;

private:
  /// What is known of a download in this process besides its record.
  struct Run {
    std::string fileName;
    std::string contentUrl;
    std::int64_t heldBefore = 0; ///< bytes that an earlier run had, until the first progress of this one
    std::chrono::steady_clock::time_point kept; ///< when the record was last marked for its progress
    std::optional<std::int64_t> modified;       ///< the server's date of the file that is fetched
    bool whole = false; ///< the file of `fileName` that stands in its place is the server's
    /// The response that was asked for the file's name.
    std::shared_ptr<const platform::HTTPURLResponse> response;
    bool placed = false;     ///< the file is in its place, and its record does not say so yet
    bool ending = false;     ///< was paused, and its end is not told yet
    bool removed = false;    ///< taken off the list while it was under way
    bool startAgain = false; ///< was to start while it was ending
    bool isNew = false;      ///< no earlier process can have left a file of it
  };
  /// A file in its place, before its record says so.
  struct Placed {
    std::string uuid;
    std::string path;
    std::optional<platform::FileAttributes> attributes;
    bool isNew = false;
  };

  /// Longer files are synced before they are placed: what stands in their place without a record is whole.
  static constexpr std::int64_t longestUnsynced = 1 << 20;

  FileDownloader(bool cellularAccess, platform::HTTPHeaders headers,
                 std::shared_ptr<halvix::HostEnvironment> environment);

  void fixDownloadsState();
  std::shared_ptr<ZRKFileDownloader> downloader();
  std::shared_ptr<ZRKFileDownloader> startedDownloader() const;
  halvix::QVErrorRef startFileDownload(const std::shared_ptr<halvix::Download>& download);
  bool isUnderWay(const std::string& uuid) const;
  template <class Change> void withRun(const std::string& uuid, Change change) {
    std::lock_guard lock(_fileMutex);
    change(_runs[uuid]);
  }
  std::string fileNameOf(const halvix::Download& download) const;
  std::vector<FilePlaces::Left> wholeLeftOf(const std::string& uuid);
  void rename(halvix::Download& download, const std::string& name);
  void learnName(halvix::Download& download);
  void askServer(const std::shared_ptr<halvix::Download>& download, PrepareCompletion completion);
  void learnFrom(const platform::HTTPURLResponse& response, halvix::Download& download);
  void place(Placed file);
  void nextGroup();
  void endCollecting();
  void completePlacedSoon();
  void completePlaced();
  FilePlaces& places();
  bool isRemoved(const std::string& uuid) const;
  void removeOthers(const Placed& file);
  void complete(halvix::Download& download, const Placed& file);
  void fail(const std::shared_ptr<halvix::Download>& download, const halvix::QVErrorRef& failure);
  void explainRestart(halvix::Download& download);
  void becamePaused(const std::string& uuid, const platform::DataRef& resumeData);
  bool startsAgain(const std::string& uuid);
  void discardParts(const std::string& contentUrl);
  void storeSoon();

  mutable std::mutex _fileMutex; // guards what follows; nothing is called under it
  std::shared_ptr<ZRKFileDownloader> _downloader;
  std::unordered_map<std::string, Run> _runs;
  std::unordered_map<std::string, std::string> _byRemoteURL; // to the uuid; a URL as the queue writes it
  std::vector<std::string> _interrupted;                     // not told yet
  std::vector<Placed> _placed;                               // not synced yet
  enum class Grouping { None, Collecting, Completing } _grouping = Grouping::None;

  std::atomic<bool> _storing{false};
  std::once_flag _placesMade;
  std::optional<FilePlaces> _places;
  std::optional<platform::GroupSync> _groupSync;
};
