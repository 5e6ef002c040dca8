#include "TolvaneDownloader/SharedDownloaderFactory.h"

#include "halvix/BaseDownloader.h"
#include "halvix/Plugin.h"

std::shared_ptr<halvix::BaseDownloader>
SharedDownloaderFactory::create(const std::shared_ptr<halvix::Session>& session, halvix::ContentType) {
  auto downloader = sharedDownloader();
  downloader->setDispatcher(_pluginDispatchers->createDownloaderDispatcher(session));
  return downloader;
}
