#pragma once

#include "halvix/Plugin.h"

#include <memory>
#include <string>

class DashDownloader;
class FileDownloader;
class HLSDownloader;

/// The component as the host loads it. Attached, it registers a factory for each kind of content with the
/// host's component registry. The downloaders behind the factories are shared by the process and outlive
/// attach and detach. Called by the host from one thread at a time.
class DownloaderPlugin final : public halvix::QVPluginProtocol {
public:
  DownloaderPlugin();

  std::string name() const override { return _name; }       ///< "DownloaderPlugin"
  std::string version() const override { return _version; } ///< "4.0.0"

  /// Null until attached.
  const std::shared_ptr<halvix::QVPluginContext>& currentContext() const { return _currentContext; }
  /// Shared by the process; made, over the host's environment, when first asked for.
  std::shared_ptr<DashDownloader> dashDownloader() const;
  std::shared_ptr<FileDownloader> fileDownloader() const; ///< the same
  std::shared_ptr<HLSDownloader> hlsDownloader() const;   ///< the same

  void pluginAttached(const std::shared_ptr<halvix::QVPluginContext>& context) override;
  void pluginDetached() override {}
  void configure(const halvix::QVPluginConfiguration&) override {}

private:
  std::string _name;
  std::string _version;
  std::shared_ptr<halvix::QVPluginContext> _currentContext;
};
