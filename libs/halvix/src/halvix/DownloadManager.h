#pragma once

#include "halvix/ComponentRegistry.h"
#include "halvix/ContentTypeDetection.h"
#include "halvix/Download.h"
#include "halvix/DownloaderDispatcher.h"
#include "halvix/PlayerConfiguration.h"
#include "halvix/Plugin.h"
#include "halvix/QVError.h"

#include "platform/transfer/URLRequest.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace halvix {

class BaseDownloader;
class HostEnvironment;
class Session;
struct ManagerState;

/// What an application talks to: it attaches plug-ins, creates downloads and steers them.
///
/// A typical run: `attachPlugin`, `determineContentType`, `createDownload`, `prepare`, then choose of the
/// download's tracks (`select`), `start`, and listen until the download finished or failed.
///
/// Thread contract: every operation may be called from any thread; completions and listeners run on the main
/// queue, never under a lock. Exactly one completion for each call that takes one. Operations on one download
/// are the application's to order.
///
/// A new download is stored when it starts; one that is only prepared, or whose start fails, leaves no entry
/// in the list.
class DownloadManager {
public:
  using Completion = std::function<void(QVErrorRef error)>;

  /// `environment` also becomes the process's default when there is none yet.
  static std::shared_ptr<DownloadManager> create(std::shared_ptr<HostEnvironment> environment);
  ~DownloadManager();

  const std::shared_ptr<HostEnvironment>& environment() const;
  const std::shared_ptr<Session>& session() const;
  const std::shared_ptr<ComponentRegistry>& components() const;

  /// The plug-in stays attached until `detachPlugins` or the manager's end.
  void attachPlugin(std::shared_ptr<QVPluginProtocol> plugin);
  void configurePlugins(const QVPluginConfiguration& configuration);
  void detachPlugins();

  /// Weakly held; each gets the events of all downloads. Adding one twice counts once.
  void addListener(const std::weak_ptr<DownloadDelegate>& listener);
  void removeListener(const std::shared_ptr<DownloadDelegate>& listener);

  /// Null with `error` (`downloader_not_found`) when no plug-in takes the type.
  std::shared_ptr<BaseDownloader> downloaderForContentType(ContentType contentType, QVErrorRef* error);

  /// See `detectContentType`; with the environment's headers under the given ones.
  void determineContentType(const std::string& url, const platform::HTTPHeaders& headers,
                            ContentTypeCompletion completion);

  /// The download of the configuration's URL: the one on the list, else a new, provisional one. Its content
  /// type must be set. For one that exists, a title and headers that are not empty replace the old ones.
  std::shared_ptr<Download> createDownload(const PlayerConfiguration& configuration,
                                           const platform::HTTPHeaders& headers, QVErrorRef* error);

  /// Makes the download's tracks known. A failure leaves no trace of a provisional download. Calls during a
  /// preparation join it.
  void prepare(const std::shared_ptr<Download>& download, Completion completion);

  /// Replaces the choice. Refused with `download_selection_empty`, changing nothing, when nothing of it is
  /// offered by the tracks of a prepared download.
  QVErrorRef select(const std::shared_ptr<Download>& download, const Selection& selection);

  /// Puts a prepared download on the stored list and starts it, in this order: nothing is fetched for a list
  /// that could not be written. A new one that cannot be started is dropped with what preparing it wrote.
  /// Nothing selected, though it has tracks: `download_selection_empty`, changing nothing.
  QVErrorRef start(const std::shared_ptr<Download>& download, std::weak_ptr<DownloadDelegate> delegate = {});
  /// The same for several, in their order, with one writing of the list before and one after all starts.
  /// Answers an error or null for each; one that fails does not keep the others from starting.
  std::vector<QVErrorRef> start(const std::vector<std::shared_ptr<Download>>& downloads);

  QVErrorRef pause(const std::shared_ptr<Download>& download);

  /// Goes on with a download, from whatever state it is in: a paused one of this process at once, any other
  /// by preparing and starting it with the stored choice. One that is complete or running is a success
  /// without an effect.
  void resume(const std::shared_ptr<Download>& download, Completion completion);

  /// Stops a download; what is on disk stays, and it can be resumed. One that is not under way, but of an
  /// earlier process, becomes idle; a complete one stays so.
  QVErrorRef cancel(const std::shared_ptr<Download>& download);

  /// Stops it, removes what is on disk and its entry. When the content cannot be removed, the entry stays.
  QVErrorRef remove(const std::shared_ptr<Download>& download);

  /// Drops a provisional download that was only looked at, with what preparing it wrote; content that stood
  /// on disk before it was created stays. Nothing for others.
  void discard(const std::shared_ptr<Download>& download);

  /// Writes what changed in all downloaders; an application calls it before it ends.
  QVErrorRef store();

  /// All downloads of all attached plug-ins, oldest first. A process that only lists should use
  /// `DownloadStore::summaries`, which needs neither plug-ins nor the library's lock.
  std::vector<std::shared_ptr<Download>> downloads();
  std::shared_ptr<Download> findDownloadByContentUrl(std::string_view contentUrl);

  /// The download whose identifier begins with `prefix`. Null with `error`: `downloader_id_not_found`,
  /// `download_id_ambiguous` (naming some that fit). A whole identifier always fits itself alone.
  std::shared_ptr<Download> findDownload(std::string_view prefix, QVErrorRef* error);

private:
  explicit DownloadManager(std::shared_ptr<HostEnvironment> environment);
  const std::shared_ptr<ManagerState> _state;
};

} // namespace halvix
