#include "TolvaneDownloader/HLSDownloader/HLSDownloaderFactory.h"

#include "TolvaneDownloader/HLSDownloader/HLSDownloader.h"

bool HLSDownloaderFactory::canDownload(halvix::ContentType contentType) const {
  return halvix::rawValue(contentType) == halvix::rawValue(halvix::ContentType::hls);
}

std::shared_ptr<halvix::BaseDownloader> HLSDownloaderFactory::sharedDownloader() const {
  return HLSDownloader::shared();
}
