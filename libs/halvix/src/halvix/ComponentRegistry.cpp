#include "halvix/ComponentRegistry.h"

#include <algorithm>

namespace halvix {

void ComponentRegistry::registerFactory(std::shared_ptr<DownloaderFactoryProtocol> factory) {
  std::lock_guard lock(_mutex);
  if (factory && std::find(_factories.begin(), _factories.end(), factory) == _factories.end())
    _factories.push_back(std::move(factory));
}

std::vector<std::shared_ptr<DownloaderFactoryProtocol>> ComponentRegistry::factories() const {
  std::lock_guard lock(_mutex);
  return _factories;
}

std::size_t ComponentRegistry::numFactories() const {
  std::lock_guard lock(_mutex);
  return _factories.size();
}

std::shared_ptr<DownloaderFactoryProtocol>
ComponentRegistry::factory(ContentType contentType, const std::shared_ptr<Session>& session) const {
  for (const auto& factory : factories())
    if (factory->canDownload(contentType) && (!session || factory->canAttach(session)))
      return factory;
  return nullptr;
}

std::shared_ptr<BaseDownloader> ComponentRegistry::downloader(const std::shared_ptr<Session>& session,
                                                              ContentType contentType) const {
  const auto found = factory(contentType, session);
  return found ? found->create(session, contentType) : nullptr;
}

} // namespace halvix
