// A hostile Smooth Streaming manifest: parsed, its fragments listed, and bound as a download would.
#include "fuzz/FuzzInput.h"
#include "fuzz/SilentLog.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVMovie.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylist.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylistFactory.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVRangedURL.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceListBuilder.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"
#include "mpl/RangedURI.h"
#include "mpl/smoothstreaming/Media.h"
#include "mpl/smoothstreaming/StreamElement.h"
#include "platform/foundation/Exception.h"
#include "platform/foundation/URL.h"
#include "platform/transfer/URLRequest.h"
#include "qvc/xml/Parser.h"

#include <algorithm>
#include <limits>

namespace {

constexpr std::uint64_t mostFragments = 20'000; // in all: a few bytes can claim billions for each quality

/// How many fragments the manifest claims in all; they are listed when that is few.
std::uint64_t readManifest(std::string_view text) {
  qvc::xml::Element root;
  if (qvc::xml::Parser::parse(root, text.data(), text.size(), nullptr) != qvc::qvc_Success)
    return 0;
  const SmoothStreaming::Media media(root);
  std::uint64_t claimed = 0;
  for (const auto& stream : media.streamElements()) {
    const std::uint64_t listed = stream->numberOfListedFragments();
    fuzzing::require(listed <= stream->numberOfFragments(), "no more is listed than is declared");
    for (std::size_t n = 0; n < stream->numberOfTracks(); ++n) {
      if (listed > mostFragments || (claimed += listed) > mostFragments)
        return std::numeric_limits<std::uint64_t>::max();
      std::vector<mpl::RangedURI> list;
      stream->fillListOfURL("http://host/a/", n, list);
      fuzzing::require(list.size() == listed, "as many are listed as are counted");
    }
  }
  return claimed;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  bool parsed = true;
  std::uint64_t claimed = 0;
  try {
    claimed = readManifest(fuzzing::textOf(data, size));
  } catch (const std::invalid_argument&) {
    parsed = false;
  } catch (const std::out_of_range&) {
    parsed = false;
  } catch (const std::runtime_error&) {
    parsed = false;
  }
  if (claimed > mostFragments)
    return 0;
  try {
    const auto playlist = QVPlaylistFactory::smoothGenerateWithData(platform::Data(data, data + size));
    fuzzing::require(playlist && parsed, "what the tree refuses is not bound");
    for (const auto& movie : playlist->movies())
      for (const auto& track : movie->tracks())
        for (const auto& quality : track->qualities()) {
          const auto list = quality->resourceBuilder()->fillResourcesWithBaseURL("http://host/a/");
          for (std::size_t n = 0; n < std::min<std::size_t>(list->size(), 200); ++n)
            (*list)[n]->prepareRequest();
        }
  } catch (const platform::Exception&) {
  }
  return 0;
}
