#include "apps/tolvane/Commands.h"
#include "apps/tolvane/FileCommands.h"
#include "apps/tolvane/HLSCommands.h"
#include "apps/tolvane/Host.h"
#include "apps/tolvane/PresentationJSON.h"
#include "apps/tolvane/Text.h"

#include "halvix/BaseDownloader.h"
#include "halvix/DownloadManager.h"
#include "halvix/ErrorDescription.h"
#include "halvix/Presentation.h"
#include "platform/foundation/URL.h"

#include <algorithm>
#include <cstdio>
#include <future>
#include <nlohmann/json.hpp>

namespace tolvane {
namespace {

using nlohmann::json;
using PresentationRef = std::shared_ptr<const halvix::Presentation>;

json size(const std::optional<std::int64_t>& bytes) {
  return bytes ? json(*bytes) : json();
}

template <class R> json quality(const R& rendition, int width, int height) {
  json object = qualityJSON(rendition.id, rendition.bitrate, width, height, rendition.fourCC);
  object["estimatedBytes"] = size(rendition.estimatedSize);
  return object;
}

json describe(const halvix::PresentationMovie& movie) {
  json tracks = json::array();
  for (const auto& track : movie.tracks.video) {
    json object = trackJSON("video", track.label, track.language);
    for (const auto& rendition : track.renditions)
      object["qualities"].push_back(quality(rendition, rendition.width, rendition.height));
    tracks.push_back(std::move(object));
  }
  for (const auto& track : movie.tracks.audio) {
    json object = trackJSON("audio", track.label, track.language);
    for (const auto& rendition : track.renditions)
      object["qualities"].push_back(quality(rendition, 0, 0));
    tracks.push_back(std::move(object));
  }
  // The host offers each quality of a text track by itself; here neighbours of one track stand together
  // again.
  const halvix::TextTrack* before = nullptr;
  for (const auto& track : movie.tracks.text) {
    if (!before || before->label != track.label || before->language != track.language)
      tracks.push_back(trackJSON("text", track.label, track.language));
    tracks.back()["qualities"].push_back(quality(track, 0, 0));
    before = &track;
  }
  return movieJSON(movie.duration, std::move(tracks));
}

std::string durationText(double seconds) {
  return timeText(static_cast<std::int64_t>(std::min(seconds, 1e15) + 0.5)); // hostile ones fit no integer
}

void printQuality(const json& quality) {
  auto number = [&](const char* key) {
    return quality[key].is_null() ? std::int64_t(0) : quality[key].get<std::int64_t>();
  };
  std::string line = "    id:" + oneLine(quality["id"].get<std::string>());
  if (number("width") > 0)
    line += "  " + std::to_string(number("width")) + "x" + std::to_string(number("height"));
  if (number("bitrate") > 0)
    line += "  " + std::to_string(number("bitrate") / 1000) + "k";
  if (!quality["codec"].is_null())
    line += "  " + oneLine(quality["codec"].get<std::string>());
  if (!quality["estimatedBytes"].is_null())
    line += "  about " + bytesText(number("estimatedBytes"));
  std::printf("%s\n", line.c_str());
}

void print(const json& presentation) {
  std::size_t index = 0;
  for (const json& movie : presentation["movies"]) {
    std::printf("movie %zu%s\n", ++index,
                movie["duration"].is_null() ? ""
                                            : (", " + durationText(movie["duration"].get<double>())).c_str());
    for (const json& track : movie["tracks"]) {
      std::string line = "  " + track["type"].get<std::string>();
      if (!track["language"].is_null())
        line += " " + track["language"].get<std::string>();
      if (const auto name = track["name"].get<std::string>(); !name.empty())
        line += "  (" + name + ")";
      std::printf("%s\n", oneLine(line).c_str());
      for (const json& quality : track["qualities"])
        printQuality(quality);
    }
  }
  if (presentation["live"].get<bool>())
    std::printf("live: cannot be downloaded before it has ended\n");
  if (index > 1)
    std::printf("a download takes the first of the %zu movies\n", index);
}

} // namespace

int inspectCommand(const std::string& source, const platform::HTTPHeaders& headers, bool asJSON) {
  ScratchHost scratch;
  auto url = platform::URL::URLWithString(source);
  halvix::ContentType type = halvix::ContentType::dash;
  if (url && url->isHTTP()) {
    std::promise<void> done;
    halvix::QVErrorRef failure;
    scratch.host().manager().determineContentType(source, headers, [&](auto found, halvix::QVErrorRef error) {
      if (found)
        type = *found;
      failure = std::move(error);
      done.set_value();
    });
    done.get_future().wait();
    require(failure);
    if (type == halvix::ContentType::mp4 || type == halvix::ContentType::mp3)
      return inspectFile(source, headers, type, asJSON);
  } else if (auto known = halvix::contentTypeFromURL(source))
    type = *known;
  else if (isHLSSource(source, headers))
    type = halvix::ContentType::hls;

  halvix::QVErrorRef error;
  auto downloader = scratch.host().manager().downloaderForContentType(type, &error);
  require(error);
  auto inspector = std::dynamic_pointer_cast<halvix::ContentInspector>(downloader);
  if (!inspector)
    throw Failure(halvix::rawValue(type) + " content cannot be inspected");

  std::promise<std::pair<PresentationRef, halvix::QVErrorRef>> answer;
  inspector->inspectContent(source, headers,
                            [&answer](PresentationRef presentation, halvix::QVErrorRef failure) {
                              answer.set_value({std::move(presentation), std::move(failure)});
                            });
  auto [presentation, failure] = answer.get_future().get();
  require(failure);

  json object = {{"url", presentation->url}, {"live", presentation->isLive}, {"movies", json::array()}};
  for (const auto& movie : presentation->movies)
    object["movies"].push_back(describe(movie));
  if (asJSON)
    std::printf("%s\n", object.dump(1, ' ', false, json::error_handler_t::replace).c_str());
  else
    print(object);
  return statusDone;
}

} // namespace tolvane
