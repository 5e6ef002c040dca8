#pragma once

#include "platform/assets/MediaSelection.h"
#include "platform/assets/internal/PlaylistFetch.h"

#include <array>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace platform::assets {

/// What names an option across loads of a playlist: rendition groups repeat it, and another process has
/// another object for it.
struct OptionKey {
  std::string mediaType, name, language;
  bool forced = false;
  std::string
      characteristics; ///< as written, where renditions of one group differ in nothing else; else empty
  friend auto operator<=>(const OptionKey&, const OptionKey&) = default;
};

/// What is to be fetched of an asset.
struct Wish {
  std::vector<OptionKey> options; ///< of all selections, without repetition
  std::optional<std::int64_t> minimumBitrate;
};

/// A variant, and the renditions that go with it; indices into the master playlist.
struct Choice {
  std::size_t variant = 0;
  std::vector<std::size_t> renditions;
};

/// An asset's playlist as choices. Immutable.
struct AssetModel {
  /// `languages`: the user's, best first.
  static std::shared_ptr<const AssetModel> make(PlaylistRef playlist,
                                                const std::vector<std::string>& languages);

  PlaylistRef playlist;
  std::array<MediaSelectionGroupRef, 3> groups; ///< visual, audible, legible; null: no choice
  MediaSelection preferred;

  /// What the selections want; the preferred one when there is none.
  Wish wish(const std::vector<MediaSelection>& selections, std::optional<std::int64_t> minimumBitrate) const;

  /// The variant and the renditions for a wish; nothing with `why` set when no variant has all of them. Only
  /// for a master playlist.
  std::optional<Choice> choose(const Wish& wish, std::string& why) const;

  /// The place of a group in selections, none for an unknown characteristic.
  static std::optional<std::size_t> placeOf(const std::string& characteristic);

private:
  void findAmbiguous();
  OptionKey keyOf(const Rendition& rendition) const;
  static OptionKey keyOf(const MediaSelectionOption& option);
  void makeGroups(const std::vector<std::string>& languages);
  void prefer(const std::vector<std::string>& languages);

  std::set<OptionKey> _ambiguous; ///< without characteristics, which it takes to tell several apart
};

} // namespace platform::assets
