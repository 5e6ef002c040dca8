#pragma once

#include "halvix/ComponentRegistry.h"

#include <memory>
#include <utility>

namespace halvix {
class QVPluginDispatchers;
}

/// What the plug-in's factories have in common: each hands out the one downloader of its kind that the
/// process has. Each `create` points that downloader's dispatcher to the newest session, so the last session
/// that asked receives the events. Thread-safe.
class SharedDownloaderFactory : public halvix::DownloaderFactoryProtocol {
public:
  explicit SharedDownloaderFactory(std::shared_ptr<halvix::QVPluginDispatchers> pluginDispatchers)
      : _pluginDispatchers(std::move(pluginDispatchers)) {}

  const std::shared_ptr<halvix::QVPluginDispatchers>& pluginDispatchers() const { return _pluginDispatchers; }

  std::shared_ptr<halvix::BaseDownloader> create(const std::shared_ptr<halvix::Session>& session,
                                                 halvix::ContentType contentType) override;
  bool canAttach(const std::shared_ptr<halvix::Session>&) const override { return true; }

private:
  virtual std::shared_ptr<halvix::BaseDownloader> sharedDownloader() const = 0;

  const std::shared_ptr<halvix::QVPluginDispatchers> _pluginDispatchers;
};
