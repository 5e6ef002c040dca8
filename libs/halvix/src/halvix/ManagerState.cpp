#include "halvix/ManagerState.h"

#include "halvix/BaseDownloader.h"
#include "halvix/DownloadRecord.h"
#include "halvix/DownloadStore.h"
#include "halvix/HostEnvironment.h"
#include "halvix/Session.h"

#include "platform/concurrency/Queue.h"

#include <algorithm>
#include <utility>

namespace halvix {

namespace {

/// Carries events to the main queue. It refers to the manager weakly: downloaders outlive it.
class SessionDispatcher final : public DownloaderDispatcherProtocol {
public:
  explicit SessionDispatcher(std::weak_ptr<ManagerState> state) : _state(std::move(state)) {}

  void dispatchDownloadStart(const std::shared_ptr<Download>& download) override {
    if (!isFollowed(download))
      return;
    platform::MainQueue::shared().async([state = _state, download] {
      if (const auto manager = state.lock())
        for (const auto& listener : manager->listeners.audienceOf(*download, News::Other))
          listener->downloadDidStart(download);
    });
  }

  void dispatchDownloadError(const std::shared_ptr<Download>& download, const QVErrorRef& error) override {
    download->setLastError(error);
    platform::MainQueue::shared().async([state = _state, download, error] {
      const auto manager = state.lock();
      if (!manager)
        return;
      // Stored before it is told: an application may end the process upon it.
      if (const auto owner = manager->ownerOf(*download))
        owner->storeItemsFor(*download);
      for (const auto& listener : manager->listeners.audienceOf(*download, News::End))
        listener->downloadDidFail(download, error);
    });
  }

  void dispatchDownloadFinished(const std::shared_ptr<Download>& download) override {
    platform::MainQueue::shared().async([state = _state, download] {
      if (const auto manager = state.lock())
        tellFinished(*manager, download);
    });
  }

  void dispatchDownloadStateChanged(const std::shared_ptr<Download>& download,
                                    DownloadState change) override {
    if (change != DownloadState::success && !isFollowed(download))
      return;
    platform::MainQueue::shared().async([state = _state, download, change] {
      const auto manager = state.lock();
      if (!manager)
        return;
      for (const auto& listener : manager->listeners.audienceOf(*download, News::Other))
        listener->downloadDidChangeState(download, change);
      if (change == DownloadState::success)
        tellFinished(*manager, download);
    });
  }

  void dispatchDownloadProgress(const std::shared_ptr<Download>& download) override {
    if (!isFollowed(download) || !download->claimProgressEvent())
      return;
    platform::MainQueue::shared().async([state = _state, download] {
      // Before the listeners look, so that what changes afterwards gets an event of its own.
      download->progressEventDelivered();
      const auto manager = state.lock();
      if (!manager)
        return;
      for (const auto& listener : manager->listeners.audienceOf(*download, News::Other))
        listener->downloadDidUpdateProgress(download);
    });
  }

private:
  using News = ListenerList::News;

  /// Whether anybody wants to hear of more than the end; if not, the main queue is left alone.
  bool isFollowed(const std::shared_ptr<Download>& download) const {
    const auto manager = _state.lock();
    return manager && manager->listeners.hasAudience(*download, News::Other);
  }

  static void tellFinished(ManagerState& manager, const std::shared_ptr<Download>& download) {
    if (!download->claimFinishedEvent())
      return;
    // Finishing is what applications end upon, so the record is stored by then.
    if (const auto owner = manager.ownerOf(*download))
      owner->storeItemsFor(*download);
    for (const auto& listener : manager.listeners.audienceOf(*download, News::End))
      listener->downloadDidFinish(download);
  }

  const std::weak_ptr<ManagerState> _state;
};

bool sameOwner(const std::weak_ptr<DownloadDelegate>& a, const std::weak_ptr<DownloadDelegate>& b) {
  return !a.owner_before(b) && !b.owner_before(a);
}

} // namespace

void ListenerList::add(const std::weak_ptr<DownloadDelegate>& listener) {
  const auto alive = listener.lock();
  if (!alive)
    return;
  const bool onlyEnds = alive->wantsOnlyEnds();
  std::lock_guard lock(_mutex);
  if (std::none_of(_listeners.begin(), _listeners.end(),
                   [&](const Held& held) { return sameOwner(held.listener, listener); }))
    _listeners.push_back({listener, onlyEnds});
}

void ListenerList::remove(const std::shared_ptr<DownloadDelegate>& listener) {
  std::lock_guard lock(_mutex);
  std::erase_if(_listeners, [&](const Held& held) {
    return sameOwner(held.listener, listener) || held.listener.expired();
  });
}

std::vector<std::shared_ptr<DownloadDelegate>> ListenerList::audienceOf(const Download& download, News news) {
  std::vector<std::shared_ptr<DownloadDelegate>> audience;
  {
    std::lock_guard lock(_mutex);
    for (const Held& held : _listeners)
      if (news == News::End || !held.wantsOnlyEnds)
        if (auto listener = held.listener.lock())
          audience.push_back(std::move(listener));
  }
  if (auto own = download.delegate().lock();
      own && std::find(audience.begin(), audience.end(), own) == audience.end())
    audience.push_back(std::move(own));
  return audience;
}

bool ListenerList::hasAudience(const Download& download, News news) {
  {
    std::lock_guard lock(_mutex);
    for (const Held& held : _listeners)
      if ((news == News::End || !held.wantsOnlyEnds) && !held.listener.expired())
        return true;
  }
  return !download.delegate().expired();
}

std::shared_ptr<ManagerState> ManagerState::create(std::shared_ptr<HostEnvironment> environment) {
  auto state = std::make_shared<ManagerState>();
  state->environment = std::move(environment);
  state->session = std::make_shared<Session>("main");
  state->components = std::make_shared<ComponentRegistry>();
  // The context is kept by plug-ins and by this object: an owning reference back would keep both for ever.
  class Dispatchers final : public QVPluginDispatchers {
  public:
    explicit Dispatchers(std::weak_ptr<ManagerState> state) : _state(std::move(state)) {}
    std::shared_ptr<DownloaderDispatcherProtocol>
    createDownloaderDispatcher(const std::shared_ptr<Session>&) override {
      return std::make_shared<SessionDispatcher>(_state);
    }

  private:
    std::weak_ptr<ManagerState> _state;
  };
  state->context = std::make_shared<QVPluginContext>(std::make_shared<Dispatchers>(state), state->components);
  return state;
}

std::shared_ptr<BaseDownloader> ManagerState::downloader(ContentType contentType) {
  const auto factory = components->factory(contentType, session);
  if (!factory)
    return nullptr;
  {
    std::lock_guard lock(mutex);
    if (const auto it = byFactory.find(factory.get()); it != byFactory.end())
      return it->second;
  }
  auto created = factory->create(session, contentType);
  if (!created)
    return nullptr;
  bool isNew = false;
  {
    std::lock_guard lock(mutex);
    created = byFactory.emplace(factory.get(), created).first->second;
    isNew = byName.emplace(created->name(), created).second;
  }
  if (isNew)
    created->settleInterruptedDownloads();
  return created;
}

// A downloader opens sessions when it is created; one that nobody has given a download is left alone.
std::vector<std::shared_ptr<BaseDownloader>> ManagerState::downloadersWithDownloads() {
  if (!environment)
    return allDownloaders();
  const std::size_t numOwners = environment->store()->numOwners();
  {
    std::lock_guard lock(mutex);
    if (numOwnersKnown == numOwners)
      return knownDownloadersLocked();
  }
  const auto isKnown = [this](const DownloadOwner& owner) {
    std::lock_guard lock(mutex);
    return byName.contains(owner.downloader);
  };
  for (const DownloadOwner& owner : environment->store()->owners()) {
    if (!isKnown(owner) && owner.contentType)
      downloader(*owner.contentType);
    if (!isKnown(owner))
      return allDownloaders();
  }
  std::lock_guard lock(mutex);
  numOwnersKnown = numOwners;
  return knownDownloadersLocked();
}

std::vector<std::shared_ptr<BaseDownloader>> ManagerState::allDownloaders() {
  const std::size_t numFactories = components->numFactories();
  {
    std::lock_guard lock(mutex);
    if (numFactoriesAsked == numFactories)
      return foundByAll;
  }
  std::vector<std::shared_ptr<BaseDownloader>> found;
  bool isWhole = true; // a factory that made none is asked again
  for (ContentType type : allContentTypes) {
    auto one = downloader(type);
    isWhole = isWhole && (one || !components->factory(type, session));
    if (one && std::find(found.begin(), found.end(), one) == found.end())
      found.push_back(std::move(one));
  }
  std::lock_guard lock(mutex);
  if (isWhole) {
    foundByAll = found;
    numFactoriesAsked = numFactories;
  }
  return found;
}

std::vector<std::shared_ptr<BaseDownloader>> ManagerState::knownDownloaders() {
  std::lock_guard lock(mutex);
  return knownDownloadersLocked();
}

std::vector<std::shared_ptr<BaseDownloader>> ManagerState::knownDownloadersLocked() const {
  std::vector<std::shared_ptr<BaseDownloader>> all;
  for (const auto& [name, downloader] : byName)
    all.push_back(downloader);
  return all;
}

std::shared_ptr<BaseDownloader> ManagerState::ownerOf(const Download& download) {
  std::lock_guard lock(mutex);
  const auto it = byName.find(download.downloaderName());
  return it == byName.end() ? nullptr : it->second;
}

bool ManagerState::joinPreparation(const std::shared_ptr<Download>& download,
                                   DownloadManager::Completion completion) {
  std::lock_guard lock(mutex);
  auto [it, first] = preparations.try_emplace(download);
  it->second.push_back(std::move(completion));
  return first;
}

std::vector<DownloadManager::Completion>
ManagerState::endPreparation(const std::shared_ptr<Download>& download) {
  std::lock_guard lock(mutex);
  auto node = preparations.extract(download);
  return node.empty() ? std::vector<DownloadManager::Completion>() : std::move(node.mapped());
}

} // namespace halvix
