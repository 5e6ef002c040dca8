#include "platform/assets/internal/AssetModel.h"

#include "platform/foundation/Locale.h"

#include <algorithm>
#include <map>
#include <set>

namespace platform::assets {

namespace {

constexpr const char* characteristics[] = {AVMediaCharacteristicVisual, AVMediaCharacteristicAudible,
                                           AVMediaCharacteristicLegible};
enum Place : std::size_t { Visual, Audible, Legible };

std::string mediaTypeOf(RenditionType type) {
  switch (type) {
  case RenditionType::Video:
    return AVMediaTypeVideo;
  case RenditionType::Audio:
    return AVMediaTypeAudio;
  case RenditionType::Subtitles:
    return AVMediaTypeSubtitle;
  case RenditionType::ClosedCaptions:
    return AVMediaTypeClosedCaption;
  }
  return {};
}

Place placeOf(RenditionType type) {
  return type == RenditionType::Video ? Visual : type == RenditionType::Audio ? Audible : Legible;
}

OptionKey withoutCharacteristics(const Rendition& rendition) {
  return {mediaTypeOf(rendition.type), std::string(rendition.name), std::string(rendition.language),
          rendition.isForced, ""};
}

OptionKey withoutCharacteristics(OptionKey key) {
  key.characteristics.clear();
  return key;
}

std::string_view groupOf(const Variant& variant, const std::string& mediaType) {
  return mediaType == AVMediaTypeVideo      ? variant.video
         : mediaType == AVMediaTypeAudio    ? variant.audio
         : mediaType == AVMediaTypeSubtitle ? variant.subtitles
                                            : variant.closedCaptions;
}

bool isForAccessibility(const MediaSelectionOption& option) {
  return option.hasMediaCharacteristic("public.accessibility.describes-video") ||
         option.hasMediaCharacteristic("public.accessibility.transcribes-spoken-dialog");
}

bool isIn(const MediaSelectionOption& option, const std::string& language) {
  return option.extendedLanguageTag() &&
         Locale::canonicalLanguage(*option.extendedLanguageTag()) == Locale::canonicalLanguage(language);
}

// Among the options that may be chosen automatically.
MediaSelectionOptionRef bestIn(const MediaSelectionGroup& group, const std::string& language) {
  MediaSelectionOptionRef best;
  const auto rank = [](const MediaSelectionOption& option) {
    return (option.isDefault() ? 2 : 0) + (isForAccessibility(option) ? 0 : 1);
  };
  for (const auto& option : group.options())
    if (option->isAutoselect() && isIn(*option, language) && (!best || rank(*option) > rank(*best)))
      best = option;
  return best;
}

} // namespace

std::optional<std::size_t> AssetModel::placeOf(const std::string& characteristic) {
  const auto found = std::find(std::begin(characteristics), std::end(characteristics), characteristic);
  if (found == std::end(characteristics))
    return std::nullopt;
  return static_cast<std::size_t>(found - std::begin(characteristics));
}

std::shared_ptr<const AssetModel> AssetModel::make(PlaylistRef playlist,
                                                   const std::vector<std::string>& languages) {
  auto model = std::make_shared<AssetModel>();
  model->playlist = std::move(playlist);
  if (model->playlist->isMaster()) {
    const auto wanted = languages.empty() ? std::vector{Locale::current().identifier()} : languages;
    model->findAmbiguous();
    model->makeGroups(wanted);
    model->prefer(wanted);
  }
  return model;
}

void AssetModel::findAmbiguous() {
  std::map<std::pair<std::string_view, OptionKey>, std::string_view> first;
  for (const auto& rendition : playlist->master().renditions) {
    auto key = withoutCharacteristics(rendition);
    const auto [known, added] = first.emplace(std::pair(rendition.group, key), rendition.characteristics);
    if (!added && known->second != rendition.characteristics)
      _ambiguous.insert(std::move(key));
  }
}

OptionKey AssetModel::keyOf(const Rendition& rendition) const {
  auto key = withoutCharacteristics(rendition);
  if (_ambiguous.contains(key))
    key.characteristics = rendition.characteristics;
  return key;
}

OptionKey AssetModel::keyOf(const MediaSelectionOption& option) {
  return {option.mediaType(), option.name(), option.extendedLanguageTag().value_or(""), option._forced,
          option._distinction};
}

void AssetModel::makeGroups(const std::vector<std::string>& languages) {
  std::array<std::vector<std::shared_ptr<MediaSelectionOption>>, 3> lists;
  std::array<std::map<std::string, int>, 3> languageCounts;
  std::set<OptionKey> seen;
  for (const auto& rendition : playlist->master().renditions) {
    auto key = keyOf(rendition);
    if (!seen.insert(key).second)
      continue;
    auto option = std::make_shared<MediaSelectionOption>();
    option->_distinction = std::move(key.characteristics);
    option->_name = rendition.name;
    option->_mediaType = mediaTypeOf(rendition.type);
    if (!rendition.language.empty())
      option->_language = std::string(rendition.language);
    option->_default = rendition.isDefault;
    option->_autoselect = rendition.isAutoselect;
    option->_forced = rendition.isForced;
    for (std::string_view rest = rendition.characteristics; !rest.empty();) {
      const std::string_view one = rest.substr(0, rest.find(','));
      option->_characteristics.emplace_back(one);
      rest.remove_prefix(std::min(one.size() + 1, rest.size()));
    }
    const Place place = assets::placeOf(rendition.type);
    if (option->_language)
      ++languageCounts[place][Locale::canonicalLanguage(*option->_language)];
    lists[place].push_back(std::move(option));
  }
  const Locale locale(languages.front());
  for (std::size_t place = 0; place < lists.size(); ++place) {
    if (lists[place].empty())
      continue;
    auto group = std::make_shared<MediaSelectionGroup>();
    group->_characteristic = characteristics[place];
    for (auto& option : lists[place]) {
      option->_displayName = "Unknown";
      if (option->_language) {
        const auto name = locale.displayNameForLanguageCode(*option->_language);
        const bool alone = languageCounts[place][Locale::canonicalLanguage(*option->_language)] == 1;
        option->_displayName = alone && name ? *name : option->_name;
      }
      group->_options.push_back(std::move(option));
    }
    groups[place] = std::move(group);
  }
}

void AssetModel::prefer(const std::vector<std::string>& languages) {
  for (const Place place : {Visual, Audible}) {
    if (!groups[place])
      continue;
    auto& selected = preferred._selected[place];
    if (place == Audible)
      for (std::size_t i = 0; i < languages.size() && !selected; ++i)
        selected = bestIn(*groups[place], languages[i]);
    if (!selected)
      selected = groups[place]->defaultOption();
    const auto& options = groups[place]->options();
    if (!selected) {
      const auto automatic = std::find_if(options.begin(), options.end(),
                                          [](const auto& option) { return option->isAutoselect(); });
      selected = automatic != options.end() ? *automatic : options.front();
    }
  }
  if (!groups[Legible])
    return;
  preferred._selected[Legible] = groups[Legible]->defaultOption();
  const auto& sound = preferred._selected[Audible];
  if (preferred._selected[Legible] || !sound || !sound->extendedLanguageTag())
    return;
  for (const auto& option : groups[Legible]->options())
    if (option->_forced && option->isAutoselect() && isIn(*option, *sound->extendedLanguageTag())) {
      preferred._selected[Legible] = option;
      return;
    }
}

Wish AssetModel::wish(const std::vector<MediaSelection>& selections,
                      std::optional<std::int64_t> minimumBitrate) const {
  Wish wish;
  wish.minimumBitrate = minimumBitrate;
  std::set<OptionKey> seen;
  const auto add = [&](const MediaSelection& selection) {
    for (const auto& option : selection._selected)
      if (option && seen.insert(keyOf(*option)).second)
        wish.options.push_back(keyOf(*option));
  };
  for (const auto& selection : selections)
    add(selection);
  if (selections.empty())
    add(preferred);
  return wish;
}

std::optional<Choice> AssetModel::choose(const Wish& wish, std::string& why) const {
  const MasterPlaylist& master = playlist->master();
  // group → option → rendition, for each media type.
  using Group = std::map<OptionKey, std::size_t>;
  std::map<std::pair<std::string, std::string_view>, Group> renditions;
  for (std::size_t i = 0; i < master.renditions.size(); ++i) {
    const Rendition& rendition = master.renditions[i];
    renditions[{mediaTypeOf(rendition.type), rendition.group}].emplace(keyOf(rendition), i);
  }
  // A wish that tells no characteristics is content with any when no rendition is without.
  for (std::size_t i = 0; i < master.renditions.size(); ++i) {
    const Rendition& rendition = master.renditions[i];
    renditions[{mediaTypeOf(rendition.type), rendition.group}].emplace(withoutCharacteristics(rendition), i);
  }
  const auto find = [&](const Variant& variant, const OptionKey& option) {
    const auto group = renditions.find({option.mediaType, groupOf(variant, option.mediaType)});
    if (group == renditions.end())
      return std::optional<std::size_t>();
    const auto base = withoutCharacteristics(option);
    const auto found = group->second.find(_ambiguous.contains(base) ? option : base);
    return found == group->second.end() ? std::optional<std::size_t>() : std::optional(found->second);
  };

  const bool anyVideo = std::any_of(master.variants.begin(), master.variants.end(),
                                    [](const Variant& variant) { return variant.hasVideo(); });
  std::optional<std::size_t> atOrAbove, highest;
  const OptionKey* missing = nullptr;
  // A variant without a group for the sound has it in its own media; such a one is taken when no other has
  // all.
  for (const bool ownMediaCounts : {false, true}) {
    for (std::size_t i = 0; i < master.variants.size(); ++i) {
      const Variant& variant = master.variants[i];
      if (anyVideo && !variant.hasVideo())
        continue;
      const auto lacking = [&](const OptionKey& option) {
        if (option.mediaType == AVMediaTypeClosedCaption || find(variant, option))
          return false; // captions in the picture come with any
        return !ownMediaCounts || option.mediaType == AVMediaTypeSubtitle ||
               !groupOf(variant, option.mediaType).empty();
      };
      const auto first = std::find_if(wish.options.begin(), wish.options.end(), lacking);
      if (first != wish.options.end()) {
        missing = &*first;
        continue;
      }
      if (!highest || variant.bandwidth > master.variants[*highest].bandwidth)
        highest = i;
      if (wish.minimumBitrate && variant.bandwidth >= *wish.minimumBitrate &&
          (!atOrAbove || variant.bandwidth < master.variants[*atOrAbove].bandwidth))
        atOrAbove = i;
    }
    if (highest)
      break;
  }
  if (!highest) {
    why = missing ? "no variant offers everything that was selected (\"" + missing->name + "\")"
                  : "it names no variant";
    return std::nullopt;
  }
  Choice choice;
  choice.variant = atOrAbove.value_or(*highest);
  for (const auto& option : wish.options)
    if (const auto rendition = find(master.variants[choice.variant], option))
      choice.renditions.push_back(*rendition);
  return choice;
}

} // namespace platform::assets
