#include "platform/assets/AssetPackage.h"

#include "platform/assets/internal/Package.h"
#include "platform/assets/internal/Playlist.h"
#include "platform/assets/internal/PlaylistWriter.h"
#include "platform/assets/internal/StreamPlan.h"
#include "platform/foundation/FileManager.h"

#include <algorithm>
#include <set>

namespace platform {

namespace {

using namespace assets;

// A name in one of our playlists; a playlist that somebody else changed does not lead out of its directory.
void addFile(AssetPackage::Stream& stream, std::set<std::string>& seen, const std::string& package,
             const std::string& directory, std::string_view name) {
  if (!seen.insert(std::string(name)).second)
    return;
  const std::string path = directory + "/" + std::string(name);
  const auto parsed = parseFileName(name);
  std::optional<FileAttributes> attributes;
  if (parsed && name.find('/') == std::string_view::npos)
    attributes = FileManager::attributesOfItemAtPath(package + "/" + path);
  stream.files.push_back(path);
  if (!attributes || attributes->type != FileAttributes::Type::Regular || attributes->size != parsed->second)
    stream.damaged.push_back(path);
  if (attributes)
    stream.bytes += attributes->size;
}

void readStream(AssetPackage::Stream& stream, const std::string& package, const std::string& directory) {
  const auto data = FileManager::contentsAtPath(package + "/" + stream.playlist);
  if (!data) {
    if (stream.complete)
      stream.damaged.push_back(stream.playlist);
    return;
  }
  const Playlist playlist(std::string(data->begin(), data->end()), URL::fileURLWithPath(package));
  if (!playlist.error().empty() || playlist.isMaster()) {
    stream.damaged.push_back(stream.playlist);
    return;
  }
  const MediaPlaylist& media = playlist.media();
  stream.duration = media.duration;
  std::set<std::string> seen;
  for (const auto& key : media.keys)
    if (parseFileName(key.uri))
      addFile(stream, seen, package, directory, key.uri);
  for (const auto& map : media.maps)
    addFile(stream, seen, package, directory, map.uri);
  for (const auto& segment : media.segments)
    if (!segment.gap)
      addFile(stream, seen, package, directory, segment.uri);
}

} // namespace

std::string AssetPackage::masterPlaylistPath(const std::string& packagePath) {
  return packagePath + "/" + masterPlaylistName;
}

bool AssetPackage::isIntact() const {
  return std::all_of(streams.begin(), streams.end(),
                     [](const Stream& stream) { return stream.damaged.empty(); });
}

std::optional<AssetPackage> AssetPackage::packageAtPath(const std::string& path, ErrorRef* error) {
  auto state = readPackageState(path, error);
  if (!state)
    return std::nullopt;
  AssetPackage package;
  package.path = path;
  package.url = std::move(state->url);
  package.title = std::move(state->title);
  package.complete = state->complete;
  for (auto& stored : state->streams) {
    Stream stream;
    stream.kind = std::move(stored.kind);
    stream.name = std::move(stored.name);
    stream.language = std::move(stored.language);
    stream.complete = stored.complete;
    stream.playlist = stored.directory + "/" + mediaPlaylistName;
    readStream(stream, path, stored.directory);
    package.streams.push_back(std::move(stream));
  }
  if (package.complete && !FileManager::fileExistsAtPath(masterPlaylistPath(path)) &&
      !package.streams.empty())
    package.streams.front().damaged.push_back(masterPlaylistName);
  return package;
}

} // namespace platform
