#pragma once

namespace qvc {
class FastString;
}

namespace mpl::hls {

/// The tags that are read, without the leading "#". Names are compared case-sensitively; every other tag is
/// passed over.
namespace tags {
inline constexpr const char* M3U = "EXTM3U";
inline constexpr const char* Version = "EXT-X-VERSION";
inline constexpr const char* Inf = "EXTINF";
inline constexpr const char* ByteRange = "EXT-X-BYTERANGE";
inline constexpr const char* Key = "EXT-X-KEY";
inline constexpr const char* TargetDuration = "EXT-X-TARGETDURATION";
inline constexpr const char* Media = "EXT-X-MEDIA";
inline constexpr const char* StreamInf = "EXT-X-STREAM-INF";
inline constexpr const char* SessionKey = "EXT-X-SESSION-KEY";
} // namespace tags

/// Stand in either kind of playlist.
bool isCommonTag(const qvc::FastString& name) noexcept;
/// Say something of one segment; only in media playlists.
bool isMediaSegmentTag(const qvc::FastString& name) noexcept;
/// Say something of a whole media playlist.
bool isMediaPlaylistTag(const qvc::FastString& name) noexcept;
/// Only in master playlists.
bool isMasterPlaylistTag(const qvc::FastString& name) noexcept;

} // namespace mpl::hls
