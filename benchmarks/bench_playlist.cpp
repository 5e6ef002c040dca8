// A media playlist of many segments: read completely, planned, and written as a package holds it, against a
// plain reading of its file into lines.
#include "benchmarks/Measure.h"

#include "platform/assets/internal/PlaylistWriter.h"
#include "platform/assets/internal/StreamPlan.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

using namespace platform;
using namespace platform::assets;

namespace {

std::string playlistOf(std::size_t segments) {
  std::string text = "#EXTM3U\n#EXT-X-VERSION:6\n#EXT-X-TARGETDURATION:6\n#EXT-X-PLAYLIST-TYPE:VOD\n"
                     "#EXT-X-MAP:URI=\"video/1080p/init.mp4\"\n";
  for (std::size_t i = 0; i < segments; ++i)
    text +=
        "#EXTINF:6.00" + std::to_string(i % 10) + ",\nvideo/1080p/segment-" + std::to_string(i) + ".m4s\n";
  return text + "#EXT-X-ENDLIST\n";
}

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text(static_cast<std::size_t>(std::filesystem::file_size(path)), '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  return text;
}

} // namespace

int main(int argc, char** argv) {
  const std::size_t runs = bench::option(argc, argv, "--runs", 5);
  const std::size_t segments = bench::option(argc, argv, "--segments", 100'000);
  const std::string path = (std::filesystem::temp_directory_path() / "bench-playlist.m3u8").string();
  std::ofstream(path, std::ios::binary) << playlistOf(segments);
  const URL url = *URL::URLWithString("http://host/movie/list.m3u8");
  std::vector<double> splitting, reading, planning, writing;
  for (std::size_t run = 0; run < runs + 1; ++run) {
    const double split = bench::millisecondsOf([&] {
      std::ifstream file(path, std::ios::binary);
      std::vector<std::string> lines;
      for (std::string line; std::getline(file, line);)
        lines.push_back(line);
      if (lines.size() < 2 * segments)
        std::abort();
    });
    bench::settleHeap();
    PlaylistRef playlist;
    const double read =
        bench::millisecondsOf([&] { playlist = std::make_shared<const Playlist>(contentOf(path), url); });
    if (!playlist->error().empty() || playlist->media().segments.size() != segments)
      return std::fprintf(stderr, "the playlist was not read: %s\n", playlist->error().c_str()), 1;
    ErrorRef error;
    std::unique_ptr<StreamPlan> plan;
    const double planned =
        bench::millisecondsOf([&] { plan = StreamPlan::make(playlist, StreamKind::Video, "video", error); });
    for (std::size_t i = 0; i < plan->resources().size(); ++i)
      plan->markDone(i, 1);
    std::string local;
    const double written = bench::millisecondsOf([&] { local = localMediaPlaylist(*plan, segments); });
    plan.reset(), playlist.reset();
    bench::settleHeap();
    if (run == 0)
      continue; // the first one pays for fresh pages
    splitting.push_back(split), reading.push_back(read), planning.push_back(planned),
        writing.push_back(written);
  }
  std::filesystem::remove(path);
  bench::report("playlist", bench::median(reading), "ms", bench::median(splitting));
  bench::report("playlist_plan", bench::median(planning), "ms");
  bench::report("playlist_write", bench::median(writing), "ms");
  return 0;
}
