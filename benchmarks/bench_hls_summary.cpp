// A media playlist with many segments summarised, against reading the same bytes and splitting them into
// lines.
#include "benchmarks/Measure.h"

#include "mpl/hls/HLSMediaPlaylist.h"

#include <sstream>
#include <string>
#include <vector>

namespace {

std::string playlistOf(std::size_t segments) {
  std::string text = "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:6\n#EXT-X-PLAYLIST-TYPE:VOD\n";
  for (std::size_t i = 0; i < segments; ++i)
    text += "#EXTINF:" + std::to_string(5.5 + static_cast<double>(i % 7) / 16) + ",\nvideo/1080p/segment-" +
            std::to_string(i) + ".ts\n";
  return text + "#EXT-X-ENDLIST\n";
}

} // namespace

int main(int argc, char** argv) {
  const std::size_t runs = bench::option(argc, argv, "--runs", 5);
  const std::size_t segments = bench::option(argc, argv, "--segments", 100'000);
  const std::string text = playlistOf(segments);
  std::vector<double> ours, plain;
  for (std::size_t run = 0; run < runs + 1; ++run) {
    std::shared_ptr<mpl::hls::HLSPlaylist> playlist;
    const double parsed =
        bench::millisecondsOf([&] { playlist = mpl::hls::HLSPlaylist::parse(text.data(), text.size(), ""); });
    if (static_cast<mpl::hls::HLSMediaPlaylist&>(*playlist).segments.size() != segments)
      return std::fputs("segments are missing\n", stderr), 1;
    playlist.reset();
    bench::settleHeap();

    std::vector<std::string> lines;
    const double split = bench::millisecondsOf([&] {
      std::istringstream stream(text);
      for (std::string line; std::getline(stream, line);)
        lines.push_back(std::move(line));
    });
    lines = {};
    bench::settleHeap();
    if (run == 0)
      continue; // the first one pays for fresh pages
    ours.push_back(parsed), plain.push_back(split);
  }
  bench::report("hls_summary", bench::median(ours), "ms", bench::median(plain));
  return 0;
}
