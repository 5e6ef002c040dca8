#include "TolvaneDownloader/FileDownloader/FileDownloaderFactory.h"

#include "TolvaneDownloader/FileDownloader/FileDownloader.h"

bool FileDownloaderFactory::canDownload(halvix::ContentType contentType) const {
  return FileDownloader::isPlainFile(contentType);
}

std::shared_ptr<halvix::BaseDownloader>
FileDownloaderFactory::create(const std::shared_ptr<halvix::Session>& session,
                              halvix::ContentType contentType) {
  auto downloader = SharedDownloaderFactory::create(session, contentType);
  FileDownloader::shared()->reportInterruptedDownloads();
  return downloader;
}

std::shared_ptr<halvix::BaseDownloader> FileDownloaderFactory::sharedDownloader() const {
  return FileDownloader::shared();
}
