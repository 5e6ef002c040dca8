#include "TolvaneDownloader/DASHDownloader/DashDownloaderFactory.h"

#include "TolvaneDownloader/DASHDownloader/DashDownloader.h"

#include "halvix/Plugin.h"

bool DashDownloaderFactory::canDownload(halvix::ContentType contentType) const {
  return halvix::rawValue(contentType) == halvix::rawValue(halvix::ContentType::dash);
}

std::shared_ptr<halvix::BaseDownloader>
DashDownloaderFactory::create(const std::shared_ptr<halvix::Session>& session, halvix::ContentType) {
  auto downloader = DashDownloader::shared();
  downloader->setDispatcher(_pluginDispatchers->createDownloaderDispatcher(session));
  return downloader;
}
