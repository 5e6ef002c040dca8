#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace halvix {

/// One encoding of a track. Plain values; copies are independent.
struct Rendition {
  std::string id;           ///< unique within its track
  std::string trackId;      ///< id of the track that it belongs to
  std::int64_t bitrate = 0; ///< bits per second, 0 unknown
  /// The downloader's description of the encoding; with the bitrate it identifies what to fetch.
  std::string codec;
  std::string fourCC;                        ///< four-character code of the encoding, empty unknown
  std::optional<std::int64_t> estimatedSize; ///< bytes that fetching it will take
  bool downloaded = false;                   ///< wholly on disk already
};

struct VideoRendition : Rendition {
  int width = 0;  ///< pixels, 0 unknown
  int height = 0; ///< pixels, 0 unknown
};

struct AudioRendition : Rendition {
  std::string language; ///< as the presentation writes it, empty unknown
  int sampleRate = 0;   ///< Hz, 0 unknown
  int channels = 0;     ///< 0 unknown
};

struct VideoTrack {
  std::string id; ///< unique within the download
  std::string label;
  std::string language;
  std::vector<VideoRendition> renditions;
};

struct AudioTrack {
  std::string id;
  std::string label;
  std::string language;
  std::vector<AudioRendition> renditions;
};

enum class TextTrackFormat { unknown, web_vtt, ttml };

/// A text track has one rendition, so it is chosen as a whole.
struct TextTrack {
  std::string id;
  std::string label;
  std::string language;
  /// The downloader's description of where the text comes from; with the language it identifies what to
  /// fetch.
  std::string source;
  std::string kind = "subtitles"; ///< "subtitles" or "captions"
  TextTrackFormat format = TextTrackFormat::unknown;
  bool forced = false;
  std::int64_t bitrate = 0; ///< bits per second, 0 unknown
  std::string fourCC;
  std::optional<std::int64_t> estimatedSize;
  bool downloaded = false;
};

/// Everything that a prepared download offers. Immutable once it was given to a download.
struct Tracks {
  std::vector<VideoTrack> video;
  std::vector<AudioTrack> audio;
  std::vector<TextTrack> text;

  bool empty() const { return video.empty() && audio.empty() && text.empty(); }
  /// False when there is nothing that could be selected, as in content that is one stream; it is then
  /// downloaded without a selection.
  bool offersChoice() const {
    auto offers = [](const auto& track) { return !track.renditions.empty(); };
    return !text.empty() || std::any_of(video.begin(), video.end(), offers) ||
           std::any_of(audio.begin(), audio.end(), offers);
  }
};

/// What an application chose of the tracks. It is kept with the download, so that a later process can go on
/// without being told again.
struct Selection {
  std::vector<VideoRendition> video;
  std::vector<AudioRendition> audio;
  std::vector<TextTrack> text;

  bool empty() const { return video.empty() && audio.empty() && text.empty(); }
  std::size_t size() const { return video.size() + audio.size() + text.size(); }

  /// Adds what `other` has and this has not; answers whether anything was added.
  bool merge(const Selection& other);

  /// The same choice in the terms of `tracks`: every element is looked up there, by its ids, else by what
  /// identifies its content, and replaced by what was found. What is no longer offered is left out.
  Selection matchedAgainst(const Tracks& tracks) const;

  /// JSON for the store. An empty selection is an empty text.
  std::string serialized() const;
  /// Nothing when the text is no selection.
  static std::optional<Selection> deserialized(std::string_view text);
};

/// True when both name the same content, whatever their measured values are.
bool isSameRendition(const VideoRendition& a, const VideoRendition& b);
bool isSameRendition(const AudioRendition& a, const AudioRendition& b);
bool isSameTrack(const TextTrack& a, const TextTrack& b);

} // namespace halvix
