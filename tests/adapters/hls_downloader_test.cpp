#include "TolvaneDownloader/HLSDownloader/AssetDescription.h"
#include "TolvaneDownloader/HLSDownloader/HLSDownloader.h"
#include "tests/adapters/AdapterFixture.h"
#include "tests/support/FaultServer.h"

#include "halvix/Download.h"
#include "halvix/DownloadStore.h"
#include "halvix/ErrorDescription.h"
#include "halvix/Log.h"
#include "platform/assets/URLAsset.h"
#include "platform/concurrency/Queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace tests;
using halvix::ContentType;
using halvix::Download;
using halvix::DownloadState;
using halvix::ErrorType;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

const std::string master =
    "#EXTM3U\n"
    "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"English\",LANGUAGE=\"en\",DEFAULT=YES,AUTOSELECT=YES,"
    "URI=\"en.m3u8\"\n"
    "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"Director\",LANGUAGE=\"en\",URI=\"director.m3u8\"\n"
    "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"Deutsch\",LANGUAGE=\"de-AT\",URI=\"de.m3u8\"\n"
    "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"Music only\",URI=\"music.m3u8\"\n"
    "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"s\",NAME=\"Forced\",LANGUAGE=\"en\",FORCED=YES,URI=\"f.m3u8\"\n"
    "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"s\",NAME=\"English\",LANGUAGE=\"en\",URI=\"t.m3u8\"\n"
    "#EXT-X-SESSION-KEY:METHOD=SAMPLE-AES,URI=\"skd://1\"\n"
    "#EXT-X-STREAM-INF:BANDWIDTH=2000,RESOLUTION=64x36,AUDIO=\"a\",SUBTITLES=\"s\"\nhi.m3u8\n"
    "#EXT-X-STREAM-INF:BANDWIDTH=1000,RESOLUTION=32x18,AUDIO=\"a\",SUBTITLES=\"s\"\nlo.m3u8\n";

std::string mediaOf(const std::string& name) {
  return "#EXTM3U\n#EXT-X-TARGETDURATION:4\n#EXTINF:4,\n" + name + "-0.ts\n#EXTINF:4,\n" + name +
         "-1.ts\n#EXT-X-ENDLIST\n";
}

class HLSAdapter : public testing::Test {
protected:
  HLSAdapter() {
    platform::HTTPTransferServiceOptions options;
    options.directory = directory / "library/transfers";
    options.retryDelay = std::chrono::milliseconds(1);
    environment = openEnvironment(directory / "library");
    service = platform::makeHTTPTransferService(options);
    environment->setTransferService(service);
    halvix::setLogHandler([this](auto, std::string_view tag, std::string_view message) {
      if (tag == "[HLSDownloader]")
        log.change([&](auto& lines) { lines.emplace_back(message); });
    });
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
    hls.reset();
    service->shutdown();
    platform::MainQueue::shared().sync([] {});
    halvix::setLogHandler(nullptr);
  }

  void open() {
    hls = HLSDownloader::create(true, {{"X-All", "1"}}, environment);
    dispatcher = std::make_shared<RecordingDispatcher>();
    hls->setDispatcher(dispatcher);
  }

  std::shared_ptr<Download> create(const std::string& path = "/master.m3u8") {
    halvix::QVErrorRef error;
    auto download =
        hls->createDownload({server.url(path), ContentType::hls, "A title"}, {{"X-Own", "2"}}, &error);
    download->keep();
    return download;
  }
  halvix::QVErrorRef prepare(const Download& download) {
    support::Arrival<halvix::QVErrorRef> answer;
    hls->prepareDownload(download.uuid(), [&](const auto& prepared, const auto& error) {
      EXPECT_EQ(prepared == nullptr, error != nullptr);
      answer.arrive(error);
    });
    return answer.wait().value_or(nullptr);
  }
  std::shared_ptr<Download> prepared() {
    auto download = create();
    const auto error = prepare(*download);
    EXPECT_FALSE(error) << halvix::describeError(error);
    return download;
  }
  [[nodiscard]] bool waitForEvent(const std::string& beginning) {
    return dispatcher->recorded().waitUntil([&](const auto& events) {
      return std::any_of(events.begin(), events.end(),
                         [&](const std::string& event) { return event.starts_with(beginning); });
    });
  }

  support::TemporaryDirectory directory;
  support::FaultServer server;
  std::shared_ptr<halvix::HostEnvironment> environment;
  std::shared_ptr<platform::TransferService> service;
  support::Watched<std::vector<std::string>> log;
  std::shared_ptr<HLSDownloader> hls;
  std::shared_ptr<RecordingDispatcher> dispatcher;
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

TEST_F(HLSAdapter, EachDownloadHasItsOwnLimitAndItsProgressStored) {
  support::Fault stall = support::stallingAfter(0, support::makeGate());
  const auto hi = create("/hi.m3u8"), lo = create("/lo.m3u8");
  for (const auto& download : {hi, lo}) {
    ASSERT_FALSE(prepare(*download));
    download->setMaximumConcurrentTransfers(1);
  }
  for (const char* path : {"/hi-1.ts", "/lo-1.ts"})
    server.once(path, stall);
  for (const auto& download : {hi, lo})
    ASSERT_FALSE(hls->startDownload(download->uuid(), {}));
  ASSERT_TRUE(stall.gate->waitUntilReached(2));
  EXPECT_LE(server.peakRequests(), 2u);
  for (const auto& download : {hi, lo})
    ASSERT_TRUE(log.waitUntil([&](const auto& lines) {
      return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.starts_with(":: uuid " + download->uuid() + " progress 50");
      });
    }));
  platform::MainQueue::shared().sync([] {});
  for (const auto& record : environment->store()->load("HLSDownloader", nullptr))
    EXPECT_DOUBLE_EQ(record.downloadedContentDuration, 4) << record.uuid;
  stall.gate->open();
  ASSERT_TRUE(dispatcher->recorded().waitUntil(
      [](const auto& events) { return std::count(events.begin(), events.end(), "finished") == 2; }));
}

TEST_F(HLSAdapter, PausesResumesAndCancels) {
  support::Fault stall = support::stallingAfter(100, support::makeGate());
  server.once("/hi-1.ts", stall);
  const auto download = prepared();
  ASSERT_FALSE(hls->startDownload(download->uuid(), {}));
  ASSERT_TRUE(stall.gate->waitUntilReached());
  ASSERT_FALSE(hls->pauseDownload(download->uuid()));
  EXPECT_EQ(download->state(), DownloadState::paused);
  stall.gate->open();
  server.once("/hi-1.ts", stall);
  ASSERT_FALSE(hls->resumeDownload(download->uuid()));
  ASSERT_TRUE(waitForEvent("finished"));

  const auto second = create("/hi.m3u8");
  ASSERT_FALSE(prepare(*second));
  support::Fault held = support::stallingAfter(100, support::makeGate());
  server.once("/hi-0.ts", held);
  ASSERT_FALSE(hls->startDownload(second->uuid(), {}));
  ASSERT_TRUE(held.gate->waitUntilReached());
  ASSERT_FALSE(hls->cancelDownload(second->uuid()));
  ASSERT_TRUE(waitForEvent("error"));
  EXPECT_EQ(second->state(), DownloadState::failed);
  for (const auto& error : {hls->pauseDownload(second->uuid()), hls->resumeDownload(second->uuid()),
                            hls->cancelDownload("unknown"), hls->startDownload("unknown", {})}) {
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
  EXPECT_EQ(hls->startDownload(again->uuid(), {})->type(), ErrorType::downloader_id_not_found)
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
  ASSERT_FALSE(hls->storeItems());
  open();
  ASSERT_TRUE(log.waitUntil([&](const auto& lines) { return !lines.empty(); }));
  EXPECT_EQ(hls->findDownload(unfinished->uuid())->lastError()->type(), ErrorType::download_interrupted);
  EXPECT_EQ(hls->findDownload(unfinished->uuid())->state(), DownloadState::failed);
  EXPECT_EQ(hls->findDownload(done->uuid())->state(), DownloadState::success);
}
