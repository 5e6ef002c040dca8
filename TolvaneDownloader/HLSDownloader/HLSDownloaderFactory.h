#pragma once

#include "TolvaneDownloader/SharedDownloaderFactory.h"

/// Hands out the shared HLS downloader.
class HLSDownloaderFactory final : public SharedDownloaderFactory {
public:
  using SharedDownloaderFactory::SharedDownloaderFactory;

  /// True exactly for `hls`.
  bool canDownload(halvix::ContentType contentType) const override;

private:
  std::shared_ptr<halvix::BaseDownloader> sharedDownloader() const override;
};
