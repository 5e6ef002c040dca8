#pragma once

#include "halvix/Tracks.h"

#include "platform/assets/MediaSelection.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace halvix {
class Download;
}
namespace platform {
class URLAsset;
}
struct HLSPlaylist;

/// The option's name for a person; an option of unknown name goes by its title in the best of the languages.
/// Nothing when it has none.
std::optional<std::string> getOptionDisplayName(const platform::MediaSelectionOption& option,
                                                const std::vector<std::string>& preferredLanguages);

/// A legible option as a text track; `index` is its place in the group.
halvix::TextTrack toTextTrack(const platform::MediaSelectionOption& option, std::size_t index);

/// A loaded asset and its playlist's summary in the host's terms: an audio track for each audible option, a
/// text track for each legible one, and one video track with a rendition for each quality. Identifiers tell
/// the place in the group, or the bit rate.
halvix::Tracks describeTracks(const platform::URLAsset& asset, const HLSPlaylist& playlist);

/// The same of a summary alone: the video track.
halvix::Tracks describeTracks(const HLSPlaylist& playlist);

/// The media selections that hold every chosen audio rendition and text track of the download. Where nothing
/// is chosen, what the asset prefers stays. Never empty.
std::vector<platform::MediaSelection> mapSelectedTracksToMediaSelections(const halvix::Download& download,
                                                                         const platform::URLAsset& asset);

/// The title with every character that is no letter, mark or digit replaced by "_".
std::string sanitizeAssetTitle(const std::string& title);
