// Manifests with long timelines: parsed, bound and listed in every quality, against libxml2 parsing the same
// bytes into its own tree.
#include "benchmarks/Measure.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVMovie.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylist.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylistFactory.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceListBuilder.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"

#include <libxml/parser.h>
#include <string>

namespace {

/// Every entry has a length of its own, as packagers write audio.
platform::Data mpdOf(std::size_t entries) {
  std::string text = R"(<?xml version="1.0" encoding="UTF-8"?>
<MPD xmlns="urn:mpeg:dash:schema:mpd:2011" type="static" mediaPresentationDuration="PT120H">
 <Period id="p" start="PT0S">
  <AdaptationSet mimeType="video/mp4" lang="en">
   <SegmentTemplate timescale="90000" initialization="$RepresentationID$/init.mp4" media="$RepresentationID$/$Time$.m4s">
    <SegmentTimeline>
)";
  std::size_t time = 0;
  for (std::size_t i = 0; i < entries; ++i) {
    const std::size_t length = 360000 + i % 7;
    text += "     <S t=\"" + std::to_string(time) + "\" d=\"" + std::to_string(length) + "\"/>\n";
    time += length;
  }
  text += R"(    </SegmentTimeline>
   </SegmentTemplate>
   <Representation id="v1" bandwidth="3000000" codecs="avc1.640028" width="1920" height="1080"/>
  </AdaptationSet>
 </Period>
</MPD>
)";
  return {text.begin(), text.end()};
}

/// Every chunk with all that an encoder writes about it.
platform::Data smoothOf(std::size_t qualities, std::size_t chunks) {
  std::string text = R"(<?xml version="1.0" encoding="UTF-8"?>
<SmoothStreamingMedia MajorVersion="2" MinorVersion="0" TimeScale="10000000" Duration="1000000000000">
 <StreamIndex Type="video" Name="video" Chunks=")" +
                     std::to_string(chunks) + "\" QualityLevels=\"" + std::to_string(qualities) +
                     R"(" MaxWidth="1920" MaxHeight="1080" DisplayWidth="1920" DisplayHeight="1080" )"
                     "Url=\"QualityLevels({bitrate})/Fragments(video={start time})\">\n";
  for (std::size_t i = 0; i < qualities; ++i)
    text += "  <QualityLevel Index=\"" + std::to_string(i) + "\" Bitrate=\"" +
            std::to_string(500'000 * (i + 1)) +
            R"(" FourCC="H264" MaxWidth="1920" MaxHeight="1080" CodecPrivateData="000000016742C00BDA0A37E4"/>
)";
  std::size_t time = 0;
  for (std::size_t i = 0; i < chunks; ++i) {
    const std::size_t length = 20'000'000 + i % 7;
    text += "  <c n=\"" + std::to_string(i) + "\" t=\"" + std::to_string(time) + "\" d=\"" +
            std::to_string(length) + "\"/>\n";
    time += length;
  }
  text += " </StreamIndex>\n</SmoothStreamingMedia>\n";
  return {text.begin(), text.end()};
}

/// Reports what one manifest takes, under names that begin with `name`; false when it could not be measured.
bool measure(const std::string& name, const platform::Data& manifest, std::size_t qualities,
             std::size_t resources, std::size_t runs) {
  std::vector<double> ours, reading, listing, libxml, bytes;
  for (std::size_t run = 0; run < runs + 1; ++run) {
    std::shared_ptr<QVPlaylist> playlist;
    std::vector<QVResourceListRef> lists;
    const double read =
        bench::millisecondsOf([&] { playlist = QVPlaylistFactory::generateWithData(manifest); });
    const std::size_t before = bench::heapInUse();
    const double listed = bench::millisecondsOf([&] {
      for (const auto& quality : playlist->movies()[0]->tracks()[0]->qualities())
        lists.push_back(quality->resourceBuilder()->fillResourcesWithBaseURL("http://host/movie/"));
    });
    const std::size_t after = bench::heapInUse();
    for (const auto& list : lists)
      if (lists.size() != qualities || list->size() != resources)
        return std::fprintf(stderr, "%zu resources were listed\n", list->size()), false;
    lists.clear(), playlist.reset();
    bench::settleHeap();

    xmlDocPtr document = nullptr;
    const double parsed = bench::millisecondsOf([&] {
      document = xmlReadMemory(reinterpret_cast<const char*>(manifest.data()),
                               static_cast<int>(manifest.size()), nullptr, nullptr, XML_PARSE_NONET);
    });
    if (!document)
      return std::fputs("libxml2 refused the manifest\n", stderr), false;
    xmlFreeDoc(document);
    bench::settleHeap();
    if (run == 0)
      continue; // the first one pays for fresh pages
    ours.push_back(read + listed), reading.push_back(read), listing.push_back(listed),
        libxml.push_back(parsed);
    bytes.push_back(static_cast<double>(after - before) / static_cast<double>(qualities * resources));
  }
  bench::report(name.c_str(), bench::median(ours), "ms", bench::median(libxml));
  bench::report((name + "_parse_and_bind").c_str(), bench::median(reading), "ms");
  bench::report((name + "_list").c_str(), bench::median(listing), "ms");
  bench::report((name + "_memory").c_str(), bench::median(bytes), "bytes");
  return true;
}

} // namespace

int main(int argc, char** argv) {
  const std::size_t runs = bench::option(argc, argv, "--runs", 5);
  const std::size_t entries = bench::option(argc, argv, "--entries", 100'000);
  const std::size_t chunks = bench::option(argc, argv, "--chunks", 50'000);
  constexpr std::size_t qualities = 6;
  const bool done = measure("manifest", mpdOf(entries), 1, entries + 1, runs) &&
                    measure("smooth_manifest", smoothOf(qualities, chunks), qualities, chunks, runs);
  return done ? 0 : 1;
}
