#include "TolvaneDownloader/HLSDownloader/AssetDescription.h"

#include "TolvaneDownloader/HLSDownloader/HLSPlaylistDownloader.h"

#include "halvix/Download.h"
#include "platform/assets/URLAsset.h"
#include "platform/foundation/CharacterSet.h"

#include <algorithm>
#include <map>
#include <tuple>

using platform::MediaSelectionGroup;
using platform::MediaSelectionGroupRef;
using platform::MediaSelectionOption;
using platform::MediaSelectionOptionRef;

namespace {

std::string audioTrackId(std::size_t index) {
  return "audio-" + std::to_string(index);
}
std::string textTrackId(std::size_t index) {
  return "text-" + std::to_string(index);
}

halvix::VideoTrack toVideoTrack(const HLSPlaylist& playlist) {
  halvix::VideoTrack track;
  track.id = "video-0";
  // The summary has no order; renditions keep theirs from one time to the next.
  std::vector<HLSStreamQuality> qualities = playlist.qualities;
  std::sort(qualities.begin(), qualities.end(), [](const HLSStreamQuality& a, const HLSStreamQuality& b) {
    return std::tie(a.bitrate, a.resolutionHeight, a.resolutionWidth, a.averageBitrate) <
           std::tie(b.bitrate, b.resolutionHeight, b.resolutionWidth, b.averageBitrate);
  });
  std::map<std::uint64_t, int> sameBitrate;
  for (const HLSStreamQuality& quality : qualities) {
    halvix::VideoRendition rendition;
    rendition.id = std::to_string(quality.bitrate);
    if (const int before = sameBitrate[quality.bitrate]++; before > 0)
      rendition.id += "-" + std::to_string(before + 1);
    rendition.trackId = track.id;
    rendition.bitrate = static_cast<std::int64_t>(quality.bitrate);
    rendition.width = static_cast<int>(quality.resolutionWidth);
    rendition.height = static_cast<int>(quality.resolutionHeight);
    track.renditions.push_back(std::move(rendition));
  }
  return track;
}

halvix::AudioTrack toAudioTrack(const MediaSelectionOption& option, std::size_t index,
                                const std::vector<std::string>& preferredLanguages) {
  halvix::AudioTrack track;
  track.id = audioTrackId(index);
  track.label = getOptionDisplayName(option, preferredLanguages).value_or("");
  track.language = option.extendedLanguageTag().value_or("");
  halvix::AudioRendition rendition;
  rendition.id = track.id;
  rendition.trackId = track.id;
  rendition.language = track.language;
  rendition.codec = option.name(); // tells options of one language apart
  track.renditions.push_back(std::move(rendition));
  return track;
}

const std::vector<std::string>& languagesOf(const platform::URLAsset& asset) {
  return asset.environment().preferredLanguages;
}

/// The option that speaks the language; of several the one with the track's identifier, else the first.
template <class IdentifierOf>
MediaSelectionOptionRef findOption(const MediaSelectionGroup& group, const std::string& language,
                                   const std::string& trackId, const IdentifierOf& identifierOf) {
  MediaSelectionOptionRef first;
  for (std::size_t i = 0; i < group.options().size(); ++i) {
    const MediaSelectionOptionRef& option = group.options()[i];
    const auto locale = option->locale();
    // The whole tag counts too: a track is described by it.
    const bool speaks = option->extendedLanguageTag().value_or("") == language ||
                        (locale && locale->languageCode() == language);
    if (!speaks)
      continue;
    if (identifierOf(i) == trackId)
      return option;
    if (!first)
      first = option;
  }
  return first;
}

} // namespace

std::optional<std::string> getOptionDisplayName(const MediaSelectionOption& option,
                                                const std::vector<std::string>& preferredLanguages) {
  if (option.displayName() != "Unknown")
    return option.displayName();
  using platform::MetadataItem;
  const auto titles = MetadataItem::metadataItemsFromArrayFilteredAndSortedAccordingToPreferredLanguages(
      MetadataItem::metadataItemsFromArrayWithKey(option.commonMetadata(), platform::AVMetadataCommonKeyTitle,
                                                  platform::AVMetadataKeySpaceCommon),
      preferredLanguages);
  if (titles.empty())
    return std::nullopt;
  return titles.front().stringValue;
}

halvix::TextTrack toTextTrack(const MediaSelectionOption& option, std::size_t index) {
  halvix::TextTrack track;
  track.id = textTrackId(index);
  track.label = option.displayName();
  track.language = option.extendedLanguageTag().value_or("");
  track.source = option.name();
  track.format = halvix::TextTrackFormat::web_vtt;
  track.forced = option.hasMediaCharacteristic(platform::AVMediaCharacteristicContainsOnlyForcedSubtitles);
  track.kind = option.mediaType() == platform::AVMediaTypeClosedCaption ? "captions" : "subtitles";
  return track;
}

halvix::Tracks describeTracks(const HLSPlaylist& playlist) {
  halvix::Tracks tracks;
  tracks.video.push_back(toVideoTrack(playlist));
  return tracks;
}

halvix::Tracks describeTracks(const platform::URLAsset& asset, const HLSPlaylist& playlist) {
  halvix::Tracks tracks = describeTracks(playlist);
  if (const auto group =
          asset.mediaSelectionGroupForMediaCharacteristic(platform::AVMediaCharacteristicAudible))
    for (const auto& option : group->options())
      tracks.audio.push_back(toAudioTrack(*option, tracks.audio.size(), languagesOf(asset)));
  if (const auto group =
          asset.mediaSelectionGroupForMediaCharacteristic(platform::AVMediaCharacteristicLegible))
    for (const auto& option : group->options())
      tracks.text.push_back(toTextTrack(*option, tracks.text.size()));
  return tracks;
}

std::vector<platform::MediaSelection> mapSelectedTracksToMediaSelections(const halvix::Download& download,
                                                                         const platform::URLAsset& asset) {
  std::vector<MediaSelectionOptionRef> sounds, texts;
  const auto audible =
      asset.mediaSelectionGroupForMediaCharacteristic(platform::AVMediaCharacteristicAudible);
  const auto legible =
      asset.mediaSelectionGroupForMediaCharacteristic(platform::AVMediaCharacteristicLegible);
  if (audible) {
    const auto tracks = download.audioTracks();
    for (const auto& rendition : download.selectedAudioRenditions())
      for (const auto& track : tracks)
        if (track.id == rendition.trackId)
          if (auto option = findOption(*audible, track.language, track.id, audioTrackId))
            sounds.push_back(std::move(option));
  }
  if (legible)
    for (const auto& track : download.selectedTextTracks())
      if (auto option = findOption(*legible, track.language, track.id, textTrackId))
        texts.push_back(std::move(option));

  // A selection holds one option of a group, so there are as many as the longer list needs. A list that is at
  // its end repeats its last option, so that nothing comes along that was not chosen.
  std::vector<platform::MediaSelection> selections;
  const std::size_t count = std::max({sounds.size(), texts.size(), std::size_t(1)});
  for (std::size_t i = 0; i < count; ++i) {
    auto selection = asset.preferredMediaSelection().mutableCopy();
    if (!sounds.empty())
      selection.selectMediaOptionInMediaSelectionGroup(sounds[std::min(i, sounds.size() - 1)], *audible);
    if (!texts.empty())
      selection.selectMediaOptionInMediaSelectionGroup(texts[std::min(i, texts.size() - 1)], *legible);
    selections.push_back(std::move(selection));
  }
  return selections;
}

std::string sanitizeAssetTitle(const std::string& title) {
  const auto pieces = platform::componentsSeparatedByNonAlphanumericCharacters(title);
  std::string text = pieces.front();
  for (std::size_t i = 1; i < pieces.size(); ++i)
    text.append("_").append(pieces[i]);
  return text;
}
