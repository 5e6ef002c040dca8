#pragma once

#include "halvix/ComponentRegistry.h"

#include <memory>

namespace halvix {
class QVPluginDispatchers;
}

/// Hands out the shared HLS downloader. Each `create` points its dispatcher to the newest session, so the
/// last session that asked receives the events. Thread-safe.
class HLSDownloaderFactory final : public halvix::DownloaderFactoryProtocol {
public:
  explicit HLSDownloaderFactory(std::shared_ptr<halvix::QVPluginDispatchers> pluginDispatchers)
      : _pluginDispatchers(std::move(pluginDispatchers)) {}

  const std::shared_ptr<halvix::QVPluginDispatchers>& pluginDispatchers() const { return _pluginDispatchers; }

  /// True exactly for `hls`.
  bool canDownload(halvix::ContentType contentType) const override;
  std::shared_ptr<halvix::BaseDownloader> create(const std::shared_ptr<halvix::Session>& session,
                                                 halvix::ContentType contentType) override;
  bool canAttach(const std::shared_ptr<halvix::Session>&) const override { return true; }

private:
  std::shared_ptr<halvix::QVPluginDispatchers> _pluginDispatchers;
};
