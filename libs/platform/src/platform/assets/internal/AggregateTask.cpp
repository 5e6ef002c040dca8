#include "platform/assets/internal/AggregateTask.h"

#include "platform/assets/internal/AssetErrors.h"
#include "platform/assets/internal/DownloadSession.h"
#include "platform/foundation/FileManager.h"

#include <algorithm>

namespace platform::assets {

namespace {

constexpr const char* goOnAdvice = "What was fetched is kept; start the download again to go on";

} // namespace

AggregateTask::AggregateTask(std::shared_ptr<DownloadSession> session, std::uint64_t identifier,
                             std::shared_ptr<HLSAsset> asset, std::vector<MediaSelection> selections,
                             std::string title, DataRef artwork, TaskOptions options)
    : _identifier(identifier), _asset(asset), _assetFace(std::move(asset)),
      _selections(std::move(selections)), _title(std::move(title)), _artwork(std::move(artwork)),
      _options(options), _work(session->work()), _weakSession(session) {}

// ---- Commands

URLSessionTaskState AggregateTask::state() const {
  const std::lock_guard lock(_mutex);
  return _ended                         ? URLSessionTaskState::Completed
         : _wanted == Wanted::Cancelled ? URLSessionTaskState::Canceling
         : _wanted == Wanted::Running   ? URLSessionTaskState::Running
                                        : URLSessionTaskState::Suspended;
}

ErrorRef AggregateTask::error() const {
  const std::lock_guard lock(_mutex);
  return _error;
}

std::string AggregateTask::location() const {
  const std::lock_guard lock(_mutex);
  return _location;
}

void AggregateTask::command(Wanted wanted) {
  {
    const std::lock_guard lock(_mutex);
    if (_ended || _wanted == Wanted::Cancelled || _wanted == wanted)
      return;
    _wanted = wanted;
    if (!_session)
      _session = _weakSession.lock();
  }
  _work->async([self = shared_from_this()] { self->pump(); });
}

void AggregateTask::resume() {
  command(Wanted::Running);
}

void AggregateTask::suspend() {
  command(Wanted::Suspended);
}

void AggregateTask::cancel() {
  {
    const std::lock_guard lock(_writing);
    if (std::exchange(_mayWrite, false))
      leaveSession();
  }
  command(Wanted::Cancelled);
}

// ---- The engine

void AggregateTask::pump() {
  Wanted wanted;
  {
    const std::lock_guard lock(_mutex);
    if (_ended)
      return;
    wanted = _wanted;
    if (wanted == Wanted::Running && (!_session || _session->isInvalidated()))
      wanted = Wanted::Cancelled;
  }
  if (wanted == Wanted::Cancelled && !_failure)
    _failure = cancelledError(_asset->url().absoluteString());
  if (_failure) {
    abortTransfers();
    if (_flights.empty())
      end(_failure);
    return;
  }
  if (wanted == Wanted::Suspended) {
    suspendTransfers();
    return;
  }
  resumeTransfers();
  switch (_phase) {
  case Phase::New:
    load();
    break;
  case Phase::Loaded:
    prepare();
    break;
  case Phase::Fetching:
    fill();
    break;
  case Phase::LoadingAsset:
  case Phase::LoadingPlaylists:
  case Phase::Ended:
    break;
  }
}

void AggregateTask::fail(ErrorRef error) {
  if (!_failure)
    _failure = std::move(error);
}

void AggregateTask::load() {
  _phase = Phase::LoadingAsset;
  _asset->loadValuesAsynchronouslyForKeys(
      {"tracks"}, [self = shared_from_this()] { self->_work->async([self] { self->assetLoaded(); }); });
}

void AggregateTask::assetLoaded() {
  if (_phase != Phase::LoadingAsset)
    return;
  const auto model = _asset->model();
  if (!model) {
    ErrorRef error;
    _asset->statusOfValueForKey("tracks", &error);
    fail(error ? error : cancelledError(_asset->url().absoluteString()));
  } else {
    auto wish = _restoredWish ? *_restoredWish : model->wish(_selections, _options.minimumBitrate);
    if (auto error = Streams::choose(model, std::move(wish), _streams))
      fail(std::move(error));
    else
      fetchPlaylists();
  }
  pump();
}

void AggregateTask::fetchPlaylists() {
  _phase = Phase::LoadingPlaylists;
  const auto session = _weakSession.lock();
  for (std::size_t i = 0; session && i < _streams.streams.size(); ++i) {
    auto& stream = _streams.streams[i];
    if (stream.playlist)
      continue;
    ++_playlistsPending;
    _playlistTasks.push_back(fetchPlaylist(
        *session->transfers(), *stream.url, _asset->headers(), _streams.model->playlist->variables(),
        std::string("The ") + nameOf(stream.kind) + " playlist",
        [self = shared_from_this(), i](PlaylistRef playlist, ErrorRef error) {
          if (self->_phase != Phase::LoadingPlaylists)
            return;
          self->_streams.streams[i].playlist = std::move(playlist);
          if (error)
            self->fail(std::move(error));
          if (--self->_playlistsPending == 0)
            self->_phase = Phase::Loaded;
          self->pump();
        }));
  }
  if (_playlistsPending == 0)
    _phase = Phase::Loaded;
}

void AggregateTask::prepare() {
  _playlistTasks.clear();
  auto error = _streams.plan();
  if (!error)
    error = openPackage();
  if (error)
    fail(std::move(error));
  else
    _phase = Phase::Fetching;
  pump();
}

// ---- Transfers

void AggregateTask::fill() {
  const auto session = _weakSession.lock();
  if (session && !session->leftTransfers().areKnown())
    return; // the session pumps when they are
  const int wanted =
      _options.maximumTransfers.value_or(session ? session->options().maximumTransfersPerPackage : 1);
  const auto most = static_cast<std::size_t>(std::max(wanted, 1));
  reportLoaded();
  while (!_failure && _flights.size() < most) {
    // What is played first is fetched first, over all streams.
    std::optional<std::size_t> best, resource;
    double earliest = 0;
    for (std::size_t i = 0; i < _streams.streams.size(); ++i) {
      StreamPlan& plan = *_streams.streams[i].plan;
      const auto next = plan.nextMissing();
      if (next && (!best || plan.startOfResource(*next) < earliest)) {
        best = i, resource = next;
        earliest = plan.startOfResource(*next);
      }
    }
    if (!best)
      break;
    _streams.streams[*best].plan->take();
    start(*best, *resource);
  }
  if (_failure)
    pump();
  else if (_flights.empty())
    complete();
}

void AggregateTask::start(std::size_t streamIndex, std::size_t index) {
  const auto session = _weakSession.lock();
  const StreamPlan& plan = *_streams.streams[streamIndex].plan;
  const PlannedResource& resource = plan.resources()[index];
  const auto url = plan.url(index);
  Flight flight;
  flight.stream = streamIndex;
  flight.resource = index;
  if (!url || !session) {
    fail(resourceError(flight, "it has no address that can be fetched", "Check the playlist"));
    return;
  }
  const auto description = LeftTransfers::description(_package->path(), plan.directory(), resource.identity);
  if (const auto left = session->leftTransfers().take(description)) {
    flight.task = left->task;
    if (!left->body.empty()) {
      placeLeft(std::move(flight), left->body);
      return;
    }
  } else {
    auto request = requestWith(*url, _asset->headers());
    if (resource.bytes.length >= 0)
      request.setValueForHTTPHeaderField(
          "bytes=" + std::to_string(resource.bytes.offset) + "-" +
              std::to_string(resource.bytes.offset + resource.bytes.length - 1),
          "Range");
    flight.task = session->transfers()->downloadTaskWithRequest(request);
    flight.task->setTaskDescription(description);
  }
  const auto task = flight.task;
  session->attach(task, shared_from_this());
  _flights.emplace(task->taskIdentifier(), std::move(flight));
  task->resume();
}

// It ended before anybody asked for it.
void AggregateTask::placeLeft(Flight flight, const std::string& body) {
  const auto identifier = flight.task->taskIdentifier();
  _flights.emplace(identifier, std::move(flight));
  didFinish(identifier, body);
  FileManager::removeItemAtPath(body); // one that was not taken
  _work->async([self = shared_from_this(), identifier] { self->didComplete(identifier, nullptr); });
}

bool AggregateTask::keepBody(const std::string& file, const std::string& to) {
  const std::lock_guard writing(_writing);
  return _mayWrite && !FileManager::moveItemAtPathUnsynced(file, to);
}

void AggregateTask::checkHead(Flight& flight) {
  const auto response = flight.task->response();
  const Bytes& bytes = _streams.streams[flight.stream].plan->resources()[flight.resource].bytes;
  if (flight.problem || !response || bytes.length < 0 || response->statusCode() != 200)
    return;
  // The whole file in answer to a piece of it; there is no use in waiting for its end.
  if (bytes.offset == 0 && flight.task->countOfBytesExpectedToReceive() == bytes.length)
    return;
  flight.problem = resourceError(flight, "the server does not serve byte ranges, which the playlist asks for",
                                 "Choose another quality, or ask for a server that does");
  flight.task->cancel();
}

ErrorRef AggregateTask::checkBody(const Flight& flight, std::int64_t size) const {
  const auto response = flight.task->response();
  const int status = response ? response->statusCode() : 0;
  const PlannedResource& resource = _streams.streams[flight.stream].plan->resources()[flight.resource];
  // 206 also ends a transfer that went on where an earlier one had stopped.
  if (status != 200 && status != 206)
    return resourceError(flight, "the server answered " + statusText(status), goOnAdvice);
  if (resource.bytes.length >= 0 && size != resource.bytes.length)
    return resourceError(flight,
                         "the server sent " + std::to_string(size) + " bytes where the playlist names " +
                             std::to_string(resource.bytes.length),
                         "Check whether the content was changed while it was fetched, then try again");
  if (resource.kind == ResourceKind::Key && (size == 0 || size > 4096))
    return resourceError(flight, "what the server sent is no key (" + std::to_string(size) + " bytes)",
                         goOnAdvice);
  return nullptr;
}

ErrorRef AggregateTask::resourceError(const Flight& flight, const std::string& why,
                                      const std::string& advice) const {
  const StreamPlan& plan = *_streams.streams[flight.stream].plan;
  const PlannedResource& resource = plan.resources()[flight.resource];
  const auto url = plan.url(flight.resource);
  const std::string segment =
      "segment " + std::to_string(resource.firstSegment + 1) + " of the " + nameOf(plan.kind());
  const std::string what = resource.kind == ResourceKind::Key   ? "The key of " + segment
                           : resource.kind == ResourceKind::Map ? "The initialization section of " + segment
                                                                : "S" + segment.substr(1);
  return assetError(AVErrorContentIsUnavailable, what,
                    url ? url->absoluteString() : std::string(resource.reference), why, advice);
}

void AggregateTask::didWrite(std::uint64_t transfer, std::int64_t total) {
  const auto found = _flights.find(transfer);
  if (found == _flights.end())
    return;
  Flight& flight = found->second;
  _received += total - flight.received;
  flight.received = total;
  checkHead(flight);
}

void AggregateTask::didFinish(std::uint64_t transfer, const std::string& file) {
  const auto found = _flights.find(transfer);
  if (found == _flights.end())
    return;
  Flight& flight = found->second;
  const auto attributes = FileManager::attributesOfItemAtPath(file);
  const std::int64_t size = attributes ? attributes->size : 0;
  if (!flight.problem)
    flight.problem = checkBody(flight, size);
  if (flight.problem)
    return;
  StreamPlan& plan = *_streams.streams[flight.stream].plan;
  {
    const std::lock_guard writing(_writing);
    if (!_mayWrite)
      return;
    flight.problem = _package->moveIn(file, plan.directory() + "/" + plan.fileName(flight.resource, size),
                                      plan.resources()[flight.resource].kind == ResourceKind::Key);
  }
  if (flight.problem)
    return;
  plan.markDone(flight.resource, size);
  _received += size - flight.received;
  flight.received = size;
  noteLoaded(plan, flight.resource);
}

void AggregateTask::didComplete(std::uint64_t transfer, const ErrorRef& error) {
  const auto found = _flights.find(transfer);
  if (found == _flights.end())
    return;
  Flight flight = std::move(found->second);
  _flights.erase(found);
  if (flight.problem || error)
    _received -= flight.received;
  if (flight.problem)
    fail(flight.problem);
  else if (error && !_aborting)
    // Its own session ends, or the service: an orderly end, not the server's fault.
    fail(error->domain() == NSURLErrorDomain && error->code() == NSURLErrorCancelled
             ? cancelledError(_asset->url().absoluteString())
             : resourceError(flight, "it cannot be fetched: " + error->localizedDescription(), goOnAdvice));
  if (!_failure && _phase == Phase::Fetching) {
    const std::lock_guard writing(_writing);
    if (_mayWrite)
      if (auto problem = checkpoint(false))
        fail(std::move(problem));
  }
  pump();
}

void AggregateTask::abortTransfers() {
  for (const auto& task : std::exchange(_playlistTasks, {}))
    task->cancel();
  if (std::exchange(_aborting, true))
    return;
  // The way of cancelling that leaves the bytes for whoever asks for them next.
  std::vector<DownloadTaskRef> tasks;
  for (const auto& [identifier, flight] : _flights)
    tasks.push_back(flight.task);
  for (const auto& task : tasks)
    task->cancelByProducingResumeData([](const DataRef&) {});
}

void AggregateTask::suspendTransfers() {
  if (std::exchange(_transfersSuspended, true) || _phase != Phase::Fetching)
    return;
  for (const auto& [identifier, flight] : _flights)
    flight.task->suspend();
  const std::lock_guard writing(_writing);
  if (_mayWrite)
    checkpoint(true); // a failure comes again when it counts
}

void AggregateTask::resumeTransfers() {
  if (!std::exchange(_transfersSuspended, false))
    return;
  for (const auto& [identifier, flight] : _flights)
    flight.task->resume();
}

void AggregateTask::end(const ErrorRef& error) {
  if (error) {
    const std::lock_guard writing(_writing);
    if (_mayWrite && _phase == Phase::Fetching)
      checkpoint(true); // the error that is reported is the one that led here
    // One that is cancelled here ends with its session, and comes again with it.
    if (_mayWrite && error->code() != NSURLErrorCancelled)
      leaveSession();
  }
  _phase = Phase::Ended;
  const auto session = _weakSession.lock();
  if (session && !error)
    postLoaded(true);
  if (session)
    session->leftTransfers().drop(_package ? _package->path() : _restoredPackage, error != nullptr);
  {
    const std::lock_guard writing(_writing);
    _package.reset();
  }
  std::shared_ptr<DownloadSession> last; // released outside the lock
  {
    const std::lock_guard lock(_mutex);
    _ended = true;
    _error = error;
    last = std::move(_session);
  }
  if (!session)
    return;
  session->tell([session, self = shared_from_this(), error](AssetDownloadDelegate& delegate) {
    delegate.URLSessionTaskDidCompleteWithError(*session, self, error);
  });
  session->forget(*this);
}

} // namespace platform::assets
