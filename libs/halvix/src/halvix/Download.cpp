#include "halvix/Download.h"

#include "halvix/DownloadHub.h"
#include "halvix/DownloadRecord.h"
#include "halvix/DownloaderDispatcher.h"
#include "halvix/ErrorDescription.h"
#include "halvix/RecordText.h"
#include "halvix/Utils.h"

#include <chrono>
#include <utility>

namespace halvix {

namespace {

std::int64_t nowMilliseconds() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

DownloadProgress storedProgress(const DownloadRecord& record) {
  return DownloadProgress()
      .copyWithExpectedContentSize(record.expectedContentSize)
      .copyWithDownloadedContentSize(record.downloadedContentSize)
      .copyWithExpectedContentDuration(record.expectedContentDuration)
      .copyWithDownloadedContentDuration(record.downloadedContentDuration)
      .copyWithProgress(record.progress);
}

constexpr int defaultConcurrentTransfers = 4;

} // namespace

Download::Download(DownloadRecord record, std::shared_ptr<DownloadHub> hub, bool stored)
    : _uuid(record.uuid), _downloaderName(record.downloader),
      _createdMs(record.createdMs ? record.createdMs : nowMilliseconds()), _hub(std::move(hub)),
      _record(std::make_unique<DownloadRecord>(std::move(record))), _progress(storedProgress(*_record)),
      _provisional(!stored), _interruptedAtLoad(stored && _record->state == DownloadState::running) {
  _record->createdMs = _createdMs;
}

Download::~Download() = default;

void Download::changedLocked() {
  if (_changed || _removed)
    return;
  _changed = true;
  if (!_provisional)
    _hub->noteChanged(weak_from_this());
}

PlayerConfiguration Download::playerConfiguration() const {
  std::lock_guard lock(_mutex);
  return {_record->contentUrl, _record->contentType, _record->title};
}

std::string Download::contentUrl() const {
  std::lock_guard lock(_mutex);
  return _record->contentUrl;
}

std::optional<ContentType> Download::contentType() const {
  std::lock_guard lock(_mutex);
  return _record->contentType;
}

std::string Download::title() const {
  std::lock_guard lock(_mutex);
  return _record->title;
}

void Download::setTitle(std::string title) {
  std::lock_guard lock(_mutex);
  if (_record->title == title)
    return;
  _record->title = std::move(title);
  changedLocked();
}

DownloadState Download::state() const {
  std::lock_guard lock(_mutex);
  return _record->state;
}

void Download::setState(DownloadState state) {
  std::lock_guard order(_eventMutex);
  {
    std::lock_guard lock(_mutex);
    if (_record->state == state && !_interruptedAtLoad)
      return;
    _interruptedAtLoad = false;
    _record->state = state;
    if (state == DownloadState::running || state == DownloadState::success) {
      _lastError.reset();
      _record->lastErrorText.clear();
    }
    _finishedEventDue = state == DownloadState::success;
    if (isFinal(state) || state == DownloadState::idle)
      _started = false;
    if (_provisional && state != DownloadState::idle) {
      _provisional = false;
      _changed = false; // whatever changed before was never noted with the hub
    }
    changedLocked();
  }
  if (auto dispatcher = _hub->dispatcher())
    dispatcher->dispatchDownloadStateChanged(shared_from_this(), state);
}

bool Download::interruptedAtLoad() const {
  std::lock_guard lock(_mutex);
  return _interruptedAtLoad;
}

DownloadProgress Download::progress() const {
  std::lock_guard lock(_mutex);
  return _progress;
}

void Download::setProgress(DownloadProgress progress) {
  {
    std::lock_guard lock(_mutex);
    std::swap(_progress, progress); // the old one ends after the lock
    if (_progressEventPending)
      return;
  }
  if (auto dispatcher = _hub->dispatcher())
    dispatcher->dispatchDownloadProgress(shared_from_this());
}

std::shared_ptr<const Tracks> Download::tracks() const {
  std::lock_guard lock(_mutex);
  return _tracks;
}

std::vector<VideoTrack> Download::videoTracks() const {
  auto tracks = this->tracks();
  return tracks ? tracks->video : std::vector<VideoTrack>();
}

std::vector<AudioTrack> Download::audioTracks() const {
  auto tracks = this->tracks();
  return tracks ? tracks->audio : std::vector<AudioTrack>();
}

std::vector<TextTrack> Download::textTracks() const {
  auto tracks = this->tracks();
  return tracks ? tracks->text : std::vector<TextTrack>();
}

void Download::setTracks(Tracks tracks) {
  auto shared = std::make_shared<const Tracks>(std::move(tracks));
  std::lock_guard lock(_mutex);
  _tracks.swap(shared);
}

std::shared_ptr<const Selection> Download::storedSelectionLocked() const {
  if (!_selection)
    _selection =
        std::make_shared<const Selection>(Selection::deserialized(_record->selection).value_or(Selection()));
  return _selection;
}

Selection Download::selection() const {
  std::shared_ptr<const Selection> stored;
  std::shared_ptr<const Tracks> offered;
  {
    std::lock_guard lock(_mutex);
    stored = storedSelectionLocked();
    offered = _tracks;
  }
  return offered ? stored->matchedAgainst(*offered) : *stored;
}

std::vector<VideoRendition> Download::selectedVideoRenditions() const {
  return selection().video;
}
std::vector<AudioRendition> Download::selectedAudioRenditions() const {
  return selection().audio;
}
std::vector<TextTrack> Download::selectedTextTracks() const {
  return selection().text;
}

void Download::setSelectionLocked(Selection selection) {
  std::string text = selection.serialized();
  _selection = std::make_shared<const Selection>(std::move(selection));
  if (_record->hasSelection && _record->selection == text)
    return;
  _record->hasSelection = true;
  _record->selection = std::move(text);
  changedLocked();
}

void Download::setSelection(Selection selection) {
  std::lock_guard lock(_mutex);
  setSelectionLocked(std::move(selection));
}

bool Download::addToSelection(const Selection& selection) {
  std::lock_guard lock(_mutex);
  Selection merged = *storedSelectionLocked();
  const bool grew = merged.merge(selection);
  if (grew)
    setSelectionLocked(std::move(merged));
  return grew;
}

bool Download::hasSelection() const {
  std::lock_guard lock(_mutex);
  return _record->hasSelection;
}

std::optional<double> Download::duration() const {
  std::lock_guard lock(_mutex);
  return _duration;
}

void Download::setDuration(std::optional<double> seconds) {
  std::lock_guard lock(_mutex);
  _duration = seconds;
}

std::vector<std::string> Download::notices() const {
  std::lock_guard lock(_mutex);
  return _notices;
}

void Download::setNotices(std::vector<std::string> notices) {
  std::lock_guard lock(_mutex);
  _notices = std::move(notices);
}

std::optional<std::int64_t> Download::preferredBitrate() const {
  std::lock_guard lock(_mutex);
  return _record->preferredBitrate;
}

void Download::setPreferredBitrate(std::optional<std::int64_t> bitsPerSecond) {
  std::lock_guard lock(_mutex);
  if (_record->preferredBitrate == bitsPerSecond)
    return;
  _record->preferredBitrate = bitsPerSecond;
  changedLocked();
}

std::vector<std::string> Download::fairplayKeyURIs() const {
  std::lock_guard lock(_mutex);
  return listFromText(_record->fairplayKeyURIs);
}

void Download::setFairplayKeyURIs(std::vector<std::string> uris) {
  std::string text = listToText(uris);
  std::lock_guard lock(_mutex);
  if (_record->fairplayKeyURIs == text)
    return;
  _record->fairplayKeyURIs = std::move(text);
  changedLocked();
}

platform::HTTPHeaders Download::headers() const {
  std::lock_guard lock(_mutex);
  return headersFromText(_record->headers);
}

void Download::setHeaders(platform::HTTPHeaders headers) {
  std::string text = headersToText(headers);
  std::lock_guard lock(_mutex);
  if (_record->headers == text)
    return;
  _record->headers = std::move(text);
  changedLocked();
}

int Download::maximumConcurrentTransfers() const {
  std::lock_guard lock(_mutex);
  return _record->maximumConcurrentTransfers.value_or(defaultConcurrentTransfers);
}

bool Download::hasMaximumConcurrentTransfers() const {
  std::lock_guard lock(_mutex);
  return _record->maximumConcurrentTransfers.has_value();
}

bool Download::refusesLive() const {
  std::lock_guard lock(_mutex);
  return _refusesLive;
}

void Download::setRefusesLive(bool refuses) {
  std::lock_guard lock(_mutex);
  _refusesLive = refuses;
}

void Download::setMaximumConcurrentTransfers(int count) {
  std::lock_guard lock(_mutex);
  count = count < 1 ? 1 : count;
  if (_record->maximumConcurrentTransfers == count)
    return;
  _record->maximumConcurrentTransfers = count;
  changedLocked();
}

platform::DataRef Download::resumeData() const {
  std::lock_guard lock(_mutex);
  return _record->resumeData;
}

void Download::setResumeData(platform::DataRef data) {
  std::lock_guard lock(_mutex);
  const platform::DataRef& held = _record->resumeData;
  if (held == data || (held && data && *held == *data))
    return;
  _record->resumeData = std::move(data);
  changedLocked();
}

std::optional<std::string> Download::localRelativePath() const {
  std::lock_guard lock(_mutex);
  return _record->localRelativePath;
}

void Download::setLocalRelativePath(std::optional<std::string> path) {
  std::lock_guard lock(_mutex);
  if (_record->localRelativePath == path)
    return;
  _record->localRelativePath = std::move(path);
  changedLocked();
}

std::optional<std::string> Download::localUrl() const {
  auto path = localRelativePath();
  if (!path)
    return std::nullopt;
  // A damaged row must not lead out of the library.
  if (Utils::staysBelow(*path))
    return _hub->downloadPath() + "/" + *path;
  return std::nullopt;
}

QVErrorRef Download::lastError() const {
  std::lock_guard lock(_mutex);
  return _lastError;
}

std::string Download::lastErrorText() const {
  std::lock_guard lock(_mutex);
  return _record->lastErrorText;
}

void Download::setLastError(QVErrorRef error) {
  std::string text = describeError(error);
  std::lock_guard lock(_mutex);
  _lastError.swap(error);
  if (_record->lastErrorText == text)
    return;
  _record->lastErrorText = std::move(text);
  changedLocked();
}

std::weak_ptr<DownloadDelegate> Download::delegate() const {
  std::lock_guard lock(_mutex);
  return _delegate;
}

void Download::setDelegate(std::weak_ptr<DownloadDelegate> delegate) {
  std::lock_guard lock(_mutex);
  _delegate = std::move(delegate);
}

bool Download::isProvisional() const {
  std::lock_guard lock(_mutex);
  return _provisional;
}

void Download::keep() {
  std::lock_guard lock(_mutex);
  if (!_provisional)
    return;
  _provisional = false;
  _changed = false;
  changedLocked();
}

bool Download::hasChangedRecord() const {
  std::lock_guard lock(_mutex);
  return _changed && !_provisional && !_removed;
}

std::optional<DownloadRecord> Download::takeChangedRecord() {
  std::lock_guard lock(_mutex);
  if (!_changed || _provisional || _removed)
    return std::nullopt;
  _changed = false;
  _record->expectedContentSize = _progress.expectedContentSize();
  _record->downloadedContentSize = _progress.downloadedContentSize();
  _record->expectedContentDuration = _progress.expectedContentDuration();
  _record->downloadedContentDuration = _progress.downloadedContentDuration();
  _record->progress = _progress.progress();
  _record->updatedMs = nowMilliseconds();
  return *_record;
}

void Download::markChanged() {
  std::lock_guard lock(_mutex);
  changedLocked();
}

void Download::markRemoved() {
  std::lock_guard lock(_mutex);
  _removed = true;
}

bool Download::claimProgressEvent() {
  std::lock_guard lock(_mutex);
  return !std::exchange(_progressEventPending, true);
}

void Download::progressEventDelivered() {
  std::lock_guard lock(_mutex);
  _progressEventPending = false;
}

bool Download::claimFinishedEvent() {
  std::lock_guard lock(_mutex);
  return std::exchange(_finishedEventDue, false);
}

bool Download::isStarted() const {
  std::lock_guard lock(_mutex);
  return _started;
}

void Download::setStarted(bool started) {
  std::lock_guard lock(_mutex);
  _started = started;
}

bool Download::foundContent() const {
  std::lock_guard lock(_mutex);
  return _foundContent;
}

void Download::setFoundContent(bool found) {
  std::lock_guard lock(_mutex);
  _foundContent = found;
}

} // namespace halvix
