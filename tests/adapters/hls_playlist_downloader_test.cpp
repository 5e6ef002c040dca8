#include "TolvaneDownloader/HLSDownloader/HLSPlaylistDownloader.h"

#include "platform/concurrency/Queue.h"
#include "platform/foundation/URL.h"
#include "tests/adapters/AdapterFixture.h"
#include "tests/support/FaultServer.h"

#include <fstream>

namespace {

using testing::ElementsAre, testing::UnorderedElementsAre;

struct Answer {
  std::shared_ptr<const HLSPlaylist> playlist;
  PlaylistDownloaderError status;
  bool onMainQueue;
};

class HLSPlaylistDownloaderTest : public testing::Test {
protected:
  HLSPlaylistDownloaderTest() { platform::TransferService::setDefaultService(service); }
  ~HLSPlaylistDownloaderTest() override {
    platform::TransferService::setDefaultService(nullptr);
    service->shutdown();
  }

  Answer get(const platform::URL& url) {
    support::Arrival<Answer> arrival;
    HLSPlaylistDownloader::getPlaylist(url, [&](auto playlist, PlaylistDownloaderError status) {
      arrival.arrive({playlist, status, platform::MainQueue::shared().isCurrent()});
    });
    const auto answer = arrival.wait();
    EXPECT_TRUE(answer) << "no answer came";
    EXPECT_TRUE(answer->onMainQueue);
    return *answer;
  }
  Answer get(const std::string& path) { return get(*platform::URL::URLWithString(server.url(path))); }
  Answer getText(const std::string& text, int status = 200) {
    server.handle("/p.m3u8", support::FaultServer::reply(status, {}, text));
    return get("/p.m3u8");
  }

  support::TemporaryDirectory directory;
  support::FaultServer server;
  const std::shared_ptr<platform::TransferService> service = tests::openService(directory / "transfers");
  const tests::CapturedLog log{"[HLSPlaylistDownloader]"};
};

TEST_F(HLSPlaylistDownloaderTest, SummarisesBothKinds) {
  const auto master = getText("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=3,AVERAGE-BANDWIDTH=2,RESOLUTION=4x5\na\n"
                              "#EXT-X-STREAM-INF:BANDWIDTH=1\na\n#EXT-X-STREAM-INF:BANDWIDTH=2\nb\n");
  ASSERT_EQ(master.status, PlaylistDownloaderError::success);
  EXPECT_THAT(master.playlist->keyIds, testing::IsEmpty());
  std::vector<std::vector<std::uint64_t>> qualities;
  for (const auto& quality : master.playlist->qualities)
    qualities.push_back(
        {quality.bitrate, quality.averageBitrate, quality.resolutionWidth, quality.resolutionHeight});
  EXPECT_THAT(qualities, UnorderedElementsAre(ElementsAre(3, 2, 4, 5), ElementsAre(1, 0, 0, 0),
                                              ElementsAre(2, 0, 0, 0)));

  const auto media = getText("#EXTM3U\n#EXTINF:1,\na.ts\n", 300);
  ASSERT_EQ(media.status, PlaylistDownloaderError::success) << "300 still counts";
  EXPECT_THAT(media.playlist->qualities, testing::IsEmpty());
  EXPECT_THAT(media.playlist->keyIds, ElementsAre(""));
  EXPECT_THAT(log.copy(), testing::IsEmpty());

  const std::string file = directory / "keys.m3u8";
  std::ofstream(file) << "#EXTM3U\n#EXT-X-SESSION-KEY:METHOD=SAMPLE-AES,URI=\"skd://1\"\n";
  const auto keys = get(platform::URL::fileURLWithPath(file));
  ASSERT_EQ(keys.status, PlaylistDownloaderError::success);
  EXPECT_THAT(keys.playlist->keyIds, ElementsAre("skd://1"));
  EXPECT_THAT(log.copy(), ElementsAre("Parsing playlist file file://" + file));
}

TEST_F(HLSPlaylistDownloaderTest, TellsWhatWentWrong) {
  EXPECT_EQ(get("/missing.m3u8").status, PlaylistDownloaderError::downloadFailed);
  server.handle("/gone.m3u8", support::FaultServer::dropConnection());
  EXPECT_EQ(get("/gone.m3u8").status, PlaylistDownloaderError::downloadFailed);
  EXPECT_EQ(getText("<html>").status, PlaylistDownloaderError::invalidPlaylist);
  EXPECT_EQ(getText("#EXTM3U\n#EXT-X-VERSION:3\n").status, PlaylistDownloaderError::invalidPlaylist);
  const std::string missing = directory / "missing.m3u8";
  const auto unread = get(platform::URL::fileURLWithPath(missing));
  EXPECT_EQ(unread.status, PlaylistDownloaderError::invalidPlaylist);
  EXPECT_FALSE(unread.playlist);
  EXPECT_THAT(
      log.copy(),
      ElementsAre("Download playlist failed with code 404", "Download playlist failed",
                  "Invalid HLS Playlist The first line of every Media and Master Playlist must be: EXTM3U",
                  testing::StartsWith("Invalid HLS Playlist "), "Parsing playlist file file://" + missing,
                  "Failed to read file, error (null)", "Invalid HLS Playlist Empty playlist data"));
  platform::TransferService::setDefaultService(nullptr);
  EXPECT_EQ(get("/p.m3u8").status, PlaylistDownloaderError::downloadFailed) << "without a service";
}

} // namespace
