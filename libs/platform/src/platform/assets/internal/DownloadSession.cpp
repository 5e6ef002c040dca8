#include "platform/assets/internal/DownloadSession.h"

#include "platform/assets/internal/AssetErrors.h"
#include "platform/foundation/FileManager.h"

#include <algorithm>

namespace platform {

std::shared_ptr<AssetDownloadURLSession>
AssetDownloadURLSession::sessionWithConfiguration(const URLSessionConfiguration& configuration,
                                                  AssetDownloadOptions options,
                                                  std::weak_ptr<AssetDownloadDelegate> assetDownloadDelegate,
                                                  std::shared_ptr<Queue> delegateQueue, ErrorRef* error) {
  auto session = std::make_shared<assets::DownloadSession>(
      std::move(options), std::move(assetDownloadDelegate), std::move(delegateQueue));
  const auto problem = session->open(configuration);
  if (error)
    *error = problem;
  return problem ? nullptr : session;
}

namespace assets {

namespace {

/// A number of a task's options, of either type that a caller may have put it in.
std::optional<std::int64_t> numberOf(const UserInfo& options, const char* key) {
  const auto found = options.find(key);
  if (found == options.end())
    return std::nullopt;
  if (const auto* wide = std::any_cast<std::int64_t>(&found->second))
    return *wide;
  if (const auto* narrow = std::any_cast<int>(&found->second))
    return *narrow;
  return std::nullopt;
}

TaskOptions readOptions(const UserInfo& options) {
  TaskOptions read;
  read.minimumBitrate = numberOf(options, AVAssetDownloadTaskMinimumRequiredMediaBitrateKey);
  if (const auto most = numberOf(options, AssetDownloadTaskMaximumTransfersKey))
    read.maximumTransfers = static_cast<int>(std::clamp<std::int64_t>(*most, 1, 1024));
  return read;
}

} // namespace

DownloadSession::DownloadSession(AssetDownloadOptions options, std::weak_ptr<AssetDownloadDelegate> delegate,
                                 std::shared_ptr<Queue> delegateQueue)
    : _options(std::move(options)), _delegate(std::move(delegate)),
      _work(std::make_shared<SerialQueue>("asset downloads")),
      _delegateQueue(delegateQueue ? std::move(delegateQueue)
                                   : std::make_shared<SerialQueue>("asset events")) {}

ErrorRef DownloadSession::open(const URLSessionConfiguration& configuration) {
  if (auto error = FileManager::createDirectoryAtPath(_options.directory, true))
    return error;
  _identifier = configuration.identifier;
  if (!_identifier.empty()) {
    // Before the first event of a transfer that is there still.
    AssetEnvironment environment;
    environment.service = configuration.service;
    _left.await();
    restoreTasks(environment);
  }
  ErrorRef error;
  _transfers = URLSession::sessionWithConfiguration(configuration, weak_from_this(), _work, &error);
  if (!_transfers)
    return error ? error
                 : makeError(
                       AVFoundationErrorDomain, AVErrorUnknown,
                       "There is no transfer service. Set the default service, or one in the configuration");
  if (!_identifier.empty())
    _transfers->getTasksWithCompletionHandler(
        [weak = weak_from_this()](const std::vector<DownloadTaskRef>& transfers) {
          const auto self = weak.lock();
          if (!self)
            return;
          self->_left.learn(transfers);
          for (const auto& task : self->tasks())
            task->pump();
        });
  return nullptr;
}

void DownloadSession::restoreTasks(const AssetEnvironment& environment) {
  for (const auto& name : FileManager::contentsOfDirectoryAtPath(_options.directory)) {
    const std::string path = _options.directory + "/" + name;
    if (!name.ends_with(".hls") || !FileManager::fileExistsAtPath(path + "/" + PackageState::fileName))
      continue;
    auto state = readPackageState(path);
    const auto url = state ? URL::URLWithString(state->url) : std::nullopt;
    if (!url || state->session != _identifier || state->complete)
      continue;
    const std::lock_guard lock(_mutex);
    if (_tasks.contains(state->task))
      continue;
    auto asset = std::make_shared<HLSAsset>(*url, HTTPHeaders(), environment);
    auto task =
        std::make_shared<AggregateTask>(shared_from_this(), state->task, std::move(asset),
                                        std::vector<MediaSelection>(), state->title, nullptr, TaskOptions());
    task->restore(std::move(state->wish), path);
    _left.expect(path, task);
    _tasks.emplace(state->task, std::move(task));
    _nextTask = std::max(_nextTask, state->task + 1);
  }
}

AggregateAssetDownloadTaskRef DownloadSession::aggregateAssetDownloadTaskWithURLAsset(
    std::shared_ptr<URLAsset> asset, std::vector<MediaSelection> mediaSelections, std::string assetTitle,
    DataRef artworkData, const UserInfo& options) {
  const std::lock_guard lock(_mutex);
  const std::uint64_t identifier = _nextTask++;
  auto task = std::make_shared<AggregateTask>(
      shared_from_this(), identifier, std::static_pointer_cast<HLSAsset>(std::move(asset)),
      std::move(mediaSelections), std::move(assetTitle), std::move(artworkData), readOptions(options));
  _tasks.emplace(identifier, task);
  return task;
}

void DownloadSession::getAllTasksWithCompletionHandler(
    std::function<void(std::vector<AggregateAssetDownloadTaskRef>)> completion) {
  _delegateQueue->async([self = shared_from_this(), completion = std::move(completion)] {
    const auto list = self->tasks();
    completion({list.begin(), list.end()});
  });
}

void DownloadSession::getResourcesOfURLAsset(
    std::shared_ptr<URLAsset> asset, std::vector<MediaSelection> mediaSelections, const UserInfo& options,
    std::function<void(std::vector<AssetResource>, ErrorRef)> completion) {
  struct Listing {
    std::shared_ptr<HLSAsset> asset;
    std::vector<MediaSelection> selections;
    std::optional<std::int64_t> minimumBitrate;
    std::function<void(std::vector<AssetResource>, ErrorRef)> completion;
    Streams streams;
    std::size_t pending = 1;
    ErrorRef error;

    void done() {
      if (--pending > 0)
        return;
      if (!error)
        error = streams.plan();
      std::vector<AssetResource> list;
      std::vector<std::pair<double, std::size_t>> order;
      for (const auto& stream : streams.streams)
        for (std::size_t i = 0; !error && i < stream.plan->resources().size(); ++i) {
          const auto& plan = *stream.plan;
          const auto url = plan.url(i);
          const Bytes& bytes = plan.resources()[i].bytes;
          order.emplace_back(plan.startOfResource(i), list.size());
          list.push_back({url ? url->absoluteString() : std::string(plan.resources()[i].reference),
                          bytes.offset, bytes.length, plan.directory() + "/" + plan.fileName(i)});
        }
      std::stable_sort(order.begin(), order.end(),
                       [](const auto& a, const auto& b) { return a.first < b.first; });
      std::vector<AssetResource> sorted;
      sorted.reserve(list.size());
      for (const auto& [start, index] : order)
        sorted.push_back(std::move(list[index]));
      completion(std::move(sorted), error);
    }
  };
  auto listing = std::make_shared<Listing>();
  listing->asset = std::static_pointer_cast<HLSAsset>(std::move(asset));
  listing->selections = std::move(mediaSelections);
  listing->minimumBitrate = readOptions(options).minimumBitrate;
  listing->completion = std::move(completion);
  listing->asset->loadValuesAsynchronouslyForKeys({"tracks"}, [self = shared_from_this(), listing] {
    self->_work->async([self, listing] {
      if (const auto model = listing->asset->model())
        listing->error = Streams::choose(model, model->wish(listing->selections, listing->minimumBitrate),
                                         listing->streams);
      else
        listing->asset->statusOfValueForKey("tracks", &listing->error);
      for (auto& stream : listing->streams.streams) {
        if (listing->error || stream.playlist)
          continue;
        ++listing->pending;
        fetchPlaylist(*self->_transfers, *stream.url, listing->asset->headers(),
                      listing->streams.model->playlist->variables(),
                      std::string("The ") + nameOf(stream.kind) + " playlist",
                      [listing, &stream](PlaylistRef playlist, const ErrorRef& error) {
                        stream.playlist = std::move(playlist);
                        if (error && !listing->error)
                          listing->error = error;
                        listing->done();
                      });
      }
      listing->done();
    });
  });
}

void DownloadSession::invalidateAndCancel() {
  {
    const std::lock_guard lock(_mutex);
    _invalidated = true;
  }
  for (const auto& task : tasks())
    task->cancel();
}

std::vector<std::shared_ptr<AggregateTask>> DownloadSession::tasks() const {
  std::vector<std::shared_ptr<AggregateTask>> list;
  const std::lock_guard lock(_mutex);
  list.reserve(_tasks.size());
  for (const auto& [identifier, task] : _tasks)
    list.push_back(task);
  return list;
}

bool DownloadSession::isInvalidated() const {
  const std::lock_guard lock(_mutex);
  return _invalidated;
}

void DownloadSession::attach(const DownloadTaskRef& transfer, const std::shared_ptr<AggregateTask>& task) {
  _owners.emplace(transfer->taskIdentifier(), task);
}

void DownloadSession::tell(std::function<void(AssetDownloadDelegate&)> event) {
  _delegateQueue->async([weak = _delegate, event = std::move(event)] {
    if (const auto delegate = weak.lock())
      event(*delegate);
  });
}

void DownloadSession::forget(const AggregateTask& task) {
  const std::lock_guard lock(_mutex);
  _tasks.erase(task.taskIdentifier());
}

std::shared_ptr<AggregateTask> DownloadSession::ownerOf(const URLSessionTask& transfer) const {
  const auto found = _owners.find(transfer.taskIdentifier());
  return found == _owners.end() ? nullptr : found->second;
}

void DownloadSession::URLSessionDownloadTaskDidWriteData(URLSession&, const DownloadTaskRef& task,
                                                         std::int64_t, std::int64_t totalBytesWritten,
                                                         std::int64_t) {
  if (const auto owner = ownerOf(*task))
    owner->didWrite(task->taskIdentifier(), totalBytesWritten);
}

void DownloadSession::URLSessionDownloadTaskDidResumeAtOffset(URLSession&, const DownloadTaskRef& task,
                                                              std::int64_t fileOffset, std::int64_t) {
  if (const auto owner = ownerOf(*task))
    owner->didWrite(task->taskIdentifier(), fileOffset);
}

void DownloadSession::URLSessionDownloadTaskDidFinishDownloadingToURL(URLSession&,
                                                                      const DownloadTaskRef& task,
                                                                      const std::string& location) {
  if (const auto owner = ownerOf(*task))
    owner->didFinish(task->taskIdentifier(), location);
  else
    _left.didFinish(task, location);
}

void DownloadSession::URLSessionTaskDidCompleteWithError(URLSession&,
                                                         const std::shared_ptr<URLSessionTask>& task,
                                                         const ErrorRef& error) {
  const auto found = _owners.find(task->taskIdentifier());
  if (found == _owners.end()) {
    _left.didComplete(*task, error);
    return;
  }
  const auto owner = std::move(found->second);
  _owners.erase(found);
  owner->didComplete(task->taskIdentifier(), error);
}

} // namespace assets

} // namespace platform
