#pragma once

#include "platform/foundation/Locale.h"

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

class URLAsset;
namespace assets {
struct AssetModel;
}

// Media characteristics.
inline constexpr const char* AVMediaCharacteristicVisual = "AVMediaCharacteristicVisual";
inline constexpr const char* AVMediaCharacteristicAudible = "AVMediaCharacteristicAudible";
inline constexpr const char* AVMediaCharacteristicLegible = "AVMediaCharacteristicLegible";
inline constexpr const char* AVMediaCharacteristicContainsOnlyForcedSubtitles =
    "public.subtitles.forced-only";

// Media types.
inline constexpr const char* AVMediaTypeVideo = "vide";
inline constexpr const char* AVMediaTypeAudio = "soun";
inline constexpr const char* AVMediaTypeSubtitle = "sbtl";
inline constexpr const char* AVMediaTypeClosedCaption = "clcp";

// Metadata.
inline constexpr const char* AVMetadataCommonKeyTitle = "title";
inline constexpr const char* AVMetadataKeySpaceCommon = "comn";

/// One piece of metadata. Plain value.
struct MetadataItem {
  std::string key;
  std::string keySpace;
  std::string stringValue;
  std::optional<std::string> extendedLanguageTag; ///< of the text; nothing when it is in no particular one

  /// The items of that key and key space, in their order.
  static std::vector<MetadataItem> metadataItemsFromArrayWithKey(const std::vector<MetadataItem>& items,
                                                                 std::string_view key,
                                                                 std::string_view keySpace);

  /// The items in one of the languages, best language first, then those in no particular language. When that
  /// leaves nothing: all items in their order.
  static std::vector<MetadataItem> metadataItemsFromArrayFilteredAndSortedAccordingToPreferredLanguages(
      const std::vector<MetadataItem>& items, const std::vector<std::string>& languages);
};

/// One choice of a group: a language of the audio, a subtitle track. Immutable; thread-safe.
///
/// A playlist may hold one choice in several qualities (rendition groups); it is one option here. Renditions
/// of one group that differ in their characteristics are several.
class MediaSelectionOption {
public:
  /// The name of the option's language in the user's language when no other option of the group has that
  /// language, else the playlist's name for it; "Unknown" for an option without a language.
  const std::string& displayName() const { return _displayName; }
  std::optional<Locale> locale() const;
  /// The language as the playlist writes it ("en-GB"); nothing when it tells none.
  const std::optional<std::string>& extendedLanguageTag() const { return _language; }
  const std::string& mediaType() const { return _mediaType; }
  /// One of the characteristics above, or one of the playlist's ("public.accessibility.describes-video").
  bool hasMediaCharacteristic(std::string_view characteristic) const;
  /// The playlist's name for the option as a title.
  std::vector<MetadataItem> commonMetadata() const;
  /// The playlist's name for the option; never empty.
  const std::string& name() const { return _name; }
  bool isDefault() const { return _default; }
  bool isAutoselect() const { return _autoselect; }

private:
  friend struct assets::AssetModel;
  std::string _displayName, _name, _mediaType, _distinction;
  std::optional<std::string> _language;
  std::vector<std::string> _characteristics;
  bool _default = false, _autoselect = false, _forced = false;
};
using MediaSelectionOptionRef = std::shared_ptr<const MediaSelectionOption>;

/// The options of one characteristic of which a player plays at most one at a time. Immutable; thread-safe.
class MediaSelectionGroup {
public:
  const std::string& characteristic() const { return _characteristic; }
  /// In the playlist's order; never empty.
  const std::vector<MediaSelectionOptionRef>& options() const { return _options; }
  /// What plays when nobody chooses: the one marked as default; null when none is.
  MediaSelectionOptionRef defaultOption() const;
  /// False when one of them must be selected (sound and picture); captions may be off.
  bool allowsEmptySelection() const;

private:
  friend struct assets::AssetModel;
  std::string _characteristic;
  std::vector<MediaSelectionOptionRef> _options;
};
using MediaSelectionGroupRef = std::shared_ptr<const MediaSelectionGroup>;

class MutableMediaSelection;

/// One option, or none, for each group of an asset. A value; keeps its groups and options alive.
class MediaSelection {
public:
  MediaSelection() = default;

  /// The option that is selected in `group`; null for none.
  MediaSelectionOptionRef selectedMediaOptionInMediaSelectionGroup(const MediaSelectionGroup& group) const;
  MutableMediaSelection mutableCopy() const;

protected:
  friend struct assets::AssetModel;
  /// Visual, audible, legible.
  std::array<MediaSelectionOptionRef, 3> _selected;
};

/// A selection that can be changed. For one thread at a time.
class MutableMediaSelection : public MediaSelection {
public:
  MutableMediaSelection() = default;
  explicit MutableMediaSelection(const MediaSelection& other) : MediaSelection(other) {}

  /// Selects an option of the group, replacing the one that was selected; null selects none. An option that
  /// is not of the group changes nothing.
  void selectMediaOptionInMediaSelectionGroup(const MediaSelectionOptionRef& option,
                                              const MediaSelectionGroup& group);
};

} // namespace platform
