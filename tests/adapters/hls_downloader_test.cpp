#include "TolvaneDownloader/HLSDownloader/AssetDescription.h"
#include "TolvaneDownloader/HLSDownloader/HLSDownloader.h"
#include "tests/adapters/AdapterFixture.h"
#include "tests/support/FaultServer.h"

#include "halvix/DownloadStore.h"
#include "platform/assets/AssetPackage.h"
#include "platform/assets/URLAsset.h"
#include "platform/concurrency/Queue.h"
#include "platform/foundation/FileManager.h"

using namespace tests;
using halvix::ContentType, halvix::Download, halvix::DownloadState, halvix::ErrorType, testing::Contains,
    testing::ElementsAre, testing::HasSubstr;

namespace {

const std::string master =
    R"(#EXTM3U
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="a",NAME="English",LANGUAGE="en",DEFAULT=YES,AUTOSELECT=YES,URI="en.m3u8"
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="a",NAME="Director",LANGUAGE="en",URI="director.m3u8"
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="a",NAME="Deutsch",LANGUAGE="de-AT",URI="de.m3u8"
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="a",NAME="Music only",URI="music.m3u8"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="s",NAME="Forced",LANGUAGE="en",FORCED=YES,URI="f.m3u8"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="s",NAME="English",LANGUAGE="en",URI="t.m3u8"
#EXT-X-SESSION-KEY:METHOD=SAMPLE-AES,URI="skd://1"
)"
    "#EXT-X-STREAM-INF:BANDWIDTH=2000,RESOLUTION=64x36,AUDIO=\"a\",SUBTITLES=\"s\"\nhi.m3u8\n"
    "#EXT-X-STREAM-INF:BANDWIDTH=1000,RESOLUTION=32x18,AUDIO=\"a\",SUBTITLES=\"s\"\nlo.m3u8\n";

std::string mediaOf(const std::string& name) {
  return "#EXTM3U\n#EXT-X-TARGETDURATION:4\n#EXTINF:4,\n" + name + "-0.ts\n#EXTINF:4,\n" + name +
         "-1.ts\n#EXT-X-ENDLIST\n";
}

class HLSAdapter : public Adapter<HLSDownloader> {
protected:
  HLSAdapter() {
    environment = openEnvironment(directory / "library");
    service = openService(directory / "library/transfers");
    environment->setTransferService(service);
    open();
    server.serve("/master.m3u8", {master, "\"m\"", ""});
    for (const std::string name : {"hi", "lo", "en", "director", "de", "music", "f", "t"}) {
      server.serve("/" + name + ".m3u8", {mediaOf(name), "\"" + name + "\"", ""});
      for (const std::string part : {"-0.ts", "-1.ts"})
        server.serve("/" + name + part, {std::string(5000, name[0]) + part, "\"" + name + part + "\"", ""});
    }
  }
  ~HLSAdapter() override {
    platform::MainQueue::shared().sync([] {});
    adapter.reset();
    service->shutdown();
    platform::MainQueue::shared().sync([] {});
  }

  std::shared_ptr<Download> create(const std::string& path = "/master.m3u8") {
    return Adapter::create(server.url(path), ContentType::hls, "A title");
  }
  halvix::QVErrorRef prepare(const Download& download) {
    return Adapter::prepare(download.uuid(), [] {});
  }
  std::shared_ptr<Download> prepared() {
    auto download = create();
    const auto error = prepare(*download);
    EXPECT_FALSE(error) << halvix::describeError(error);
    return download;
  }
  [[nodiscard]] bool waitForEvent(const std::string& beginning) {
    return dispatcher->recorded().waitUntil(
        [&](const Lines& events) { return CapturedLog::anyStartsWith(events, beginning); });
  }
  std::vector<std::string> fetched() const {
    std::vector<std::string> names;
    for (const auto& request : server.requests())
      if (request.path.ends_with("-0.ts"))
        names.push_back(request.path);
    return names;
  }

  support::FaultServer server;
  std::shared_ptr<platform::TransferService> service;
  const CapturedLog log{"[HLSDownloader]"};
};

} // namespace

TEST_F(HLSAdapter, DescribesTheAssetInTheHostsTerms) {
  const auto download = prepared();
  const auto video = download->videoTracks();
  ASSERT_EQ(video.size(), 1u);
  ASSERT_EQ(video[0].renditions.size(), 2u);
  EXPECT_EQ(video[0].renditions[0].bitrate, 1000);
  EXPECT_EQ(video[0].renditions[1].height, 36);
  std::vector<std::string> audio, text;
  for (const auto& track : download->audioTracks())
    audio.push_back(track.label + "|" + track.language + "|" + std::to_string(track.renditions.size()));
  EXPECT_THAT(audio,
              ElementsAre("English|en|1", "Director|en|1", testing::EndsWith("|de-AT|1"), "Music only||1"));
  for (const auto& track : download->textTracks())
    text.push_back(track.kind + "|" + track.language + (track.forced ? "|forced" : ""));
  EXPECT_THAT(text, ElementsAre("subtitles|en|forced", "subtitles|en"));
  EXPECT_THAT(download->fairplayKeyURIs(), ElementsAre("skd://1"));
  const auto requests = server.requests("/master.m3u8");
  ASSERT_EQ(requests.size(), 2u);
  for (const auto& request : requests)
    EXPECT_EQ(request.header("X-All") + request.header("X-Own"), "12");

  EXPECT_EQ(sanitizeAssetTitle("Grüße, Welt: 7½"), "Grüße__Welt__7½");
  EXPECT_EQ(sanitizeAssetTitle(""), "");
}

TEST_F(HLSAdapter, DownloadsWhatIsChosenAndReportsIt) {
  const auto download = prepared();
  halvix::Selection selection;
  selection.video = {download->videoTracks()[0].renditions[0]};
  selection.audio = {download->audioTracks()[1].renditions[0], download->audioTracks()[2].renditions[0]};
  selection.text = {download->textTracks()[1]};
  download->setSelection(selection);
  ASSERT_FALSE(adapter->startDownload(download->uuid(), {}));
  ASSERT_TRUE(waitForEvent("finished"));
  EXPECT_THAT(fetched(), testing::UnorderedElementsAre("/lo-0.ts", "/director-0.ts", "/de-0.ts", "/t-0.ts"));
  EXPECT_EQ(download->state(), DownloadState::success);
  EXPECT_DOUBLE_EQ(download->progress().downloadedContentDuration(), 8);
  EXPECT_DOUBLE_EQ(download->progress().expectedContentDuration(), 8);
  ASSERT_TRUE(download->localUrl());
  const auto package = platform::AssetPackage::packageAtPath(*download->localUrl());
  ASSERT_TRUE(package && package->isIntact());
  EXPECT_EQ(package->title, "A_title");
  EXPECT_THAT(log.copy(), Contains(":: uuid " + download->uuid() + " completed."));
  EXPECT_THAT(log.copy(), Contains(HasSubstr(":: uuid " + download->uuid() + " progress 100")));

  ASSERT_FALSE(adapter->removeDownload(download->uuid()));
  EXPECT_FALSE(platform::FileManager::directoryExistsAtPath(*download->localUrl()));
  EXPECT_THAT(log.copy(), Contains(":: uuid " + download->uuid() + " removed."));
  EXPECT_EQ(adapter->removeDownload(download->uuid())->type(), ErrorType::storage_error_while_removing_file);
  EXPECT_THAT(log.copy(), Contains(testing::StartsWith("An error occured deleting the file: ")));
}

TEST_F(HLSAdapter, EachDownloadHasItsOwnLimitAndItsProgressStored) {
  const auto stall = support::stallingAfter(0, support::makeGate());
  const auto hi = create("/hi.m3u8"), lo = create("/lo.m3u8");
  for (const auto& download : {hi, lo}) {
    ASSERT_FALSE(prepare(*download));
    download->setMaximumConcurrentTransfers(1);
  }
  for (const char* path : {"/hi-1.ts", "/lo-1.ts"})
    server.once(path, stall);
  for (const auto& download : {hi, lo})
    ASSERT_FALSE(adapter->startDownload(download->uuid(), {}));
  ASSERT_TRUE(stall.gate->waitUntilReached(2));
  EXPECT_LE(server.peakRequests(), 2u);
  for (const auto& download : {hi, lo})
    ASSERT_TRUE(log.waitFor(":: uuid " + download->uuid() + " progress 50"));
  platform::MainQueue::shared().sync([] {});
  for (const auto& record : environment->store()->load("HLSDownloader", nullptr))
    EXPECT_DOUBLE_EQ(record.downloadedContentDuration, 4) << record.uuid;
  stall.gate->open();
  ASSERT_TRUE(dispatcher->recorded().waitUntil(
      [](const auto& events) { return std::count(events.begin(), events.end(), "finished") == 2; }));
}

TEST_F(HLSAdapter, PausesResumesAndCancels) {
  const auto stall = support::stallingAfter(100, support::makeGate());
  server.once("/hi-1.ts", stall);
  const auto download = prepared();
  ASSERT_FALSE(adapter->startDownload(download->uuid(), {}));
  ASSERT_TRUE(stall.gate->waitUntilReached());
  ASSERT_FALSE(adapter->pauseDownload(download->uuid()));
  EXPECT_EQ(download->state(), DownloadState::paused);
  stall.gate->open();
  server.once("/hi-1.ts", stall);
  ASSERT_FALSE(adapter->resumeDownload(download->uuid()));
  ASSERT_TRUE(waitForEvent("finished"));

  const auto second = create("/hi.m3u8");
  ASSERT_FALSE(prepare(*second));
  const auto held = support::stallingAfter(100, support::makeGate());
  server.once("/hi-0.ts", held);
  ASSERT_FALSE(adapter->startDownload(second->uuid(), {}));
  ASSERT_TRUE(held.gate->waitUntilReached());
  ASSERT_FALSE(adapter->cancelDownload(second->uuid()));
  ASSERT_TRUE(waitForEvent("error"));
  EXPECT_EQ(second->state(), DownloadState::failed);
  for (const auto& error : {adapter->pauseDownload(second->uuid()), adapter->resumeDownload(second->uuid()),
                            adapter->cancelDownload("unknown"), adapter->startDownload("unknown", {})}) {
    ASSERT_TRUE(error);
    EXPECT_EQ(error->type(), ErrorType::downloader_id_not_found);
  }
}

TEST_F(HLSAdapter, RefusesWhatItCannotPrepare) {
  const auto first = prepared();
  const auto again = create();
  const auto refusal = prepare(*again);
  ASSERT_TRUE(refusal);
  EXPECT_EQ(refusal->message(), "There's already a download request for url " + server.url("/master.m3u8") +
                                    ". Aborting request");
  EXPECT_EQ(adapter->startDownload(again->uuid(), {})->type(), ErrorType::downloader_id_not_found)
      << "what was not prepared is not started";
  const auto missing = prepare(*create("/none.m3u8"));
  ASSERT_TRUE(missing);
  EXPECT_THAT(halvix::describeError(missing), HasSubstr("404"));
}

TEST_F(HLSAdapter, WhatAnEarlierProcessLeftUnfinishedHasFailed) {
  const auto unfinished = create();
  unfinished->setState(DownloadState::running);
  const auto done = create("/hi.m3u8");
  done->setState(DownloadState::success);
  ASSERT_FALSE(adapter->storeItems());
  open();
  ASSERT_TRUE(log.waitFor(""));
  EXPECT_EQ(adapter->findDownload(unfinished->uuid())->lastError()->type(), ErrorType::download_interrupted);
  EXPECT_EQ(adapter->findDownload(unfinished->uuid())->state(), DownloadState::failed);
  EXPECT_EQ(adapter->findDownload(done->uuid())->state(), DownloadState::success);
}
