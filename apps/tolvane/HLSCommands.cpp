#include "apps/tolvane/HLSCommands.h"

#include "apps/tolvane/Commands.h"
#include "apps/tolvane/Host.h"
#include "apps/tolvane/PresentationJSON.h"
#include "apps/tolvane/Text.h"

#include "halvix/ContentType.h"
#include "halvix/DownloadManager.h"
#include "halvix/DownloadRecord.h"
#include "halvix/ErrorDescription.h"
#include "platform/assets/AssetDownloadURLSession.h"
#include "platform/assets/AssetPackage.h"
#include "platform/foundation/URL.h"
#include "platform/transfer/TransferService.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>

namespace tolvane {
namespace {

using nlohmann::json;
using Resources = std::vector<platform::AssetResource>;

class NobodyListens final : public platform::AssetDownloadDelegate {};

Resources resourcesOf(const platform::URL& url, const platform::HTTPHeaders& headers) {
  ScratchHost scratch;
  platform::URLSessionConfiguration configuration;
  configuration.service = platform::TransferService::defaultService();
  platform::AssetDownloadOptions options;
  options.directory = scratch.directory() + "/packages";
  const auto delegate = std::make_shared<NobodyListens>();
  platform::ErrorRef error;
  const auto session = platform::AssetDownloadURLSession::sessionWithConfiguration(configuration, options,
                                                                                   delegate, nullptr, &error);
  if (!session)
    throw Failure(halvix::describeError(error));
  platform::AssetEnvironment environment;
  environment.service = configuration.service;
  const auto asset = platform::URLAsset::assetWithURL(
      url, {{platform::AVURLAssetHTTPHeaderFieldsKey, headers}}, std::move(environment));
  std::promise<std::pair<Resources, platform::ErrorRef>> answer;
  session->getResourcesOfURLAsset(asset, {}, {}, [&answer](Resources found, platform::ErrorRef failure) {
    answer.set_value({std::move(found), std::move(failure)});
  });
  auto [resources, failure] = answer.get_future().get();
  if (failure)
    throw Failure(halvix::describeError(failure));
  return std::move(resources);
}

json describe(const platform::AssetResource& resource) {
  return {{"url", resource.url},
          {"offset", resource.offset},
          {"length", resource.length < 0 ? json() : json(resource.length)},
          {"path", resource.path}};
}

void print(const platform::AssetResource& resource) {
  std::string line = resource.url;
  if (resource.offset != 0 || resource.length >= 0)
    line += "  bytes from " + std::to_string(resource.offset) +
            (resource.length < 0 ? "" : ", " + std::to_string(resource.length) + " of them");
  std::printf("%s  %s\n", oneLine(line).c_str(), oneLine(resource.path).c_str());
}

std::string nameOf(const platform::AssetPackage::Stream& stream) {
  std::string name = stream.kind;
  if (!stream.language.empty())
    name += " " + stream.language;
  if (!stream.name.empty())
    name += " (" + stream.name + ")";
  return oneLine(name);
}

} // namespace

bool isHLSSource(const std::string& source, const platform::HTTPHeaders& headers) {
  if (const auto known = halvix::contentTypeFromURL(source))
    return *known == halvix::ContentType::hls;
  const auto url = platform::URL::URLWithString(source);
  if (!url || !url->isHTTP()) {
    std::ifstream file(source, std::ios::binary);
    std::string head(7, '\0');
    return file.read(head.data(), 7) && head == "#EXTM3U";
  }
  ScratchHost scratch;
  std::promise<std::optional<halvix::ContentType>> answer;
  // What cannot be told is left to the manifest reader, which says more about it.
  scratch.host().manager().determineContentType(
      source, headers, [&answer](std::optional<halvix::ContentType> found, const halvix::QVErrorRef&) {
        answer.set_value(found);
      });
  return answer.get_future().get() == halvix::ContentType::hls;
}

int hlsResourcesCommand(const std::string& source, const platform::HTTPHeaders& headers, bool asJSON) {
  const auto url = platform::URL::URLWithString(source);
  if (!url || !url->isHTTP())
    throw Failure("'" + source + "' is a local playlist; give the http or https URL that it is served under",
                  statusUsage);
  const Resources resources = resourcesOf(*url, headers);
  if (!asJSON) {
    std::printf("# the package of a download without options\n");
    std::for_each(resources.begin(), resources.end(), print);
    return statusDone;
  }
  json quality = qualityJSON("package", 0, 0, 0, "");
  json& list = quality["resources"] = json::array();
  for (const auto& resource : resources)
    list.push_back(describe(resource));
  json track = trackJSON("package", "", "");
  track["qualities"].push_back(std::move(quality));
  const json object = {{"url", source}, {"movies", {movieJSON(-1, json::array({std::move(track)}))}}};
  std::printf("%s\n", object.dump(1, ' ', false, json::error_handler_t::replace).c_str());
  return statusDone;
}

int verifyPackage(const halvix::DownloadSummary& download) {
  if (!download.localPath)
    throw Failure("nothing is on disk yet for " + download.id);
  platform::ErrorRef error;
  const auto package = platform::AssetPackage::packageAtPath(*download.localPath, &error);
  if (!package)
    throw Failure(halvix::describeError(error) + "; 'tolvane resume' of the download makes it new");
  constexpr std::size_t most = 20;
  for (const auto& stream : package->streams) {
    const bool whole = stream.complete && stream.damaged.empty();
    std::printf("%s  %s  %s: %zu of %zu files whole\n", whole ? "whole     " : "incomplete",
                nameOf(stream).c_str(), oneLine(stream.playlist).c_str(),
                stream.files.size() - std::min(stream.files.size(), stream.damaged.size()),
                stream.files.size());
    for (std::size_t i = 0; i < std::min(most, stream.damaged.size()); ++i)
      std::printf("    missing or damaged %s\n", oneLine(stream.damaged[i]).c_str());
    if (stream.damaged.size() > most)
      std::printf("    and %zu more\n", stream.damaged.size() - most);
  }
  if (download.state != halvix::DownloadState::success)
    std::printf("the download is not complete; its state is %s\n", halvix::rawValue(download.state).c_str());
  const bool good = download.state == halvix::DownloadState::success && package->complete &&
                    package->isIntact() && !package->streams.empty();
  std::printf("%s\n", good ? "verified: everything is whole" : "verified: NOT whole");
  return good ? statusDone : statusFailed;
}

} // namespace tolvane
