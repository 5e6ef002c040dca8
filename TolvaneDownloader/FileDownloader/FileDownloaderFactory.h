#pragma once

#include "TolvaneDownloader/SharedDownloaderFactory.h"

/// Hands out the shared downloader of plain files.
class FileDownloaderFactory final : public SharedDownloaderFactory {
public:
  using SharedDownloaderFactory::SharedDownloaderFactory;

  /// True for `mp4` and `mp3`.
  bool canDownload(halvix::ContentType contentType) const override;
  /// Also tells the new dispatcher what an ended process had left running.
  std::shared_ptr<halvix::BaseDownloader> create(const std::shared_ptr<halvix::Session>& session,
                                                 halvix::ContentType contentType) override;

private:
  std::shared_ptr<halvix::BaseDownloader> sharedDownloader() const override;
};
