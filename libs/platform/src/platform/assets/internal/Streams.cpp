#include "platform/assets/internal/AggregateTask.h"

#include "platform/assets/internal/AssetErrors.h"
#include "platform/foundation/StringHash.h"

#include <algorithm>

namespace platform::assets {

namespace {

StreamKind kindOf(RenditionType type) {
  return type == RenditionType::Audio       ? StreamKind::Audio
         : type == RenditionType::Subtitles ? StreamKind::Text
                                            : StreamKind::Video;
}

} // namespace

ErrorRef Streams::choose(std::shared_ptr<const AssetModel> model, Wish wish, Streams& to) {
  to.model = std::move(model);
  to.wish = std::move(wish);
  const Playlist& playlist = *to.model->playlist;
  if (!playlist.isMaster()) {
    Stream stream;
    stream.renditions = {nullptr};
    stream.url = playlist.url();
    stream.playlist = to.model->playlist;
    to.streams.push_back(std::move(stream));
    return nullptr;
  }
  const std::string address = playlist.url().absoluteString();
  std::string why;
  const auto choice = to.model->choose(to.wish, why);
  if (!choice)
    return assetError(AVErrorContentIsUnavailable, "The master playlist", address, why,
                      "Choose another quality, audio or subtitle");
  const MasterPlaylist& master = playlist.master();
  to.variant = &master.variants[choice->variant];
  const auto add = [&](std::string_view reference, const Rendition* rendition) -> ErrorRef {
    const auto url = fetchableURL(reference, playlist.url());
    if (!url)
      return assetError(AVErrorOperationNotSupportedForAsset, "The master playlist", address,
                        "it names \"" + std::string(reference.substr(0, 200)) +
                            "\", which is no http or https address",
                        "Only media behind http or https can be downloaded");
    const auto same = std::find_if(to.streams.begin(), to.streams.end(),
                                   [&](const Stream& stream) { return stream.url == url; });
    if (same != to.streams.end()) {
      same->renditions.push_back(rendition);
      return nullptr;
    }
    Stream stream;
    stream.kind = rendition                ? kindOf(rendition->type)
                  : to.variant->hasVideo() ? StreamKind::Video
                                           : StreamKind::Audio;
    stream.renditions = {rendition};
    stream.reference = reference;
    stream.url = url;
    to.streams.push_back(std::move(stream));
    return nullptr;
  };
  if (auto error = add(to.variant->uri, nullptr))
    return error;
  for (const std::size_t index : choice->renditions) {
    const Rendition& rendition = master.renditions[index];
    if (!rendition.uri)
      to.withoutPlaylist.push_back(&rendition);
    else if (auto error = add(*rendition.uri, &rendition))
      return error;
  }
  return nullptr;
}

ErrorRef Streams::plan() {
  for (Stream& stream : streams) {
    // By the reference, not the address: a redirect may lead to another server every time.
    std::string directory = std::string(nameOf(stream.kind)) + "-" + hexOf(stringHash(stream.reference));
    ErrorRef error;
    stream.plan = StreamPlan::make(stream.playlist, stream.kind, std::move(directory), error);
    if (error)
      return error;
  }
  return nullptr;
}

} // namespace platform::assets
