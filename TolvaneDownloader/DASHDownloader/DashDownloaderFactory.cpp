#include "TolvaneDownloader/DASHDownloader/DashDownloaderFactory.h"

#include "TolvaneDownloader/DASHDownloader/DashDownloader.h"

bool DashDownloaderFactory::canDownload(halvix::ContentType contentType) const {
  return halvix::rawValue(contentType) == halvix::rawValue(halvix::ContentType::dash);
}

std::shared_ptr<halvix::BaseDownloader> DashDownloaderFactory::sharedDownloader() const {
  return DashDownloader::shared();
}
