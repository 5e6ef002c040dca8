// A manifest with a long timeline: parsed, bound and listed, against libxml2 parsing the same bytes into its
// own tree.
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
platform::Data timelineOf(std::size_t entries) {
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

} // namespace

int main(int argc, char** argv) {
  const std::size_t runs = bench::option(argc, argv, "--runs", 5);
  const std::size_t entries = bench::option(argc, argv, "--entries", 100'000);
  const platform::Data manifest = timelineOf(entries);
  std::vector<double> ours, reading, listing, libxml;
  for (std::size_t run = 0; run < runs + 1; ++run) {
    std::shared_ptr<QVPlaylist> playlist;
    QVResourceListRef list;
    const double read =
        bench::millisecondsOf([&] { playlist = QVPlaylistFactory::generateWithData(manifest); });
    const double listed = bench::millisecondsOf([&] {
      list = playlist->movies()[0]->tracks()[0]->qualities()[0]->resourceBuilder()->fillResourcesWithBaseURL(
          "http://host/movie/");
    });
    if (list->size() != entries + 1)
      return std::fprintf(stderr, "%zu resources were listed\n", list->size()), 1;
    list.reset(), playlist.reset();
    bench::settleHeap();

    xmlDocPtr document = nullptr;
    const double parsed = bench::millisecondsOf([&] {
      document = xmlReadMemory(reinterpret_cast<const char*>(manifest.data()),
                               static_cast<int>(manifest.size()), nullptr, nullptr, XML_PARSE_NONET);
    });
    if (!document)
      return std::fputs("libxml2 refused the manifest\n", stderr), 1;
    xmlFreeDoc(document);
    bench::settleHeap();
    if (run == 0)
      continue; // the first one pays for fresh pages
    ours.push_back(read + listed), reading.push_back(read), listing.push_back(listed),
        libxml.push_back(parsed);
  }
  bench::report("manifest", bench::median(ours), "ms", bench::median(libxml));
  bench::report("manifest_parse_and_bind", bench::median(reading), "ms");
  bench::report("manifest_list", bench::median(listing), "ms");
  return 0;
}
