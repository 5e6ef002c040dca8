#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVDownloadTypes.h"

#include "platform/concurrency/OrderedRecursiveMutex.h"
#include "platform/foundation/Error.h"
#include "platform/transfer/URLRequest.h"
#include "platform/transfer/URLSession.h"

#include <any>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

class QVDownloadController;
class QVMovie;
class QVMovieDownloadSetDelegate;
class QVMutableMovieDownloadProperties;
class QVPlaylist;
class QVQuality;
class QVQualityDownloadInfo;
class QVResourceDownloadInfo;
class QVResourceId;

/// One movie's download: which qualities are wanted, which are on disk, and the run that fetches the former.
///
/// Made by the downloader, which owns it; whoever holds it may use it from any thread. Queries hold the set's
/// recursive lock (rank 2). Everything that changes the set holds the downloader's lock (rank 1) before it:
/// the delegate is told under the downloader's lock alone, and may therefore turn to the downloader and to
/// other sets.
///
/// Misuse raises a `platform::Exception` "QVMovieDownloadSetException": a quality of another movie ("Quality
/// not available in movie"), a media type outside video, audio and text ("Quality has invalid media type"),
/// and what single operations name.
class QVMovieDownloadSet : public std::enable_shared_from_this<QVMovieDownloadSet> {
public:
  /// A set for the playlist's first movie, after a look at what is on disk: complete qualities count as
  /// downloaded, begun ones are selected. Writes the properties file unless there is one. Null when the
  /// playlist has no movie; what the resource list builders raise goes through.
  static std::shared_ptr<QVMovieDownloadSet>
  downloadSetWithPlaylist(std::shared_ptr<QVPlaylist> playlist, const std::string& downloadPath,
                          const std::string& manifestName, const std::string& sourceURL,
                          const std::string& downloadId, std::weak_ptr<QVDownloadController> controller);

  const std::shared_ptr<QVPlaylist>& playlist() const { return _playlist; }
  const std::shared_ptr<QVMovie>& movie() const { return _movie; }
  const std::string& downloadPath() const { return _downloadPath; } ///< the set's directory
  const std::string& sourceURL() const { return _sourceURL; }       ///< the manifest's URL
  const std::string& baseURL() const { return _baseURL; }           ///< the manifest's URL up to its last "/"
  const std::string& downloadId() const { return _downloadId; }
  /// The properties file; null when the one on disk cannot be used.
  const std::shared_ptr<QVMutableMovieDownloadProperties>& properties() const { return _properties; }

  std::string uuid() const; ///< the download id until it is replaced
  void setUuid(std::string uuid);
  std::any userObject() const; ///< free for the caller
  void setUserObject(std::any object);
  std::shared_ptr<QVMovieDownloadSetDelegate> delegate() const;
  void setDelegate(std::weak_ptr<QVMovieDownloadSetDelegate> delegate);
  std::optional<platform::HTTPHeaders> additionalHeaders() const;
  /// Headers of this set's requests from the next start on.
  void setAdditionalHeaders(std::optional<platform::HTTPHeaders> headers);
  std::size_t parallelDownloads() const; ///< 4 at first
  /// Most resources of one quality to be fetched at once, from the next start on.
  void setParallelDownloads(std::size_t limit);

  // Queries
  QVDownloadStatus status() const;
  bool isQualitySelected(const std::shared_ptr<QVQuality>& quality) const;
  bool isQualityDownloaded(const std::shared_ptr<QVQuality>& quality) const;
  std::size_t numberOfSelectedQualities() const;
  std::size_t numberOfDownloadedQualities() const;
  /// In the order of selection and of completion; nothing rather than an empty list.
  std::optional<std::vector<std::shared_ptr<QVQuality>>> selectedQualities() const;
  std::optional<std::vector<std::shared_ptr<QVQuality>>> downloadedQualities() const;
  /// The schedulers themselves. They have no lock: only for a caller that knows that nothing runs.
  std::vector<std::shared_ptr<QVQualityDownloadInfo>> selectedQualitiesInfo() const;
  std::vector<std::shared_ptr<QVQualityDownloadInfo>> downloadedQualitiesInfo() const;

  /// Plain sum over the selected qualities, always an estimate; an unknown size counts -1.
  QVDownloadSize expectedBytes() const;
  QVDownloadSize selectedSize() const { return expectedBytes(); }
  QVDownloadSize totalSize() const; ///< all qualities; unknown when one is
  std::int64_t downloadedSize() const;
  std::int64_t downloadedBytes() const; ///< bytes on disk for this set, for `progress`
  QVDownloadProgress progress() const;  ///< not clamped

  QVDownloadSize expectedBytesForQuality(const std::shared_ptr<QVQuality>& quality) const;
  std::int64_t downloadedBytesForQuality(const std::shared_ptr<QVQuality>& quality) const;
  QVDownloadProgress progressForQuality(const std::shared_ptr<QVQuality>& quality) const;

  /// The known sizes, extrapolated to all when some are unknown.
  static QVDownloadSize expectedBytesFor(const std::vector<std::shared_ptr<QVQualityDownloadInfo>>& infos);
  static std::int64_t downloadedBytesFor(const std::vector<std::shared_ptr<QVQualityDownloadInfo>>& infos);

  // Selection. While a run is active these raise "Can't select quality in non-idle state", "Can't deselect
  // quality in non-idle state", "Can't remove quality in non-idle state" and "Can't remove qualities in
  // non-idle state". A quality that is selected or downloaded already stays as it is.
  void selectQuality(const std::shared_ptr<QVQuality>& quality);
  void selectAllQualities();
  void deselectQuality(const std::shared_ptr<QVQuality>& quality);
  void deselectAllQualities();
  /// Deletes the files that are there. The quality no longer counts as downloaded, even when one could not be
  /// deleted and
  /// "Failed to remove all resource files for quality" is raised.
  void removeDownloadedQuality(const std::shared_ptr<QVQuality>& quality);
  void removeAllDownloadedQualities(); ///< "Failed to remove all resource files for all qualities"

  // Commands
  /// Starts a run over the selected qualities. The set's own headers win over `headers`. False when a run is
  /// active or nothing is there to fetch.
  bool downloadWithAdditionalHeaders(const std::optional<platform::HTTPHeaders>& headers);
  void pause();
  void resume();
  void cancel();

  // Calls from the downloader
  /// Takes over a task of an earlier process; false when nobody wants it. Tells the delegate nothing.
  bool reattachResource(const QVResourceId& resourceId, const platform::DownloadTaskRef& task);
  void resourceBytesDownloaded(const std::shared_ptr<QVResourceDownloadInfo>& resource, std::int64_t bytes,
                               std::int64_t expected);
  void resourceCompleteWithError(const std::shared_ptr<QVResourceDownloadInfo>& resource,
                                 const platform::ErrorRef& error);

  /// Counts everything again, the qualities included, in linear time: the first counter that is wrong, or
  /// nothing. Debug builds call it where a run starts and ends.
  std::string _checkCounters() const;

private:
  struct Passkey {
    explicit Passkey() = default;
  };

public:
  QVMovieDownloadSet(Passkey, std::shared_ptr<QVPlaylist> playlist, const std::string& downloadPath,
                     const std::string& manifestName, const std::string& sourceURL,
                     const std::string& downloadId, std::weak_ptr<QVDownloadController> controller);
  ~QVMovieDownloadSet();

private:
  friend class QVMovieDownloader;
  using InfoRef = std::shared_ptr<QVQualityDownloadInfo>;
  using InfoList = std::vector<InfoRef>;

  /// Holds what an operation that changes the set needs: the set itself, the downloader with its lock.
  class Change;

  void _fill(const std::string& manifestName);
  void _recognisePreloadedFiles();
  void _resourceCompleteWithBytesPreloaded(const InfoRef& info,
                                           const std::shared_ptr<QVResourceDownloadInfo>& resource,
                                           std::int64_t bytes);

  // The set's lock is held:
  const InfoRef& _infoForQuality(const std::shared_ptr<QVQuality>& quality) const;
  bool _isSelected(const InfoRef& info) const;
  bool _isDownloaded(const InfoRef& info) const;
  void _requireIdle(const char* reason) const;
  std::int64_t& _counterForQuality(const QVQuality& quality);
  void _selectQuality(const InfoRef& info);
  void _deselectQuality(const InfoRef& info);
  bool _removeDownloadedQuality(const InfoRef& info);
  void _noteCompletion(const QVQualityDownloadInfo& info, std::int64_t by);
  QVDownloadSize _expectedBytes() const;
  QVDownloadProgress _progress() const;
  void _updateExpected(const QVDownloadSize& from, const QVDownloadSize& to);
  void _updateDownloaded(std::int64_t from, std::int64_t to);
  platform::ErrorRef _makeError() const;
  void _finishRun();
  void _assertCounters() const;

  /// Without the set's lock. The delegate is looked up again for each call.
  template <class Call> void _tell(Call&& call);

  const std::shared_ptr<QVPlaylist> _playlist;
  const std::shared_ptr<QVMovie> _movie;
  const std::string _downloadPath;
  const std::string _sourceURL;
  const std::string _baseURL;
  const std::string _downloadId;
  const std::weak_ptr<QVDownloadController> _controller;
  std::shared_ptr<QVMutableMovieDownloadProperties> _properties;

  mutable platform::OrderedRecursiveMutex _lock{2, "download set"};
  InfoList _infos; ///< of all qualities, in the movie's order
  std::unordered_map<const QVQuality*, InfoRef> _qualityInfoMap;
  InfoList _selectedQualitiesInfo;
  InfoList _downloadedQualitiesInfo;
  std::int64_t _numVideoQualities = 0; // of the selected ones, as the next two
  std::int64_t _numAudioQualities = 0;
  std::int64_t _numTextQualities = 0;
  std::int64_t _numSized = 0;
  std::int64_t _numEstimated = 0;
  bool _estimated = false;
  std::int64_t _numActive = 0;    ///< started and not finished
  std::int64_t _numRunning = 0;   ///< of those, not paused
  std::int64_t _numCompleted = 0; ///< selected ones that are finished
  std::int64_t _numFailed = 0;    ///< of those, failed
  std::int64_t _sizedBytes = 0;
  /// Starts anew at the end of a run; below 0 once a quality that failed in it is deselected.
  std::int64_t _downloadedBytes = 0;
  std::int64_t _downloadedBytesBase = 0; ///< what is in it besides the selected qualities; for the recount
  std::optional<platform::HTTPHeaders> _additionalHeaders;
  std::size_t _parallelDownloads = 4;
  std::weak_ptr<QVMovieDownloadSetDelegate> _delegate;
  std::any _userObject;
  std::string _uuid;
};
