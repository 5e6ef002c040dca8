#include "platform/assets/MediaSelection.h"

#include "platform/assets/internal/AssetModel.h"

#include <algorithm>

namespace platform {

std::vector<MetadataItem> MetadataItem::metadataItemsFromArrayWithKey(const std::vector<MetadataItem>& items,
                                                                      std::string_view key,
                                                                      std::string_view keySpace) {
  std::vector<MetadataItem> found;
  for (const auto& item : items)
    if (item.key == key && item.keySpace == keySpace)
      found.push_back(item);
  return found;
}

std::vector<MetadataItem> MetadataItem::metadataItemsFromArrayFilteredAndSortedAccordingToPreferredLanguages(
    const std::vector<MetadataItem>& items, const std::vector<std::string>& languages) {
  std::vector<MetadataItem> sorted;
  for (const auto& language : languages)
    for (const auto& item : items)
      if (item.extendedLanguageTag &&
          Locale::canonicalLanguage(*item.extendedLanguageTag) == Locale::canonicalLanguage(language))
        sorted.push_back(item);
  for (const auto& item : items)
    if (!item.extendedLanguageTag)
      sorted.push_back(item);
  return sorted.empty() ? items : sorted;
}

std::optional<Locale> MediaSelectionOption::locale() const {
  return _language ? std::optional(Locale(*_language)) : std::nullopt;
}

bool MediaSelectionOption::hasMediaCharacteristic(std::string_view characteristic) const {
  if (characteristic == AVMediaCharacteristicContainsOnlyForcedSubtitles)
    return _forced;
  if (characteristic == AVMediaCharacteristicVisual)
    return _mediaType == AVMediaTypeVideo;
  if (characteristic == AVMediaCharacteristicAudible)
    return _mediaType == AVMediaTypeAudio;
  if (characteristic == AVMediaCharacteristicLegible)
    return _mediaType == AVMediaTypeSubtitle || _mediaType == AVMediaTypeClosedCaption;
  return std::find(_characteristics.begin(), _characteristics.end(), characteristic) !=
         _characteristics.end();
}

std::vector<MetadataItem> MediaSelectionOption::commonMetadata() const {
  return {{AVMetadataCommonKeyTitle, AVMetadataKeySpaceCommon, _name, std::nullopt}};
}

MediaSelectionOptionRef MediaSelectionGroup::defaultOption() const {
  const auto found =
      std::find_if(_options.begin(), _options.end(), [](const auto& option) { return option->isDefault(); });
  return found == _options.end() ? nullptr : *found;
}

bool MediaSelectionGroup::allowsEmptySelection() const {
  return _characteristic == AVMediaCharacteristicLegible;
}

MediaSelectionOptionRef
MediaSelection::selectedMediaOptionInMediaSelectionGroup(const MediaSelectionGroup& group) const {
  const auto place = assets::AssetModel::placeOf(group.characteristic());
  return place ? _selected[*place] : nullptr;
}

MutableMediaSelection MediaSelection::mutableCopy() const {
  return MutableMediaSelection(*this);
}

void MutableMediaSelection::selectMediaOptionInMediaSelectionGroup(const MediaSelectionOptionRef& option,
                                                                   const MediaSelectionGroup& group) {
  const auto place = assets::AssetModel::placeOf(group.characteristic());
  const auto& options = group.options();
  if (place && (!option || std::find(options.begin(), options.end(), option) != options.end()))
    _selected[*place] = option;
}

} // namespace platform
