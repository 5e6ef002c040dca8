#include "TolvaneDownloader/DownloaderPlugin.h"

#include "TolvaneDownloader/DASHDownloader/DashDownloader.h"
#include "TolvaneDownloader/DASHDownloader/DashDownloaderFactory.h"
#include "TolvaneDownloader/FileDownloader/FileDownloader.h"
#include "TolvaneDownloader/FileDownloader/FileDownloaderFactory.h"
#include "TolvaneDownloader/HLSDownloader/HLSDownloader.h"
#include "TolvaneDownloader/HLSDownloader/HLSDownloaderFactory.h"

DownloaderPlugin::DownloaderPlugin() : _name("DownloaderPlugin"), _version("4.0.0") {}

std::shared_ptr<DashDownloader> DownloaderPlugin::dashDownloader() const {
  return DashDownloader::shared();
}

std::shared_ptr<FileDownloader> DownloaderPlugin::fileDownloader() const {
  return FileDownloader::shared();
}

std::shared_ptr<HLSDownloader> DownloaderPlugin::hlsDownloader() const {
  return HLSDownloader::shared();
}

void DownloaderPlugin::pluginAttached(const std::shared_ptr<halvix::QVPluginContext>& context) {
  _currentContext = context;
  context->components()->registerFactory(std::make_shared<HLSDownloaderFactory>(context->dispatchers()));
  context->components()->registerFactory(std::make_shared<DashDownloaderFactory>(context->dispatchers()));
  context->components()->registerFactory(std::make_shared<FileDownloaderFactory>(context->dispatchers()));
}
