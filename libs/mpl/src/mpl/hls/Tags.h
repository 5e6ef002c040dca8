#pragma once

#include <string_view>

namespace mpl::hls {

/// The tags that are read, without the leading "#". Names are compared case-sensitively; every other tag is
/// passed over.
namespace tags {
inline constexpr std::string_view M3U = "EXTM3U";
inline constexpr std::string_view Version = "EXT-X-VERSION";
inline constexpr std::string_view Inf = "EXTINF";
inline constexpr std::string_view ByteRange = "EXT-X-BYTERANGE";
inline constexpr std::string_view Key = "EXT-X-KEY";
inline constexpr std::string_view TargetDuration = "EXT-X-TARGETDURATION";
inline constexpr std::string_view Media = "EXT-X-MEDIA";
inline constexpr std::string_view StreamInf = "EXT-X-STREAM-INF";
inline constexpr std::string_view SessionKey = "EXT-X-SESSION-KEY";
} // namespace tags

/// Stand in either kind of playlist.
bool isCommonTag(std::string_view name) noexcept;
/// Say something of one segment; only in media playlists.
bool isMediaSegmentTag(std::string_view name) noexcept;
/// Say something of a whole media playlist.
bool isMediaPlaylistTag(std::string_view name) noexcept;
/// Only in master playlists.
bool isMasterPlaylistTag(std::string_view name) noexcept;

} // namespace mpl::hls
