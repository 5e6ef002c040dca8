#include "TolvaneDownloader/DASHDownloader/Internal/QVMovie.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadProperties.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylist.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVRangedURL.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourcePath.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVVideoQuality.h"
#include "apps/tolvane/Commands.h"
#include "apps/tolvane/HLSCommands.h"
#include "apps/tolvane/Manifest.h"
#include "apps/tolvane/PresentationJSON.h"
#include "apps/tolvane/Text.h"

#include "platform/foundation/URL.h"

#include <cstdio>
#include <nlohmann/json.hpp>

namespace tolvane {
namespace {

using nlohmann::json;

const QVResourceDirectory& directory() {
  static const QVResourceDirectory instance("/",
                                            {"manifest.mpd", QVMovieDownloadProperties::defaultJSONName});
  return instance;
}

json describe(const QVRangedURL& resource) {
  auto url = resource.resolveURL();
  auto path = directory().relativePath(resource.referenceURL());
  return {{"url", url ? json(url->absoluteString()) : json()},
          {"offset", resource.offset()},
          {"length", resource.length() > 0 ? json(resource.length()) : json()},
          {"path", path ? json(*path) : json()}};
}

json describe(const std::shared_ptr<QVQuality>& quality, const std::string& base) {
  auto video = std::dynamic_pointer_cast<QVVideoQuality>(quality);
  json object = qualityJSON(quality->identifier(), quality->bitrate(), video ? video->width() : 0,
                            video ? video->height() : 0, quality->knownFourCC());
  json& resources = object["resources"] = json::array();
  if (auto list = quality->resourceBuilder()->fillResourcesWithBaseURL(base))
    for (const auto& resource : *list)
      resources.push_back(describe(*resource));
  return object;
}

json describe(const QVTrack& track, const std::string& base) {
  static const char* const types[] = {"", "video", "audio", "text"};
  json object =
      trackJSON(types[track.type() < 4 ? track.type() : 0], track.name(), track.language().value_or(""));
  for (const auto& quality : track.qualities())
    object["qualities"].push_back(describe(quality, base));
  return object;
}

void print(const json& presentation) {
  std::size_t index = 0;
  for (const json& movie : presentation["movies"]) {
    ++index;
    for (const json& track : movie["tracks"])
      for (const json& quality : track["qualities"]) {
        std::printf("# movie %zu, %s, id:%s\n", index, track["type"].get<std::string>().c_str(),
                    oneLine(quality["id"].get<std::string>()).c_str());
        for (const json& resource : quality["resources"]) {
          std::string line = resource["url"].is_null() ? "(no address)" : resource["url"].get<std::string>();
          if (resource["offset"] != 0 || !resource["length"].is_null())
            line += "  bytes from " + resource["offset"].dump() +
                    (resource["length"].is_null() ? "" : ", " + resource["length"].dump() + " of them");
          line += resource["path"].is_null() ? "  (would leave the download's directory: is not fetched)"
                                             : "  " + resource["path"].get<std::string>();
          std::printf("%s\n", oneLine(line).c_str());
        }
      }
  }
}

} // namespace

int resourcesCommand(const std::string& source, const std::string& base, const platform::HTTPHeaders& headers,
                     bool asJSON) {
  if (isHLSSource(source, headers))
    return hlsResourcesCommand(source, headers, asJSON);
  Manifest manifest = readManifest(source, base, headers);
  json object = {{"url", manifest.url}, {"movies", json::array()}};
  for (const auto& movie : manifest.playlist->movies()) {
    json tracks = json::array();
    for (const auto& track : movie->tracks())
      tracks.push_back(describe(*track, manifest.baseURL));
    object["movies"].push_back(movieJSON(movie->duration(), std::move(tracks)));
  }
  if (asJSON)
    std::printf("%s\n", object.dump(1, ' ', false, json::error_handler_t::replace).c_str());
  else
    print(object);
  return statusDone;
}

} // namespace tolvane
