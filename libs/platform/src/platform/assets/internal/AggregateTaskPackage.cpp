// What a task's package holds and claims, and what its delegate is told of that.
#include "platform/assets/internal/AggregateTask.h"

#include "platform/assets/internal/AssetErrors.h"
#include "platform/assets/internal/DownloadSession.h"
#include "platform/foundation/FileManager.h"

#include <algorithm>
#include <set>

namespace platform::assets {

ErrorRef AggregateTask::openPackage() {
  const auto session = _weakSession.lock();
  if (!session)
    return cancelledError(_asset->url().absoluteString());
  const std::lock_guard writing(_writing);
  if (!_mayWrite)
    return cancelledError(_asset->url().absoluteString());
  ErrorRef error;
  _package = Package::open(session->options().directory, _asset->url().absoluteString(), error);
  if (!_package)
    return error;
  const std::string path = _package->path();
  {
    const std::lock_guard lock(_mutex);
    _location = path;
  }
  session->tell([session, self = shared_from_this(), path](AssetDownloadDelegate& delegate) {
    delegate.URLSessionAggregateAssetDownloadTaskWillDownloadTo(*session, self, path);
  });
  if ((error = _package->writeState(packageState(false))))
    return error;
  if (_artwork && (error = _package->write(
                       "artwork", {reinterpret_cast<const char*>(_artwork->data()), _artwork->size()})))
    return error;
  std::int64_t held = 0;
  for (auto& stream : _streams.streams) {
    StreamPlan& plan = *stream.plan;
    if ((error = _package->makeDirectory(plan.directory())))
      return error;
    auto files = _package->files(plan.directory());
    std::erase_if(files, [](const auto& file) { return file.first == mediaPlaylistName; });
    _strays.push_back(plan.adopt(files));
    held += plan.doneBytes();
    _duration = std::max(_duration, plan.duration());
    _loadedChanged |= plan.doneCount() > 0;
  }
  if ((error = _package->sync(".")))
    return error;
  _received = held;
  _written.assign(_streams.streams.size(), 0);
  _newest = {0, 0};
  return nullptr;
}

// Playlists are written when they can list twice as much as before, and at every stop: often enough, and
// never more work than the download itself.
ErrorRef AggregateTask::checkpoint(bool all) {
  bool listed = false;
  for (std::size_t i = 0; i < _streams.streams.size(); ++i) {
    StreamPlan& plan = *_streams.streams[i].plan;
    if (!all && plan.doneCount() < 2 * _written[i] + 16)
      continue;
    const std::size_t segments = plan.playableSegments();
    if (segments == 0 || segments == _written[i] || (!all && segments < 2 * _written[i] + 16))
      continue;
    if (auto error = _package->sync(plan.directory()))
      return error;
    if (auto error =
            _package->write(plan.directory() + "/" + mediaPlaylistName, localMediaPlaylist(plan, segments)))
      return error;
    listed |= _written[i] == 0;
    _written[i] = segments;
  }
  return listed ? writeMaster() : nullptr;
}

ErrorRef AggregateTask::writeMaster() {
  std::vector<LocalStream> local;
  std::int64_t bandwidth = 0;
  bool hasVariant = false;
  for (std::size_t i = 0; i < _streams.streams.size(); ++i) {
    if (_written[i] == 0)
      continue;
    const auto& stream = _streams.streams[i];
    const double seconds = stream.plan->startOf(_written[i]);
    if (seconds > 0)
      bandwidth += static_cast<std::int64_t>(static_cast<double>(stream.plan->doneBytes()) * 8 / seconds);
    for (const Rendition* rendition : stream.renditions) {
      local.push_back({rendition, stream.plan->directory() + "/" + mediaPlaylistName});
      hasVariant |= !rendition;
    }
  }
  for (const Rendition* rendition : _streams.withoutPlaylist)
    local.push_back({rendition, ""});
  if (!hasVariant)
    return nullptr;
  const Playlist& playlist = *_streams.model->playlist;
  return _package->write(masterPlaylistName, localMasterPlaylist(playlist.isMaster() ? &playlist : nullptr,
                                                                 _streams.variant, local, bandwidth));
}

PackageState AggregateTask::packageState(bool complete) const {
  PackageState state;
  state.url = _asset->url().absoluteString();
  state.title = _title;
  state.complete = complete;
  state.wish = _streams.wish;
  if (const auto session = _weakSession.lock(); session && !complete) {
    state.session = session->identifier();
    state.task = _identifier;
  }
  for (const auto& stream : _streams.streams) {
    const Rendition* rendition = stream.renditions.front();
    state.streams.push_back({stream.plan->directory(), nameOf(stream.kind),
                             rendition ? std::string(rendition->name) : "",
                             rendition ? std::string(rendition->language) : "",
                             complete && stream.plan->isComplete(), stream.plan->doneBytes()});
  }
  return state;
}

/// With `_writing` held: a task that has ended is not listed again by a later process. When that cannot be
/// written it is, which does no harm.
void AggregateTask::leaveSession() {
  std::string path;
  {
    const std::lock_guard lock(_mutex);
    path = _location.empty() ? _restoredPackage : _location;
  }
  const auto session = _weakSession.lock();
  auto state = path.empty() || !session ? std::nullopt : readPackageState(path);
  if (!state || state->session != session->identifier() || state->task != _identifier)
    return;
  state->session.clear();
  writePackageState(path, *state);
}

void AggregateTask::complete() {
  ErrorRef error;
  {
    const std::lock_guard writing(_writing);
    if (!_mayWrite) {
      error = cancelledError(_asset->url().absoluteString());
    } else {
      error = checkpoint(true);
      if (!error)
        error = writeMaster();
      if (!error)
        error = _package->writeState(packageState(true));
      if (!error) {
        std::vector<std::string> keep{masterPlaylistName, PackageState::fileName};
        if (_artwork)
          keep.push_back("artwork");
        for (std::size_t i = 0; i < _streams.streams.size(); ++i) {
          const StreamPlan& plan = *_streams.streams[i].plan;
          const std::string& directory = plan.directory();
          keep.push_back(directory);
          // A damaged file was fetched again under the name that it had.
          std::set<std::string> now;
          for (std::size_t r = 0; !_strays[i].empty() && r < plan.resources().size(); ++r)
            now.insert(plan.fileName(r));
          std::erase_if(_strays[i], [&](const std::string& name) { return now.contains(name); });
          for (const auto& name : _strays[i])
            FileManager::removeItemAtPath(_package->pathOf(directory + "/" + name));
        }
        _package->removeOthers(keep);
      }
    }
  }
  end(error);
}

// ---- What is told of it

void AggregateTask::noteLoaded(const StreamPlan& plan, std::size_t resource) {
  const std::size_t segment = plan.resources()[resource].firstSegment;
  _newest = {plan.startOf(segment), plan.startOf(segment + 1) - plan.startOf(segment)};
  _loadedChanged = true;
}

void AggregateTask::reportLoaded() {
  if (!_loadedChanged || _loadedPosted || _phase == Phase::Ended)
    return;
  postLoaded(false);
}

void AggregateTask::postLoaded(bool last) {
  const auto session = _weakSession.lock();
  if (!session)
    return;
  _loadedChanged = false;
  _loadedPosted = true;
  const TimeRange expected{0, _duration};
  auto loaded = last ? std::vector{expected} : loadedRanges();
  const auto selection = _selections.empty() ? _asset->preferredMediaSelection() : _selections.front();
  session->tell([session, self = shared_from_this(), newest = _newest, loaded = std::move(loaded), expected,
                 selection](AssetDownloadDelegate& delegate) {
    delegate.URLSessionAggregateAssetDownloadTaskDidLoad(*session, self, newest, loaded, expected, selection);
  });
  // One event on its way at a time; what arrives meanwhile waits for the next.
  session->onDelegateQueue([self = shared_from_this()] {
    self->_work->async([self] {
      self->_loadedPosted = false;
      self->reportLoaded();
    });
  });
}

std::vector<TimeRange> AggregateTask::loadedRanges() const {
  using Spans = std::vector<std::pair<double, double>>;
  Spans common{{0, _duration}};
  for (const auto& stream : _streams.streams) {
    const StreamPlan& plan = *stream.plan;
    Spans own;
    for (const auto& [first, end] : plan.loaded().spans())
      own.emplace_back(plan.startOf(first), plan.startOf(end));
    // A stream that is shorter than the others lacks nothing behind its end.
    if (plan.duration() < _duration) {
      if (!own.empty() && own.back().second >= plan.duration())
        own.back().second = _duration;
      else
        own.emplace_back(plan.duration(), _duration);
    }
    Spans both;
    for (std::size_t a = 0, b = 0; a < common.size() && b < own.size();) {
      const double from = std::max(common[a].first, own[b].first);
      const double to = std::min(common[a].second, own[b].second);
      if (to > from)
        both.emplace_back(from, to);
      common[a].second < own[b].second ? ++a : ++b;
    }
    common = std::move(both);
  }
  std::vector<TimeRange> ranges;
  for (const auto& [from, to] : common)
    ranges.push_back({from, to - from});
  return ranges;
}

} // namespace platform::assets
