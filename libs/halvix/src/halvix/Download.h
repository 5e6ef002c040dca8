#pragma once

#include "halvix/DownloadProgress.h"
#include "halvix/DownloadState.h"
#include "halvix/PlayerConfiguration.h"
#include "halvix/QVError.h"
#include "halvix/Tracks.h"

#include "platform/foundation/Data.h"
#include "platform/transfer/URLRequest.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace halvix {

class DownloadDelegate;
class DownloadHub;
struct DownloadRecord;

/// One entry of the host's list of downloads.
///
/// It is shared by the downloader that works on it (session queues), the application and the main queue:
/// every operation is thread-safe and takes one short lock; what is answered is a copy. Setters send events
/// (state, progress) through the downloader's dispatcher, which only enqueues.
///
/// A changed property marks the record for the downloader's next `storeItems`. Progress does not: its
/// numbers are written along with the next change of state. A new download is provisional: it is not
/// written until its state leaves idle or `keep` is called, so a URL that cannot even be prepared leaves no
/// trace.
class Download : public std::enable_shared_from_this<Download> {
public:
  // Made by BaseDownloader; `hub` connects it to its downloader's store and dispatcher.
  Download(DownloadRecord record, std::shared_ptr<DownloadHub> hub, bool stored);
  ~Download();
  Download(const Download&) = delete;
  Download& operator=(const Download&) = delete;

  const std::string& uuid() const { return _uuid; }
  const std::string& downloaderName() const { return _downloaderName; } ///< `BaseDownloader::name`
  PlayerConfiguration playerConfiguration() const;
  std::string contentUrl() const; ///< of the player configuration
  std::optional<ContentType> contentType() const;
  std::string title() const;
  void setTitle(std::string title);
  std::int64_t createdMilliseconds() const { return _createdMs; } ///< since the epoch

  DownloadState state() const;
  /// Sends the event when it is a change. Going to running or success forgets the last error; any change ends
  /// `interruptedAtLoad`.
  void setState(DownloadState state);

  /// True from loading on while the record still has the state running of a process that is gone.
  bool interruptedAtLoad() const;

  DownloadProgress progress() const;
  /// Replaces the progress: `download->setProgress(download->progress().copyWith…(…))`, from one thread at a
  /// time. Sends a coalesced event.
  void setProgress(DownloadProgress progress);

  /// What can be chosen; null until the download was prepared in this process. Not stored.
  std::shared_ptr<const Tracks> tracks() const;
  std::vector<VideoTrack> videoTracks() const;
  std::vector<AudioTrack> audioTracks() const;
  std::vector<TextTrack> textTracks() const;
  /// Replaces the tracks.
  void setTracks(Tracks tracks);

  /// The application's choice, stored with the download. When tracks are known it is answered in their terms,
  /// what they no longer offer left out; the stored choice stays whole.
  Selection selection() const;
  std::vector<VideoRendition> selectedVideoRenditions() const;
  std::vector<AudioRendition> selectedAudioRenditions() const;
  std::vector<TextTrack> selectedTextTracks() const;
  void setSelection(Selection selection);
  /// Adds to the choice; answers whether it grew.
  bool addToSelection(const Selection& selection);
  /// True when a choice was ever made or loaded, empty or not.
  bool hasSelection() const;

  /// Seconds of play; nothing when unknown. Not stored.
  std::optional<double> duration() const;
  void setDuration(std::optional<double> seconds);

  /// Remarks of the downloader that a user should see, such as what of the content it leaves out. Not stored.
  std::vector<std::string> notices() const;
  void setNotices(std::vector<std::string> notices);

  std::optional<std::int64_t> preferredBitrate() const; ///< bits per second
  void setPreferredBitrate(std::optional<std::int64_t> bitsPerSecond);

  std::vector<std::string> fairplayKeyURIs() const;
  void setFairplayKeyURIs(std::vector<std::string> uris);

  /// Request headers of this download alone, besides those of its downloader. They may hold secrets.
  platform::HTTPHeaders headers() const;
  void setHeaders(platform::HTTPHeaders headers);

  /// Most transfers at once for each rendition; 4 unless set. For the package of an HLS download as a whole,
  /// which has 8 unless set.
  int maximumConcurrentTransfers() const;
  bool hasMaximumConcurrentTransfers() const; ///< whether it was set
  void setMaximumConcurrentTransfers(int count);

  /// Whether a presentation that is still going on is refused instead of taking what it lists at the moment;
  /// false unless set. Not stored.
  bool refusesLive() const;
  void setRefusesLive(bool refuses);

  /// Opaque bytes to go on from; null when there are none.
  platform::DataRef resumeData() const;
  void setResumeData(platform::DataRef data);

  /// Where the content is, relative to the downloader's `downloadPath`; nothing before the downloader sets
  /// it.
  std::optional<std::string> localRelativePath() const;
  void setLocalRelativePath(std::optional<std::string> path);
  /// Absolute path of the content; nothing without a relative one.
  std::optional<std::string> localUrl() const;

  /// The error of the last run; null when it had none or when only its text survived a restart.
  QVErrorRef lastError() const;
  /// One line; empty when there was no error.
  std::string lastErrorText() const;
  void setLastError(QVErrorRef error);

  /// Receives this download's events besides the listeners of the manager. Weakly held, not stored.
  std::weak_ptr<DownloadDelegate> delegate() const;
  void setDelegate(std::weak_ptr<DownloadDelegate> delegate);

  bool isProvisional() const;
  /// Makes a provisional download an ordinary one, to be written with the next `storeItems`.
  void keep();

  // For the host's own classes.
  /// The row to write; clears the mark of being changed. Nothing when unchanged, provisional or removed.
  std::optional<DownloadRecord> takeChangedRecord();
  /// Whether `takeChangedRecord` would answer one.
  bool hasChangedRecord() const;
  /// Marks it changed again after a failed write.
  void markChanged();
  /// No row is ever written for it again.
  void markRemoved();
  /// True exactly once between two calls of `progressEventDelivered`.
  bool claimProgressEvent();
  void progressEventDelivered();
  /// True exactly once for each run that ended in success.
  bool claimFinishedEvent();
  /// Whether its downloader holds a run of it in this process, which can be paused and resumed in place.
  bool isStarted() const;
  void setStarted(bool started);
  /// Whether content of it stood on disk already when the entry was made: then dropping the entry must not
  /// remove it.
  bool foundContent() const;
  void setFoundContent(bool found);

private:
  void changedLocked(); ///< caller holds _mutex
  std::shared_ptr<const Selection> storedSelectionLocked() const;
  void setSelectionLocked(Selection selection);

  const std::string _uuid;
  const std::string _downloaderName;
  const std::int64_t _createdMs;
  const std::shared_ptr<DownloadHub> _hub;

  // Held over a change of state and its event, so that events keep the order of the changes. Recursive, and
  // apart from _mutex, so that a dispatcher may look at the download.
  std::recursive_mutex _eventMutex;
  mutable std::mutex _mutex;
  std::unique_ptr<DownloadRecord> _record; // everything that is stored
  DownloadProgress _progress;
  std::shared_ptr<const Tracks> _tracks;
  mutable std::shared_ptr<const Selection> _selection; // parsed from the record when first asked for

  std::optional<double> _duration;
  std::vector<std::string> _notices;
  QVErrorRef _lastError;
  std::weak_ptr<DownloadDelegate> _delegate;
  bool _provisional;
  bool _changed = false;
  bool _removed = false;
  bool _interruptedAtLoad = false;
  bool _progressEventPending = false;
  bool _finishedEventDue = false;
  bool _started = false;
  bool _foundContent = false;
  bool _refusesLive = false;
};

} // namespace halvix
