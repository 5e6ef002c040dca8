#include "TolvaneDownloader/FileDownloader/FileDownloaderFactory.h"

#include "TolvaneDownloader/FileDownloader/FileDownloader.h"

#include "halvix/Plugin.h"

bool FileDownloaderFactory::canDownload(halvix::ContentType contentType) const {
  return FileDownloader::isPlainFile(contentType);
}

std::shared_ptr<halvix::BaseDownloader>
FileDownloaderFactory::create(const std::shared_ptr<halvix::Session>& session, halvix::ContentType) {
  auto downloader = FileDownloader::shared();
  downloader->setDispatcher(_pluginDispatchers->createDownloaderDispatcher(session));
  downloader->reportInterruptedDownloads();
  return downloader;
}
