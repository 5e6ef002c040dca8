#include "halvix/Tracks.h"

#include "platform/foundation/JSON.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace halvix {

namespace {

using platform::JSON;

template <class T, class Same> bool addMissing(std::vector<T>& into, const std::vector<T>& from, Same same) {
  bool grew = false;
  for (const T& candidate : from) {
    if (std::any_of(into.begin(), into.end(), [&](const T& held) { return same(held, candidate); }))
      continue;
    into.push_back(candidate);
    grew = true;
  }
  return grew;
}

/// The element with the same ids if its content is still the same, else the first with the same content: ids
/// of some presentations are mere positions, which move when the presentation changes.
template <class Rendition, class Track>
const Rendition* findRendition(const std::vector<Track>& tracks, const Rendition& wanted) {
  const Rendition* byContent = nullptr;
  for (const Track& track : tracks)
    for (const Rendition& offered : track.renditions)
      if (isSameRendition(offered, wanted)) {
        if (offered.trackId == wanted.trackId && offered.id == wanted.id)
          return &offered;
        if (!byContent)
          byContent = &offered;
      }
  return byContent;
}

const TextTrack* findText(const std::vector<TextTrack>& tracks, const TextTrack& wanted) {
  const TextTrack* byContent = nullptr;
  for (const TextTrack& offered : tracks)
    if (isSameTrack(offered, wanted)) {
      if (offered.id == wanted.id)
        return &offered;
      if (!byContent)
        byContent = &offered;
    }
  return byContent;
}

JSON toJSON(const Rendition& r) {
  JSON json{{"id", r.id}, {"track", r.trackId}, {"bitrate", r.bitrate}, {"codec", r.codec}};
  if (!r.fourCC.empty())
    json["fourCC"] = r.fourCC;
  return json;
}

// Reading takes what is there and leaves the rest at its default: a choice that an older version wrote stays
// usable.
std::string text(const JSON& json, const char* key) {
  auto it = json.find(key);
  return it != json.end() && it->is_string() ? it->get<std::string>() : std::string();
}

std::int64_t number(const JSON& json, const char* key) {
  auto it = json.find(key);
  return it != json.end() && it->is_number_integer() ? it->get<std::int64_t>() : 0;
}

bool flag(const JSON& json, const char* key) {
  auto it = json.find(key);
  return it != json.end() && it->is_boolean() && it->get<bool>();
}

void readRendition(const JSON& json, Rendition& r) {
  r.id = text(json, "id");
  r.trackId = text(json, "track");
  r.bitrate = number(json, "bitrate");
  r.codec = text(json, "codec");
  r.fourCC = text(json, "fourCC");
}

template <class Visit> void forEachObject(const JSON& json, const char* key, Visit visit) {
  auto it = json.find(key);
  if (it == json.end() || !it->is_array())
    return;
  for (const JSON& element : *it)
    if (element.is_object())
      visit(element);
}

} // namespace

bool isSameRendition(const VideoRendition& a, const VideoRendition& b) {
  return a.bitrate == b.bitrate && a.codec == b.codec && a.width == b.width && a.height == b.height;
}

bool isSameRendition(const AudioRendition& a, const AudioRendition& b) {
  return a.bitrate == b.bitrate && a.codec == b.codec && a.language == b.language;
}

bool isSameTrack(const TextTrack& a, const TextTrack& b) {
  return a.language == b.language && a.source == b.source && a.kind == b.kind && a.forced == b.forced;
}

bool Selection::merge(const Selection& other) {
  // Two offered renditions may look alike and still be two, so here the ids count as well.
  auto sameRendition = [](const auto& a, const auto& b) {
    return a.id == b.id && a.trackId == b.trackId && isSameRendition(a, b);
  };
  bool grew = addMissing(video, other.video, sameRendition);
  grew = addMissing(audio, other.audio, sameRendition) || grew;
  return addMissing(
             text, other.text,
             [](const TextTrack& a, const TextTrack& b) { return a.id == b.id && isSameTrack(a, b); }) ||
         grew;
}

Selection Selection::matchedAgainst(const Tracks& tracks) const {
  Selection offered;
  for (const VideoRendition& wanted : video)
    if (const VideoRendition* found = findRendition(tracks.video, wanted))
      offered.video.push_back(*found);
  for (const AudioRendition& wanted : audio)
    if (const AudioRendition* found = findRendition(tracks.audio, wanted))
      offered.audio.push_back(*found);
  for (const TextTrack& wanted : text)
    if (const TextTrack* found = findText(tracks.text, wanted))
      offered.text.push_back(*found);
  Selection distinct; // two wishes may have met in one offer
  distinct.merge(offered);
  return distinct;
}

std::string Selection::serialized() const {
  if (empty())
    return {};
  JSON json = JSON::object();
  for (const VideoRendition& r : video) {
    JSON element = toJSON(r);
    element["width"] = r.width;
    element["height"] = r.height;
    json["video"].push_back(std::move(element));
  }
  for (const AudioRendition& r : audio) {
    JSON element = toJSON(r);
    element["language"] = r.language;
    json["audio"].push_back(std::move(element));
  }
  for (const TextTrack& t : text)
    json["text"].push_back({{"id", t.id},
                            {"language", t.language},
                            {"source", t.source},
                            {"kind", t.kind},
                            {"forced", t.forced}});
  return platform::serializeJSON(json);
}

std::optional<Selection> Selection::deserialized(std::string_view serializedText) {
  Selection selection;
  if (serializedText.empty())
    return selection;
  auto json = platform::parseJSON(serializedText);
  if (!json || !json->is_object())
    return std::nullopt;
  forEachObject(*json, "video", [&](const JSON& element) {
    VideoRendition r;
    readRendition(element, r);
    r.width = static_cast<int>(number(element, "width"));
    r.height = static_cast<int>(number(element, "height"));
    selection.video.push_back(std::move(r));
  });
  forEachObject(*json, "audio", [&](const JSON& element) {
    AudioRendition r;
    readRendition(element, r);
    r.language = halvix::text(element, "language");
    selection.audio.push_back(std::move(r));
  });
  forEachObject(*json, "text", [&](const JSON& element) {
    TextTrack t;
    t.id = halvix::text(element, "id");
    t.language = halvix::text(element, "language");
    t.source = halvix::text(element, "source");
    t.kind = halvix::text(element, "kind");
    t.forced = flag(element, "forced");
    selection.text.push_back(std::move(t));
  });
  return selection;
}

} // namespace halvix
