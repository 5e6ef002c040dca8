#pragma once

#include "TolvaneDownloader/SharedDownloaderFactory.h"

/// Hands out the shared DASH downloader.
class DashDownloaderFactory final : public SharedDownloaderFactory {
public:
  using SharedDownloaderFactory::SharedDownloaderFactory;

  /// True exactly for `dash`.
  bool canDownload(halvix::ContentType contentType) const override;

private:
  std::shared_ptr<halvix::BaseDownloader> sharedDownloader() const override;
};
