#include "platform/assets/internal/StreamPlan.h"

#include "platform/assets/internal/AssetErrors.h"
#include "platform/foundation/StringHash.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <unordered_map>

namespace platform::assets {

namespace {

// Players judge by these names, and some refuse what they find behind another; nothing else of the origin's
// is let into a file name. "m4v", "m4i", "cmft", "mp2t" and "webvtt" are refused by ffmpeg, and all that use
// it.
constexpr std::array<std::string_view, 12> extensions{"ts",  "mp4", "m4s", "m4a",  "cmfv", "cmfa",
                                                      "aac", "ac3", "ec3", "eac3", "mp3",  "vtt"};
constexpr const char* keyExtension = "key.ts"; // a key behind ".key" is refused, too

std::string_view extensionOf(std::string_view reference) {
  reference = reference.substr(0, reference.find_first_of("?#"));
  const std::size_t dot = reference.rfind('.');
  if (dot == std::string_view::npos)
    return {};
  const std::string_view own = reference.substr(dot + 1);
  const auto found = std::find(extensions.begin(), extensions.end(), own);
  return found == extensions.end() ? std::string_view() : *found;
}

std::uint64_t identityOf(std::string_view reference, const Bytes& bytes, std::string& buffer) {
  buffer.assign(reference);
  if (bytes.length >= 0)
    buffer.append("\n").append(std::to_string(bytes.offset)).append("+").append(std::to_string(bytes.length));
  return stringHash(std::string_view(buffer));
}

} // namespace

const char* nameOf(StreamKind kind) {
  return kind == StreamKind::Video ? "video" : kind == StreamKind::Audio ? "audio" : "text";
}

std::string hexOf(std::uint64_t value) {
  std::string text(16, '0');
  for (std::size_t i = 16; i-- > 0; value >>= 4)
    text[i] = "0123456789abcdef"[value & 15];
  return text;
}

std::optional<std::pair<std::uint64_t, std::int64_t>> parseFileName(std::string_view name) {
  std::uint64_t identity = 0;
  std::int64_t size = 0;
  if (name.size() < 18 || name[16] != '-')
    return std::nullopt;
  if (const auto [end, error] = std::from_chars(name.data(), name.data() + 16, identity, 16);
      error != std::errc() || end != name.data() + 16)
    return std::nullopt;
  const auto [end, error] = std::from_chars(name.data() + 17, name.data() + name.size(), size);
  if (error != std::errc() || end == name.data() + name.size() || *end != '.' || size < 0)
    return std::nullopt;
  return std::pair(identity, size);
}

std::unique_ptr<StreamPlan> StreamPlan::make(PlaylistRef playlist, StreamKind kind, std::string directory,
                                             ErrorRef& error) {
  std::unique_ptr<StreamPlan> plan(new StreamPlan(std::move(playlist), kind, std::move(directory)));
  error = plan->build();
  return error ? nullptr : std::move(plan);
}

ErrorRef StreamPlan::checkReference(std::string_view reference, const char* what) const {
  // Only what names a scheme can lead to something else than the playlist's own http.
  const std::size_t end = reference.find_first_of(":/?#");
  if (end == std::string_view::npos || reference[end] != ':' || fetchableURL(reference, _playlist->url()))
    return nullptr;
  return assetError(AVErrorOperationNotSupportedForAsset, "The media playlist",
                    _playlist->url().absoluteString(),
                    std::string(what) + " stands at \"" + std::string(reference.substr(0, 200)) +
                        "\", which is no http or https address",
                    "Only media behind http or https can be downloaded");
}

ErrorRef StreamPlan::build() {
  const std::string address = _playlist->url().absoluteString();
  if (_playlist->isMaster())
    return assetError(AVErrorFileFormatNotRecognized, "The media playlist", address,
                      "it is a master playlist where a media playlist was expected",
                      "Check what the master playlist names as its variants");
  const MediaPlaylist& media = _playlist->media();
  if (!media.isComplete())
    return assetError(AVErrorOperationNotSupportedForAsset, "The media playlist", address,
                      "it has no end (neither EXT-X-ENDLIST nor the type VOD), so this is a live stream",
                      "Download it when the event is over and its playlist complete");
  if (media.segments.empty())
    return assetError(AVErrorContentIsUnavailable, "The media playlist", address, "it names no segments",
                      "Check whether the content is published completely, or choose another quality");

  _segmentPlaces.resize(media.segments.size());
  _mapPlaces.resize(media.maps.size());
  _keyResources.assign(media.keys.size(), none);
  _starts.reserve(media.segments.size() + 1);
  _starts.push_back(0);
  std::uint32_t map = none;
  for (std::size_t i = 0; i < media.segments.size(); ++i) {
    const PlaylistSegment& segment = media.segments[i];
    _starts.push_back(_starts.back() + segment.duration);
    for (std::uint32_t k = segment.firstKey; k < segment.endKey; ++k) {
      const PlaylistKey& key = media.keys[k];
      if (key.isFetched(_playlist->url())) {
        _keyResources[k] = piece(key.uri, {}, i, ResourceKind::Key).resource;
      } else if (key.method == "AES-128" && (key.keyFormat.empty() || key.keyFormat == "identity") &&
                 !key.uri.starts_with("data:")) {
        if (auto error = checkReference(key.uri, "a key"))
          return error;
      }
    }
    // The maps between two segments that only the last one counts of still need a place.
    if (segment.map != map && segment.map != none) {
      const PlaylistMap& now = media.maps[segment.map];
      if (map != none && media.maps[map].uri == now.uri && media.maps[map].bytes == now.bytes) {
        _mapPlaces[segment.map] = _mapPlaces[map];
      } else {
        if (auto error = checkReference(now.uri, "an initialization section"))
          return error;
        _mapPlaces[segment.map] = piece(now.uri, now.bytes, i, ResourceKind::Map);
      }
    }
    map = segment.map;
    if (segment.gap)
      continue;
    if (auto error = checkReference(segment.uri, "a segment"))
      return error;
    _segmentPlaces[i] = piece(segment.uri, segment.bytes, i, ResourceKind::Media);
  }
  shareRepeated();
  indexSegments();
  return nullptr;
}

Place StreamPlan::piece(std::string_view reference, const Bytes& bytes, std::size_t segment,
                        ResourceKind kind) {
  if (!_resources.empty() && bytes.length >= 0) {
    PlannedResource& last = _resources.back();
    if (last.kind != ResourceKind::Key && last.bytes.length >= 0 && last.reference == reference &&
        last.bytes.offset + last.bytes.length == bytes.offset && last.bytes.length <= largestPiece &&
        bytes.length <= largestPiece - last.bytes.length) {
      last.bytes.length += bytes.length;
      last.kind = ResourceKind::Media;
      return {static_cast<std::uint32_t>(_resources.size() - 1), bytes.offset - last.bytes.offset};
    }
  }
  PlannedResource resource;
  resource.reference = reference;
  resource.bytes = bytes;
  resource.firstSegment = static_cast<std::uint32_t>(segment);
  resource.kind = kind;
  _resources.push_back(resource);
  return {static_cast<std::uint32_t>(_resources.size() - 1), 0};
}

// Slates and keys come again and again: the first one stands for all.
void StreamPlan::shareRepeated() {
  std::vector<std::uint32_t> to(_resources.size());
  std::unordered_map<std::uint64_t, std::uint32_t> known;
  known.reserve(_resources.size());
  std::string buffer;
  std::uint32_t kept = 0;
  for (std::uint32_t i = 0; i < _resources.size(); ++i) {
    PlannedResource& resource = _resources[i];
    // A name of 64 bits that is taken by other content is left to it.
    for (resource.identity = identityOf(resource.reference, resource.bytes, buffer);; ++resource.identity) {
      const auto [entry, added] = known.emplace(resource.identity, kept);
      if (added) {
        to[i] = kept;
        _resources[kept++] = resource;
        break;
      }
      const PlannedResource& other = _resources[entry->second];
      if (other.reference == resource.reference && other.bytes == resource.bytes) {
        to[i] = entry->second;
        break;
      }
    }
  }
  _resources.resize(kept);
  _resources.shrink_to_fit();
  for (auto* places : {&_segmentPlaces, &_mapPlaces})
    for (Place& place : *places)
      if (place.resource != none)
        place.resource = to[place.resource];
  for (auto& key : _keyResources)
    if (key != none)
      key = to[key];
}

void StreamPlan::indexSegments() {
  _firstOf.assign(_resources.size() + 1, 0);
  for (const Place& place : _segmentPlaces)
    if (place.resource != none)
      ++_firstOf[place.resource + 1];
  for (std::size_t i = 1; i < _firstOf.size(); ++i)
    _firstOf[i] += _firstOf[i - 1];
  _ofResource.resize(_firstOf.back());
  auto next = _firstOf;
  for (std::uint32_t i = 0; i < _segmentPlaces.size(); ++i) {
    if (_segmentPlaces[i].resource != none)
      _ofResource[next[_segmentPlaces[i].resource]++] = i;
    else
      _loaded.add(i, i + 1); // a gap
  }
}

std::string StreamPlan::fileName(std::size_t index) const {
  const PlannedResource& resource = _resources[index];
  return fileName(index, resource.size >= 0 ? resource.size : resource.bytes.length);
}

std::string StreamPlan::fileName(std::size_t index, std::int64_t size) const {
  const PlannedResource& resource = _resources[index];
  std::string name = hexOf(resource.identity);
  if (size >= 0)
    name += "-" + std::to_string(size);
  name += ".";
  return name.append(resource.kind == ResourceKind::Key ? keyExtension : extensionFor(resource.reference));
}

std::string_view StreamPlan::extensionFor(std::string_view reference) const {
  if (const std::string_view own = extensionOf(reference); !own.empty())
    return own;
  return !_playlist->media().maps.empty() ? "mp4" : _kind == StreamKind::Text ? "vtt" : "ts";
}

std::optional<URL> StreamPlan::url(std::size_t resource) const {
  return fetchableURL(_resources[resource].reference, _playlist->url());
}

std::vector<std::string> StreamPlan::adopt(const std::vector<std::pair<std::string, std::int64_t>>& files) {
  std::unordered_map<std::uint64_t, std::pair<std::size_t, std::int64_t>> found; // identity → file, size
  std::vector<std::string> strays;
  for (std::size_t i = 0; i < files.size(); ++i) {
    const auto parsed = parseFileName(files[i].first);
    // A file of another size than its name tells was damaged after it was stored; an empty one is fetched
    // again for nothing.
    if (parsed && parsed->second == files[i].second && parsed->second > 0 &&
        found.emplace(parsed->first, std::pair(i, parsed->second)).second)
      continue;
    strays.push_back(files[i].first);
  }
  for (std::size_t i = 0; i < _resources.size() && !found.empty(); ++i) {
    const auto entry = found.find(_resources[i].identity);
    if (entry == found.end())
      continue;
    const auto [file, size] = entry->second;
    const std::int64_t wanted = _resources[i].bytes.length;
    if ((wanted < 0 || wanted == size) && fileName(i, size) == files[file].first) {
      markDone(i, size);
      found.erase(entry);
    }
  }
  for (const auto& [identity, file] : found)
    strays.push_back(files[file.first].first);
  return strays;
}

void StreamPlan::markDone(std::size_t index, std::int64_t size) {
  PlannedResource& resource = _resources[index];
  if (resource.size >= 0)
    return;
  resource.size = size;
  ++_done;
  _doneBytes += size;
  for (std::uint32_t i = _firstOf[index]; i < _firstOf[index + 1]; ++i)
    _loaded.add(_ofResource[i], _ofResource[i] + 1);
}

std::size_t StreamPlan::playableSegments() {
  while (_firstMissing < _resources.size() && _resources[_firstMissing].size >= 0)
    ++_firstMissing;
  return _firstMissing == _resources.size() ? _segmentPlaces.size() : _resources[_firstMissing].firstSegment;
}

std::optional<std::size_t> StreamPlan::nextMissing() {
  while (_cursor < _resources.size() && _resources[_cursor].size >= 0)
    ++_cursor;
  return _cursor < _resources.size() ? std::optional(_cursor) : std::nullopt;
}

} // namespace platform::assets
