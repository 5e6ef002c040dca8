// A hostile manifest: parsed, its segments asked for, and its resources listed as a download would.
#include "fuzz/FuzzInput.h"
#include "fuzz/SilentLog.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVMovie.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylist.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylistFactory.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVRangedURL.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceListBuilder.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"
#include "mpl/Exception.h"
#include "mpl/dash/AdaptationSet.h"
#include "mpl/dash/MediaPresentationDescription.h"
#include "mpl/dash/Representation.h"
#include "platform/foundation/Exception.h"
#include "platform/foundation/URL.h"
#include "platform/transfer/URLRequest.h"

#include <algorithm>

using namespace mpl::dash;

namespace {

constexpr std::int64_t mostSegments = 200; // of one representation, from each end
constexpr std::size_t mostResources =
    20'000; // listed in all: a few bytes can claim a million for each quality

/// What a manifest may claim is refused by these, and by nothing else.
template <class Ask> void ask(Ask&& question) {
  try {
    question();
  } catch (const mpl::StateException&) {
  } catch (const mpl::ArgumentException&) {
  } catch (const std::out_of_range&) {
  }
}

void readSegment(const SegmentIndex& index, std::int64_t number, std::int64_t durationUs) {
  const auto segment = static_cast<std::int32_t>(number);
  ask([&] { index.getSegmentURL(segment).reference.resolve(); });
  ask([&] { index.getDurationUs(segment, durationUs); });
  ask([&] { index.getSegmentNum(index.getTimeUs(segment), durationUs); });
}

void readRepresentation(const Representation& representation, std::int64_t durationUs) {
  ask([&] { representation.getInitialization().reference.resolve(); });
  ask([&] { representation.getPresentationTimeOffsetUs(); });
  ask([&] { representation.getIndexURI().reference.resolve(); });
  ask([&] {
    const SegmentIndex& index = representation.getIndex();
    const std::int64_t first = index.getFirstSegmentNum();
    const std::int64_t last = index.getLastSegmentNum(durationUs);
    for (std::int64_t n = first; n <= last && n < first + mostSegments; ++n)
      readSegment(index, n, durationUs);
    for (std::int64_t n = std::max(first, last - mostSegments); n <= last; ++n)
      readSegment(index, n, durationUs);
    if (first <= last)
      readSegment(index, std::min<std::int64_t>(last + 1, INT32_MAX), durationUs);
  });
}

/// How many resources the manifest claims in all; it decides whether the lists are made.
std::int64_t readManifest(std::string_view text) {
  std::int64_t claimed = 0;
  const auto manifest = MediaPresentationDescription::parse(text.data(), text.size(), "http://host/a/b.mpd");
  fuzzing::require(manifest && !manifest->periods().empty(), "a parsed manifest is whole");
  for (const auto& period : manifest->periods()) {
    const std::int64_t durationUs =
        period->duration() < 0 || period->duration() > INT64_MAX / 1000 ? -1 : period->duration() * 1000;
    for (const auto& set : period->adaptationSets())
      for (const auto& representation : set->representations()) {
        readRepresentation(*representation, durationUs);
        ask([&] {
          const SegmentIndex& index = representation->getIndex();
          claimed += std::max<std::int64_t>(0, std::int64_t{index.getLastSegmentNum(durationUs)} -
                                                   index.getFirstSegmentNum() + 1);
        });
      }
  }
  return claimed;
}

void listResources(const QVQuality& quality) {
  try {
    const auto list = quality.resourceBuilder()->fillResourcesWithBaseURL("http://host/a/");
    for (std::size_t n = 0; list && n < list->size() && n < std::size_t{mostSegments}; ++n)
      (*list)[n]->prepareRequest();
  } catch (const platform::Exception&) {
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::int64_t claimed = 0;
  try {
    claimed = readManifest(fuzzing::textOf(data, size));
  } catch (const mpl::ParseException&) {
  } catch (const mpl::StateException&) {
  } catch (const mpl::ArgumentException&) {
  }
  if (claimed > std::int64_t{mostResources})
    return 0;
  try {
    const auto playlist = QVPlaylistFactory::generateWithData(platform::Data(data, data + size));
    if (!playlist)
      return 0;
    for (const auto& movie : playlist->movies())
      for (const auto& track : movie->tracks())
        for (const auto& quality : track->qualities())
          listResources(*quality);
  } catch (const platform::Exception&) {
  }
  return 0;
}
