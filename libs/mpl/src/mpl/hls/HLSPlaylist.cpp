#include "mpl/hls/HLSPlaylist.h"

#include "mpl/Exception.h"
#include "mpl/hls/HLSMasterPlaylist.h"
#include "mpl/hls/LineParsers.h"
#include "mpl/hls/LineText.h"
#include "mpl/hls/Tags.h"
#include "mpl/hls/TextBuffer.h"

#include <istream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace mpl::hls {

using qvc::FastString;

namespace {

/// The renditions of a master playlist by type and group.
class RenditionGroups {
public:
  explicit RenditionGroups(const std::unordered_set<MediaRendition>& renditions) {
    for (const MediaRendition& rendition : renditions)
      groupsOf(rendition.type)[rendition.groupId.view()].push_back(&rendition);
  }

  void addTo(VariantStream& variant) {
    add(variant, MediaRendition::Type::audio, variant.audioGroup);
    add(variant, MediaRendition::Type::subtitles, variant.subtitlesGroup);
    add(variant, MediaRendition::Type::closedCaptions, variant.closedCaptionsGroup);
  }

private:
  // The keys view the texts in the master's renditions.
  using Groups = std::unordered_map<std::string_view, std::vector<const MediaRendition*>>;

  Groups& groupsOf(MediaRendition::Type type) { return _groups[static_cast<std::size_t>(type)]; }

  void add(VariantStream& variant, MediaRendition::Type type, const FastString& group) {
    const Groups& groups = groupsOf(type);
    if (const auto found = groups.find(group.view()); found != groups.end())
      for (const MediaRendition* rendition : found->second)
        variant.renditions.insert(*rendition);
  }

  Groups _groups[3];
};

void attachRenditions(HLSMasterPlaylist& master) {
  RenditionGroups groups(master.renditions);
  std::unordered_set<VariantStream> rebuilt;
  rebuilt.reserve(master.variants.size());
  while (!master.variants.empty()) {
    auto node = master.variants.extract(master.variants.begin());
    groups.addTo(node.value());
    rebuilt.insert(std::move(node));
  }
  master.variants = std::move(rebuilt);
}

} // namespace

std::shared_ptr<HLSPlaylist> HLSPlaylist::parse(const char* data, unsigned long length, const FastString&) {
  if (length == 0)
    throw ArgumentException("Empty playlist data");
  TextBuffer buffer(std::string_view(data, length));
  std::istream stream(&buffer);
  if (getTagName(getLine(stream)).view() != tags::M3U)
    throw ArgumentException("The first line of every Media and Master Playlist must be: " +
                            std::string(tags::M3U));

  std::shared_ptr<HLSPlaylist> playlist;
  std::uint64_t version = 1;
  while (stream.peek() != std::char_traits<char>::eof())
    parseLine(playlist, version, getLine(stream), stream);

  if (!playlist)
    return nullptr;
  playlist->_version = version;
  if (playlist->type() == PlaylistType::master)
    attachRenditions(static_cast<HLSMasterPlaylist&>(*playlist));
  return playlist;
}

} // namespace mpl::hls
