#pragma once

#include "platform/assets/internal/AssetModel.h"
#include "platform/assets/internal/StreamPlan.h"

#include <string>
#include <vector>

namespace platform::assets {

inline constexpr const char* masterPlaylistName = "master.m3u8";
inline constexpr const char* mediaPlaylistName = "playlist.m3u8";
/// Stands, with an extension, where the playlist says that there is nothing.
inline constexpr const char* gapName = "gap";

/// The local media playlist of the first `segments` segments, all of which must be on disk. Tags are kept as
/// they are, with addresses of ours where something was fetched.
std::string localMediaPlaylist(const StreamPlan& plan, std::size_t segments);

/// A stream as the local master playlist lists it.
struct LocalStream {
  const Rendition* rendition = nullptr; ///< null: the variant
  std::string playlist;                 ///< below the package; empty: in the variant's own media
};

/// The local master playlist. `master` and `variant` are null for an asset that is a media playlist;
/// `bandwidth` counts then.
std::string localMasterPlaylist(const Playlist* master, const Variant* variant,
                                const std::vector<LocalStream>& streams, std::int64_t bandwidth);

} // namespace platform::assets
