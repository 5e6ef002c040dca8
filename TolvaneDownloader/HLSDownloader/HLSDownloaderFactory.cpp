#include "TolvaneDownloader/HLSDownloader/HLSDownloaderFactory.h"

#include "TolvaneDownloader/HLSDownloader/HLSDownloader.h"

#include "halvix/Plugin.h"

bool HLSDownloaderFactory::canDownload(halvix::ContentType contentType) const {
  return halvix::rawValue(contentType) == halvix::rawValue(halvix::ContentType::hls);
}

std::shared_ptr<halvix::BaseDownloader>
HLSDownloaderFactory::create(const std::shared_ptr<halvix::Session>& session, halvix::ContentType) {
  auto downloader = HLSDownloader::shared();
  downloader->setDispatcher(_pluginDispatchers->createDownloaderDispatcher(session));
  return downloader;
}
