#pragma once

#include "halvix/ContentType.h"
#include "halvix/Download.h"
#include "halvix/DownloaderDispatcher.h"
#include "halvix/PlayerConfiguration.h"
#include "halvix/QVError.h"

#include "platform/transfer/URLRequest.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace halvix {

class DownloadHub;
class HostEnvironment;

/// The part that all downloaders share: the list of their downloads, its storing, and the settings of the
/// application. A downloader of one kind of content derives from it.
///
/// Thread contract: everything here is thread-safe. The virtual operations are called by the host from any
/// thread, without a lock of the host held; a downloader serialises what it must. They return soon (no
/// waiting for the network), tell failures by the answered error, and report what happens later through the
/// `Download` and the dispatcher.
///
/// Lifetime: held by shared pointers only, so that work under way can refer to it weakly
/// (`weak_from_this`).
class BaseDownloader : public std::enable_shared_from_this<BaseDownloader> {
public:
  /// Answers the identifier of a new download for a configuration.
  using UuidGenerator = std::function<std::string(const PlayerConfiguration& configuration)>;
  /// Called exactly once, from any thread: (download, null) or (null, error).
  using PrepareCompletion = std::function<void(std::shared_ptr<Download> download, QVErrorRef error)>;

  virtual ~BaseDownloader();
  BaseDownloader(const BaseDownloader&) = delete;
  BaseDownloader& operator=(const BaseDownloader&) = delete;

  /// The directory of this downloader in the library and the key of its rows.
  const std::string& name() const { return _name; }
  /// Root of everything this downloader writes: library/name. Made when first asked for.
  std::string downloadPath() const;
  const std::shared_ptr<HostEnvironment>& environment() const { return _environment; }

  bool cellularAccess() const { return _cellularAccess; }
  /// For every request of this downloader: those given at construction over those of the environment.
  const platform::HTTPHeaders& headers() const { return _headers; }
  /// The same with a download's own headers over them; for an unknown identifier the downloader's alone.
  platform::HTTPHeaders headersForDownload(const std::string& uuid) const;

  std::shared_ptr<DownloaderDispatcherProtocol> dispatcher() const;
  /// The newest session's; state and progress events of all downloads go there from now on.
  void setDispatcher(std::shared_ptr<DownloaderDispatcherProtocol> dispatcher);

  /// All downloads, oldest first; a copy, for showing. Look single ones up with `findDownload`.
  std::vector<std::shared_ptr<Download>> downloads() const;
  /// Null when there is none.
  std::shared_ptr<Download> findDownload(std::string_view uuid) const;
  std::shared_ptr<Download> findDownloadByContentUrl(std::string_view contentUrl) const;

  /// Writes every changed record in one transaction; nothing changed, nothing written. A failure is logged
  /// and answered, and the records stay marked for the next try.
  QVErrorRef storeItems();
  /// The same, but only when the record of this download is not stored yet; waits for one that writes it.
  QVErrorRef storeItemsFor(const Download& download);

  /// Takes a download off the list and its row out of the store. What is on disk stays. An unknown
  /// identifier is no error.
  QVErrorRef forgetDownload(const std::string& uuid);

  /// Turns every download that still counts as running by a process that is gone into a paused one. The host
  /// calls it once the downloader had the chance to find its transfers again.
  void settleInterruptedDownloads();

  /// Shows that transfers are under way; calls nest.
  void toggleActivityIndicator(bool active);
  int activityCount() const;

  /// Whether an identifier follows from what is downloaded, so that content of it may have been there before
  /// its entry in the list. False while identifiers are random.
  bool identifiesContent() const;

  // Operations of a kind of content. The string is a download's uuid; an answered error of null is success.

  virtual bool canDownload(ContentType contentType) const = 0;
  /// By the configuration's content type; one without is none.
  virtual bool canDownload(const PlayerConfiguration& configuration) const;

  /// A provisional download for the configuration, identified by the uuid generator; the download that is
  /// already there when the identifier is known (its title and headers are then replaced by given ones
  /// that are not empty). Null with `error` set when it cannot be made.
  virtual std::shared_ptr<Download> createDownload(const PlayerConfiguration& configuration,
                                                   const platform::HTTPHeaders& headers, QVErrorRef* error);

  /// Finds out what the content offers and sets the download's tracks.
  virtual void prepareDownload(const std::string& uuid, PrepareCompletion completion) = 0;

  /// Starts fetching what is selected. `delegate` may be expired; it is kept in the download.
  virtual QVErrorRef startDownload(const std::string& uuid, std::weak_ptr<DownloadDelegate> delegate) = 0;
  virtual QVErrorRef pauseDownload(const std::string& uuid) = 0;
  virtual QVErrorRef resumeDownload(const std::string& uuid) = 0;
  /// Stops; what is on disk stays.
  virtual QVErrorRef cancelDownload(const std::string& uuid) = 0;
  /// Stops and removes what is on disk. The list entry stays for the host to forget.
  virtual QVErrorRef removeDownload(const std::string& uuid) = 0;

protected:
  /// `name` is a plain directory name, unique among the application's downloaders, and never changes: it is
  /// persisted. `environment` null: the process's default. Without either, the list lives in memory only and
  /// `downloadPath` is empty.
  BaseDownloader(std::string name, bool cellularAccess, platform::HTTPHeaders headers,
                 std::shared_ptr<HostEnvironment> environment = nullptr);

  /// Restores the stored downloads; call it once, when constructed. Those that an ended process left running
  /// still say so, with `interruptedAtLoad`. A failure is logged and answered, and the list is empty.
  QVErrorRef loadItems();

  /// Replaces the generator of identifiers; without one, as at first, they are random UUIDs.
  void setUuidGenerator(UuidGenerator generator);
  UuidGenerator uuidGenerator() const;

private:
  QVErrorRef writeChanged(); // under `_storeMutex`
  void insertLocked(std::shared_ptr<Download> download);

  const std::string _name;
  const bool _cellularAccess;
  const std::shared_ptr<HostEnvironment> _environment;
  const platform::HTTPHeaders _headers;
  const std::shared_ptr<DownloadHub> _hub;

  mutable std::mutex _mutex;
  std::mutex _storeMutex; // one writing of changes at a time, so that an older copy never overtakes a newer
  UuidGenerator _uuidGenerator; ///< empty: identifiers are random
  std::vector<std::shared_ptr<Download>> _downloads;
  // Keys view the texts inside the downloads, which never change.
  std::unordered_map<std::string_view, std::shared_ptr<Download>> _byUuid;
  std::unordered_map<std::string, std::shared_ptr<Download>> _byContentUrl;
  int _activityCount = 0;
  mutable std::atomic<bool> _pathIsThere{false};
};

} // namespace halvix
