// The orchestration without a network: making download sets, and whole runs over the scripted transfer
// service.
#include "benchmarks/Measure.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadSet.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloader.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylistFactory.h"
#include "tests/support/ScriptedTransferService.h"
#include "tests/support/TemporaryDirectory.h"

#include <filesystem>
#include <string>

namespace {

constexpr std::size_t qualities = 4;
constexpr std::size_t resourcesPerQuality = 10'000;
const std::string manifestURL = "http://host/movie/manifest.mpd";
const std::string segment = "0123456789";

[[noreturn]] void fail(const std::string& why) {
  std::fprintf(stderr, "bench_orchestration: %s\n", why.c_str());
  std::exit(1);
}

/// Four qualities of `count` resources each: an initialization and media segments.
std::string manifestOf(std::size_t count) {
  std::string text =
      "<MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" type=\"static\" mediaPresentationDuration=\"PT" +
      std::to_string((count - 1) * 4) +
      "S\"><Period><AdaptationSet mimeType=\"video/mp4\"><SegmentTemplate duration=\"4\" "
      "initialization=\"$RepresentationID$/init.mp4\" "
      "media=\"$RepresentationID$/$Number%06d$.m4s\"/>";
  for (std::size_t i = 0; i < qualities; ++i)
    text += "<Representation id=\"video-" + std::to_string(i) + "\" bandwidth=\"" +
            std::to_string((i + 1) * 800'000) + "\" width=\"1280\" height=\"720\" codecs=\"avc1.64001f\"/>";
  return text + "</AdaptationSet></Period></MPD>";
}

std::shared_ptr<QVPlaylist> playlistOf(std::size_t count) {
  const std::string text = manifestOf(count);
  return QVPlaylistFactory::generateWithData(platform::Data(text.begin(), text.end()));
}

/// A downloader whose transfers all end well at once.
struct Stage {
  Stage() {
    service->onStart([](support::ScriptedTask& task) { task.finish(segment); });
    platform::URLSessionConfiguration configuration;
    configuration.service = service;
    downloader = QVMovieDownloader::downloaderWithConfiguration(configuration, directory / "downloads");
  }

  std::shared_ptr<QVMovieDownloadSet> makeSet(const std::shared_ptr<QVPlaylist>& playlist,
                                              const std::string& path) {
    return QVMovieDownloadSet::downloadSetWithPlaylist(playlist, path, "manifest.mpd", manifestURL, "id",
                                                       downloader);
  }

  std::shared_ptr<QVMovieDownloadSet> fetchSet(std::size_t count) {
    service->serveData(manifestURL, 200, manifestOf(count));
    std::shared_ptr<QVMovieDownloadSet> set;
    downloader->fetchDownloadSetForURL(manifestURL, [&](auto fetched, const auto& error) {
      if (error)
        fail(error->localizedDescription());
      set = fetched;
    });
    service->run();
    if (!set)
      fail("no set was made");
    set->selectAllQualities();
    return set;
  }

  void download(const std::shared_ptr<QVMovieDownloadSet>& set) {
    if (!downloader->download(set))
      fail("no run started");
    service->run();
    if (set->numberOfDownloadedQualities() != qualities)
      fail("the run did not end well");
  }

  support::TemporaryDirectory directory;
  std::shared_ptr<support::ScriptedTransferService> service =
      std::make_shared<support::ScriptedTransferService>(directory.path());
  std::shared_ptr<QVMovieDownloader> downloader;
};

/// Nothing on disk; and what a resource costs in memory, its place in the list included.
void measureFreshSets(std::size_t runs) {
  std::vector<double> times, bytes;
  for (std::size_t run = 0; run < runs; ++run) {
    Stage stage;
    const auto playlist = playlistOf(resourcesPerQuality);
    std::filesystem::create_directory(stage.directory / "set");
    std::shared_ptr<QVMovieDownloadSet> set;
    const std::size_t before = bench::heapInUse();
    times.push_back(bench::millisecondsOf([&] { set = stage.makeSet(playlist, stage.directory / "set"); }));
    bytes.push_back(static_cast<double>(bench::heapInUse() - before) /
                    static_cast<double>(qualities * resourcesPerQuality));
    if (!set || set->numberOfDownloadedQualities() != 0)
      fail("the fresh set is not empty");
  }
  bench::report("set_fresh", bench::median(times), "ms");
  bench::report("set_memory", bench::median(bytes), "bytes");
}

void measureCompleteSets(std::size_t runs) {
  Stage stage;
  const auto downloaded = stage.fetchSet(resourcesPerQuality);
  stage.download(downloaded);
  std::vector<double> times;
  for (std::size_t run = 0; run < runs; ++run) {
    const auto playlist = playlistOf(resourcesPerQuality);
    std::shared_ptr<QVMovieDownloadSet> set;
    times.push_back(
        bench::millisecondsOf([&] { set = stage.makeSet(playlist, downloaded->downloadPath()); }));
    if (set->numberOfDownloadedQualities() != qualities)
      fail("the stored set is not complete");
  }
  bench::report("set_complete", bench::median(times), "ms");
}

/// Microseconds for each resource of a whole run of `total` resources.
double costOfRun(std::size_t total) {
  Stage stage;
  const auto set = stage.fetchSet(total / qualities);
  return bench::millisecondsOf([&] { stage.download(set); }) * 1000 / static_cast<double>(total);
}

void measureRuns(std::size_t runs, std::size_t largest) {
  double least = 0, most = 0;
  for (std::size_t total = 100; total <= largest; total *= 10) {
    std::vector<double> costs;
    // Small runs are short: more of them make a figure that stands still.
    const std::size_t times = total <= 1'000    ? runs * 5
                              : total <= 10'000 ? runs
                                                : std::min<std::size_t>(runs, 3);
    for (std::size_t run = 0; run < times; ++run)
      costs.push_back(costOfRun(total));
    const double cost = bench::median(costs);
    bench::report(("run_" + std::to_string(total)).c_str(), cost, "us/resource");
    least = total == 100 ? cost : std::min(least, cost);
    most = std::max(most, cost);
  }
  bench::report("run_flatness", most / least, "max/min");
}

} // namespace

int main(int argc, char** argv) {
  const std::size_t runs = bench::option(argc, argv, "--runs", 5);
  const std::size_t largest = bench::option(argc, argv, "--largest", 100'000);
  const std::size_t parts = bench::option(argc, argv, "--parts", 7);
  if (parts & 1)
    measureFreshSets(runs);
  if (parts & 2)
    measureCompleteSets(runs);
  if (parts & 4)
    measureRuns(runs, largest);
  return 0;
}
