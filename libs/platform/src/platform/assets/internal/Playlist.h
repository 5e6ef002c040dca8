#pragma once

#include "platform/foundation/URL.h"

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace platform::assets {

inline constexpr std::uint32_t none = UINT32_MAX;

/// Some bytes of a file: all of it when the length is negative.
struct Bytes {
  std::int64_t offset = 0;
  std::int64_t length = -1;
  friend bool operator==(const Bytes&, const Bytes&) = default;
};

/// EXT-X-KEY and EXT-X-SESSION-KEY.
struct PlaylistKey {
  std::string_view method;
  std::string_view uri;
  std::string_view iv;
  std::string_view keyFormat; ///< empty: "identity"
  std::string_view line;      ///< the attributes as written

  /// True for a key that stands readable behind its address, so that a copy of it serves as well.
  bool isFetched(const URL& base) const;
};

/// EXT-X-MAP.
struct PlaylistMap {
  std::string_view uri;
  Bytes bytes;
};

struct PlaylistSegment {
  std::string_view uri;
  Bytes bytes;
  double duration = 0; ///< seconds
  std::uint32_t map = none;
  /// The keys that begin to count with this segment are those of `MediaPlaylist::keys` from here …
  std::uint32_t firstKey = 0;
  /// … to here.
  std::uint32_t endKey = 0;
  bool discontinuity = false;
  bool gap = false; ///< there is nothing to fetch
};

struct MediaPlaylist {
  std::vector<PlaylistSegment> segments;
  std::vector<PlaylistKey> keys; ///< in order of their tags, METHOD=NONE included
  std::vector<PlaylistMap> maps; ///< in order of their tags, repeated ones included
  std::vector<std::pair<std::size_t, std::string_view>> programDates; ///< segment, date as written
  std::int64_t mediaSequence = 0;
  std::int64_t discontinuitySequence = 0;
  std::int64_t targetDuration = 0; ///< seconds, at least as long as every segment
  double duration = 0;             ///< of all segments, seconds
  bool ended = false;              ///< EXT-X-ENDLIST
  bool vod = false;                ///< EXT-X-PLAYLIST-TYPE:VOD
  bool framesOnly = false;

  /// True for a playlist that will not change any more.
  bool isComplete() const { return ended || vod; }
};

enum class RenditionType { Video, Audio, Subtitles, ClosedCaptions };

/// EXT-X-MEDIA.
struct Rendition {
  RenditionType type = RenditionType::Audio;
  std::string_view group, name;
  std::optional<std::string_view> uri; ///< nothing: it is in the variant's own media
  std::string_view language, associatedLanguage, characteristics, channels, instreamId;
  bool isDefault = false, isAutoselect = false, isForced = false;
};

/// EXT-X-STREAM-INF.
struct Variant {
  std::string_view uri;
  std::int64_t bandwidth = 0;
  std::optional<std::int64_t> averageBandwidth;
  std::optional<std::pair<int, int>> resolution;
  std::optional<double> frameRate;
  std::string_view codecs, supplementalCodecs, hdcpLevel, videoRange;
  std::string_view audio, video, subtitles, closedCaptions; ///< groups; empty: none
  bool noClosedCaptions = false;                            ///< CLOSED-CAPTIONS=NONE

  bool hasVideo() const;
};

/// EXT-X-SESSION-DATA.
struct SessionData {
  std::string_view id, value, uri, language;
};

struct MasterPlaylist {
  std::vector<Variant> variants;
  std::vector<Rendition> renditions;
  std::vector<SessionData> sessionData;
  std::vector<PlaylistKey> sessionKeys;
  std::size_t frameLists = 0; ///< EXT-X-I-FRAME-STREAM-INF, passed over
};

/// Variables of EXT-X-DEFINE.
using Variables = std::map<std::string, std::string, std::less<>>;

/// A playlist, read completely. The texts in it are views of what it keeps, so it is neither copied nor
/// moved.
class Playlist {
public:
  /// Bytes that a line may have; the longest that are met in practice are keys in data URLs.
  static constexpr std::size_t longestLine = 1 << 20;
  /// Longest variable references may make all texts together.
  static constexpr std::size_t mostSubstituted = 16 << 20;

  /// `url` is where the playlist came from, after redirects; `imported` are the variables of the master
  /// playlist.
  Playlist(std::string text, URL url, const Variables& imported = {});
  Playlist(const Playlist&) = delete;
  Playlist& operator=(const Playlist&) = delete;

  /// What is wrong with it, with the number of the line; empty when it is a playlist. Then all else counts.
  const std::string& error() const { return _error; }
  bool isMaster() const { return _isMaster; }
  const MasterPlaylist& master() const { return _master; }
  const MediaPlaylist& media() const { return _media; }
  const URL& url() const { return _url; }
  const std::string& text() const { return _text; }
  const Variables& variables() const { return _variables; }
  std::int64_t version() const { return _version; }
  bool hasIndependentSegments() const { return _independentSegments; }
  std::string_view start() const { return _start; } ///< attributes of EXT-X-START; empty: none

private:
  friend class PlaylistParser;
  std::string _error;
  std::string _text;
  URL _url;
  std::deque<std::string> _substituted;
  Variables _variables;
  bool _isMaster = false;
  bool _independentSegments = false;
  std::int64_t _version = 1;
  std::string_view _start;
  MasterPlaylist _master;
  MediaPlaylist _media;
};

/// The address behind a reference of a playlist at `base`, when it is one that can be fetched.
std::optional<URL> fetchableURL(std::string_view reference, const URL& base);

/// The lines of a text, without their ends.
class LineReader {
public:
  explicit LineReader(std::string_view text) : _rest(text) {}
  bool next(std::string_view& line);

private:
  std::string_view _rest;
};

/// Replaces "{$NAME}"; false when a name is not defined, or the result is too long.
bool substitute(std::string_view text, const Variables& variables, std::string& result);

} // namespace platform::assets
