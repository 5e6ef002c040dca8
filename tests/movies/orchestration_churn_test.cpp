// Downloaders and sets that come and go while events are under way. What goes wrong here crashes, hangs until
// the test's time is up, or is found by a sanitizer.

#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadSet.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloader.h"

#include "platform/foundation/Exception.h"
#include "platform/transfer/TransferService.h"
#include "tests/support/Expectation.h"
#include "tests/support/FaultServer.h"
#include "tests/support/ScriptedTransferService.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <random>
#include <thread>

namespace {

constexpr int segments = 6;
constexpr const char* manifest =
    R"(<MPD xmlns="urn:mpeg:dash:schema:mpd:2011" type="static" mediaPresentationDuration="PT5S"><Period>
       <AdaptationSet mimeType="video/mp4">
       <SegmentTemplate timescale="1" duration="1" startNumber="2" initialization="s1.m4s" media="s$Number$.m4s"/>
       <Representation id="v" bandwidth="8000" codecs="avc1.4d401f" width="10" height="10"/>
       </AdaptationSet></Period></MPD>)";

class Churn : public testing::Test {
protected:
  using Set = std::shared_ptr<QVMovieDownloadSet>;

  std::shared_ptr<QVMovieDownloader> open(const std::string& name) {
    auto configuration =
        platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(name);
    configuration.service = service;
    return QVMovieDownloader::downloaderWithConfiguration(configuration, directory / name);
  }

  static void start(QVMovieDownloader& downloader, const Set& set) {
    try {
      set->selectAllQualities();
    } catch (const platform::Exception&) {
      return; // it took over an earlier round's tasks and runs already
    }
    downloader.download(set);
  }

  /// Each round makes a downloader and a set and leaves both in whatever state they are.
  void comeAndGo(const std::string& name, int rounds, unsigned seed) {
    std::mt19937 random(seed);
    for (int round = 0; round < rounds; ++round) {
      const auto downloader = open(name);
      const std::weak_ptr<QVMovieDownloader> weak = downloader;
      const auto arrival = std::make_shared<support::Arrival<Set>>();
      ++asked;
      downloader->fetchDownloadSetForURL(url, [this, weak, arrival](const Set& set, const auto&) {
        ++answered;
        if (const auto owner = weak.lock(); owner && set)
          start(*owner, set);
        arrival->arrive(set);
      });
      const std::size_t choice = random() % 8;
      const Set set = choice == 0 ? nullptr : arrival->wait().value_or(nullptr);
      if (!set)
        continue;
      const std::function<void()> moves[] = {
          [&] { downloader->pause(set); }, [&] { downloader->cancel(set); }, [&] { downloader->remove(set); },
          [&] { downloader->pauseAll(), downloader->resumeAll(); },
          [&] { downloader->cancelAll(), downloader->download(set); }};
      if (choice <= std::size(moves))
        moves[choice - 1]();
      EXPECT_EQ(set->_checkCounters(), "");
    }
  }

  void churn(int rounds) {
    {
      std::jthread other([&] { comeAndGo("one", rounds / 2, 1); });
      comeAndGo("two", rounds / 2, 2);
    }
    service->shutdown();
    EXPECT_EQ(answered, asked) << "one completion for each call";
  }

  support::TemporaryDirectory directory;
  std::shared_ptr<platform::TransferService> service;
  std::string url = "http://host/movie/manifest.mpd";
  std::atomic<int> asked = 0, answered = 0;
};

TEST_F(Churn, OverTheScriptedService) {
  const auto scripted = std::make_shared<support::ScriptedTransferService>(
      directory.path(), support::ScriptedTransferService::Delivery::OnQueue);
  std::atomic<unsigned> starts = 0;
  scripted->onStart([&](support::ScriptedTask& task) {
    const unsigned turn = ++starts % 7;
    if (turn == 0)
      task.fail(platform::NSURLErrorNetworkConnectionLost);
    else if (turn == 1)
      task.write(3, 10); // and hangs
    else
      task.finish("content");
  });
  scripted->serveData(url, 200, manifest);
  service = scripted;
  churn(2000);
}

TEST_F(Churn, OverTheRealService) {
  support::FaultServer server;
  server.serve("/manifest.mpd", {manifest, "\"m\"", ""});
  for (int number = 1; number <= segments; ++number)
    server.serve("/s" + std::to_string(number) + ".m4s", {std::string(20'000, 's'), "\"s\"", ""});
  url = server.url("/manifest.mpd");
  platform::HTTPTransferServiceOptions options;
  options.directory = directory / "service";
  options.retryDelay = std::chrono::milliseconds(1);
  service = platform::makeHTTPTransferService(options);
  ASSERT_TRUE(service);
  churn(300);
}

} // namespace
