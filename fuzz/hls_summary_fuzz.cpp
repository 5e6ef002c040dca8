// The summary of M3U8 playlists: any text is read, or refused with one kind of exception.
#include "fuzz/FuzzInput.h"
#include "fuzz/SilentLog.h"

#include "mpl/Exception.h"
#include "mpl/hls/HLSMasterPlaylist.h"
#include "mpl/hls/HLSMediaPlaylist.h"

using namespace mpl::hls;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto text = fuzzing::textOf(data, size);
  std::shared_ptr<HLSPlaylist> playlist;
  try {
    playlist = HLSPlaylist::parse(text.data(), text.size(), "");
  } catch (const mpl::ArgumentException&) {
    return 0;
  }
  if (const auto media = std::dynamic_pointer_cast<HLSMediaPlaylist>(playlist)) {
    fuzzing::require(media->segments.size() == media->extInfCount, "a segment for each entry");
    for (const Segment& segment : media->segments)
      fuzzing::require(segment.uri().isEmpty() || segment.duration > 0, "an address only with a duration");
  } else if (const auto master = std::dynamic_pointer_cast<HLSMasterPlaylist>(playlist)) {
    for (const VariantStream& variant : master->variants)
      for (const MediaRendition& rendition : variant.renditions)
        fuzzing::require(rendition.groupId.view() == variant.audioGroup.view() ||
                             rendition.groupId.view() == variant.subtitlesGroup.view() ||
                             rendition.groupId.view() == variant.closedCaptionsGroup.view(),
                         "a variant has renditions of its groups only");
  }
  return 0;
}
