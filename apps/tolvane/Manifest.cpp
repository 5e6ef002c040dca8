#include "apps/tolvane/Manifest.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylist.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylistFactory.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVRangedURL.h"
#include "apps/tolvane/Commands.h"
#include "apps/tolvane/Host.h"

#include "halvix/ErrorDescription.h"
#include "platform/foundation/FileManager.h"
#include "platform/foundation/URL.h"

#include <filesystem>
#include <future>

namespace tolvane {
namespace {

constexpr const char* nothingUsable = "the manifest holds nothing that can be downloaded";

std::shared_ptr<QVPlaylist> fetch(const std::string& url, const platform::HTTPHeaders& headers) {
  ScratchHost scratch;
  std::promise<std::pair<std::shared_ptr<QVPlaylist>, platform::ErrorRef>> answer;
  QVPlaylistFactory::generateWithURL(
      url,
      [&answer](std::shared_ptr<QVPlaylist> playlist, platform::DataRef, platform::ErrorRef error) {
        answer.set_value({std::move(playlist), std::move(error)});
      },
      headers);
  auto [playlist, error] = answer.get_future().get();
  if (error)
    throw Failure(halvix::urlForDisplay(url) + ": " + halvix::describeError(error));
  return playlist;
}

} // namespace

std::string resourceBase(const std::string& manifestURL) {
  const auto url = platform::URL::URLWithString(manifestURL);
  if (!url || !url->scheme())
    throw Failure("'" + manifestURL + "' is no absolute URL", statusUsage);
  return QVRangedURL::baseURLForManifest(manifestURL);
}

Manifest readManifest(const std::string& source, const std::string& base,
                      const platform::HTTPHeaders& headers) {
  Manifest manifest;
  auto url = platform::URL::URLWithString(source);
  if (url && url->isHTTP()) {
    manifest.url = base.empty() ? source : base;
    manifest.baseURL = resourceBase(manifest.url);
    manifest.playlist = fetch(source, headers);
  } else {
    std::error_code ignored;
    std::string path = std::filesystem::absolute(source, ignored).lexically_normal().string();
    manifest.url = base.empty() ? platform::URL::fileURLWithPath(path).absoluteString() : base;
    manifest.baseURL = resourceBase(manifest.url);
    platform::ErrorRef error;
    if (!platform::FileManager::contentsAtPath(path, &error))
      throw Failure(halvix::describeError(error));
    manifest.playlist = QVPlaylistFactory::generateWithFile(path, &error);
    if (error)
      throw Failure(source + ": " + halvix::describeError(error));
  }
  if (!manifest.playlist)
    throw Failure(source + ": " + nothingUsable);
  return manifest;
}

} // namespace tolvane
