// A hostile playlist: read, chosen from, planned, and written as a package would hold it.
#include "fuzz/FuzzInput.h"

#include "platform/assets/internal/AssetModel.h"
#include "platform/assets/internal/PlaylistWriter.h"
#include "platform/assets/internal/StreamPlan.h"

#include <set>

using namespace platform;
using namespace platform::assets;

namespace {

std::shared_ptr<const Playlist> read(std::string text) {
  return std::make_shared<const Playlist>(std::move(text),
                                          *URL::URLWithString("http://host/a/list.m3u8?token=1&n=2"),
                                          Variables{{"imported", "value"}});
}

void choose(const PlaylistRef& playlist) {
  const auto model = AssetModel::make(playlist, {"en", "de"});
  std::string why;
  const auto choice = model->choose(model->wish({}, 500'000), why);
  fuzzing::require(choice.has_value() == why.empty(), "a choice, or a reason for none", why);
  if (!choice)
    return;
  const auto& master = playlist->master();
  std::vector<LocalStream> streams{{nullptr, "video-0/playlist.m3u8"}};
  for (const std::size_t index : choice->renditions)
    streams.push_back({&master.renditions[index], master.renditions[index].uri ? "r/playlist.m3u8" : ""});
  const auto local = read(localMasterPlaylist(playlist.get(), &master.variants[choice->variant], streams, 1));
  fuzzing::require(local->error().empty() && local->isMaster(), "the local master playlist is one",
                   local->error());
  fuzzing::require(local->master().variants.size() == 1, "it has the one variant");
}

void plan(const PlaylistRef& playlist) {
  ErrorRef error;
  const auto plan = StreamPlan::make(playlist, StreamKind::Video, "video-0", error);
  fuzzing::require(!plan == !!error, "a plan, or a reason for none");
  if (!plan)
    return;
  const auto count = playlist->media().segments.size();
  std::set<std::string> names;
  while (const auto next = plan->nextMissing()) {
    plan->take();
    plan->markDone(*next, 1000);
    const auto name = plan->fileName(*next);
    fuzzing::require(parseFileName(name) && name.find('/') == std::string::npos, "a name is ours", name);
    fuzzing::require(names.insert(name).second, "a name is used once", name);
    plan->url(*next);
  }
  fuzzing::require(plan->isComplete() && plan->playableSegments() == count, "all of it can be fetched");
  fuzzing::require(plan->loaded().spans().size() == 1, "the whole is one span");
  for (const std::size_t segments : {count, count / 2}) {
    const auto local = read(localMediaPlaylist(*plan, segments));
    if (segments == 0)
      continue;
    fuzzing::require(local->error().empty() && !local->isMaster(), "the local media playlist is one",
                     local->error());
    fuzzing::require(local->media().segments.size() == segments && local->media().isComplete(),
                     "it has the segments");
    for (std::size_t i = 0; i < segments; ++i)
      fuzzing::require(local->media().segments[i].gap ||
                           names.contains(std::string(local->media().segments[i].uri)),
                       "it names what was fetched");
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto playlist = read(std::string(fuzzing::textOf(data, size)));
  if (!playlist->error().empty())
    return 0;
  if (playlist->isMaster())
    choose(playlist);
  else
    plan(playlist);
  return 0;
}
