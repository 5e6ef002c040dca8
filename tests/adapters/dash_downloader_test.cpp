#include "tests/adapters/AdapterFixture.h"

#include "TolvaneDownloader/DASHDownloader/DashDownloader.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadSet.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloader.h"
#include "platform/foundation/FileManager.h"

using namespace tests;
using halvix::ContentType, halvix::Download, halvix::DownloadState, halvix::ErrorType;
using Events = std::vector<std::string>;

namespace {

constexpr const char* url = "http://host/dir/movie.mpd?k=1";

const std::string manifest =
    R"(<MPD mediaPresentationDuration="PT8S"><Period><AdaptationSet id="1" mimeType="video/mp4">
<Representation id="hi" bandwidth="2000" width="64" height="36" codecs="avc1.64"><SegmentList>
<SegmentURL media="hi-1.m4s"/><SegmentURL media="hi-2.m4s"/></SegmentList></Representation>
<Representation id="lo" bandwidth="1000" width="32" height="18"><SegmentList><SegmentURL media="lo-1.m4s"/>
</SegmentList></Representation></AdaptationSet><AdaptationSet id="2" mimeType="audio/mp4" lang="ger">
<Representation id="de" bandwidth="500" audioSamplingRate="48000"><SegmentList><SegmentURL media="de-1.m4s"/>
</SegmentList></Representation></AdaptationSet><AdaptationSet id="3" mimeType="text/vtt" lang="en">
<Representation id="en" bandwidth="1"><BaseURL>en.vtt</BaseURL></Representation></AdaptationSet></Period></MPD>)";

class DashAdapter : public Adapter<DashDownloader> {
protected:
  void SetUp() override {
    environment = openEnvironment(directory.path());
    environment->setTransferService(service);
    open();
  }

  std::shared_ptr<Download> create() { return Adapter::create(url, ContentType::dash, "Title"); }

  halvix::QVErrorRef prepare(const std::string& uuid, int status = 200, const std::string& body = manifest) {
    return Adapter::prepare(uuid, [&] {
      service->dataTasks().back()->answer(status, body);
      service->run();
    });
  }

  std::shared_ptr<Download> prepared() {
    auto download = create();
    EXPECT_EQ(prepare(download->uuid()), nullptr);
    return download;
  }

  /// One that runs, of the best picture and the sound.
  std::shared_ptr<Download> started(int transfers = 4) {
    auto download = prepared();
    halvix::Selection selection;
    selection.video = {download->videoTracks()[0].renditions[0]};
    selection.audio = {download->audioTracks()[0].renditions[0]};
    download->setSelection(selection);
    download->setMaximumConcurrentTransfers(transfers);
    EXPECT_EQ(adapter->startDownload(download->uuid(), {}), nullptr);
    return download;
  }

  std::vector<support::ScriptedTaskRef> liveTasks() {
    return service->session(DashDownloader::sessionConfiguration().identifier)->liveTasks();
  }

  void finishAll() {
    for (auto tasks = liveTasks(); !tasks.empty(); tasks = liveTasks()) {
      for (const auto& task : tasks)
        task->finish("payload");
      service->run();
    }
  }

  support::TemporaryDirectory bodies;
  std::shared_ptr<support::ScriptedTransferService> service =
      std::make_shared<support::ScriptedTransferService>(bodies.path());
};

} // namespace

TEST_F(DashAdapter, TakesOnlyDashAndNamesDownloadsByTheirDownloadId) {
  EXPECT_TRUE(adapter->canDownload(ContentType::dash));
  EXPECT_FALSE(adapter->canDownload(ContentType::hls));
  EXPECT_FALSE(adapter->canDownload(halvix::PlayerConfiguration{url, std::nullopt, ""}));
  EXPECT_TRUE(adapter->canDownload(halvix::PlayerConfiguration{url, ContentType::dash, ""}));
  EXPECT_EQ(create()->uuid(), adapter->downloader()->downloadIdWithURL(url));
  EXPECT_EQ(DashDownloader::sessionConfiguration().identifier.rfind("tolvane_Downloader_", 0), 0u);
  EXPECT_EQ(DashDownloader::sessionConfiguration().identifier,
            DashDownloader::sessionConfiguration().identifier);
}

TEST_F(DashAdapter, PreparingDescribesTheMovieInTheHostsTerms) {
  auto download = prepared();
  for (const auto& [name, value] : {std::pair("X-All", "1"), std::pair("X-Own", "2")})
    EXPECT_EQ(service->dataTasks().back()->request().valueForHTTPHeaderField(name), value);

  ASSERT_EQ(download->videoTracks().size(), 1u);
  const auto video = download->videoTracks()[0].renditions;
  ASSERT_EQ(video.size(), 2u);
  EXPECT_EQ(std::tuple(video[0].id, video[0].codec, video[0].fourCC, video[0].estimatedSize),
            std::tuple("hi", "64 x 36 @ 2.0 kbps", "avc1", 2000));
  EXPECT_EQ(video[1].fourCC, "") << "the type's default code says nothing";
  const auto audio = download->audioTracks()[0];
  EXPECT_EQ(std::tuple(audio.language, audio.renditions[0].sampleRate, audio.renditions[0].codec),
            std::tuple("ger", 48000, "German 48.0 kHZ, 0 ch @ 0.5 kbps\t"));
  const auto text = download->textTracks()[0];
  EXPECT_EQ(text.source, "English [VTT]");
  EXPECT_EQ(text.format, halvix::TextTrackFormat::web_vtt);
  EXPECT_EQ(download->duration(), 8.0);
  EXPECT_TRUE(download->notices().empty());
}

TEST_F(DashAdapter, FailuresToPrepareCarryTheirReason) {
  auto error = prepare("unknown");
  ASSERT_TRUE(error);
  EXPECT_EQ(error->type(), ErrorType::downloader_request_creation_failed);
  auto download = create();
  error = prepare(download->uuid(), 404, "gone");
  ASSERT_TRUE(error);
  EXPECT_EQ(error->type(), ErrorType::downloader_request_creation_failed);
  EXPECT_NE(halvix::describeError(error).find("404"), std::string::npos);
  EXPECT_EQ(adapter->downloader()->activeDownloadSets(), std::nullopt);
  EXPECT_FALSE(platform::FileManager::fileExistsAtPath(adapter->downloadPath() + "/" + download->uuid()));
}

TEST_F(DashAdapter, WhatHasNoSegmentsIsNoSuccess) {
  auto empty = manifest;
  for (const char* media : {"hi-1", "hi-2"})
    empty.erase(empty.find("<SegmentURL media=\"" + std::string(media)), 29);
  const auto download = create();
  ASSERT_EQ(prepare(download->uuid(), 200, empty), nullptr);
  halvix::Selection selection;
  selection.video = {download->videoTracks()[0].renditions[0]};
  download->setSelection(selection);
  const auto error = adapter->startDownload(download->uuid(), {});
  ASSERT_TRUE(error);
  EXPECT_NE(halvix::describeError(error).find("no segments"), std::string::npos);
  EXPECT_EQ(download->state(), DownloadState::idle);
}

TEST_F(DashAdapter, CommandsNeedADownloadThatWasPrepared) {
  auto download = create();
  EXPECT_TRUE(adapter->startDownload(download->uuid(), {}));
  EXPECT_TRUE(dispatcher->events().empty()) << "nothing was started";
  for (const std::string& uuid : {download->uuid(), std::string("unknown")})
    for (const auto& error :
         {adapter->pauseDownload(uuid), adapter->resumeDownload(uuid), adapter->cancelDownload(uuid)})
      EXPECT_EQ(error->type(), ErrorType::downloader_id_not_found);
  EXPECT_EQ(adapter->startDownload("unknown", {})->type(), ErrorType::downloader_id_not_found);
  EXPECT_EQ(adapter->removeDownload("unknown")->type(), ErrorType::storage_error_while_removing_file);
}

TEST_F(DashAdapter, ARunMovesTheHostsRecordThroughItsStates) {
  auto download = started(1);
  EXPECT_EQ(download->state(), DownloadState::running);
  auto tasks = liveTasks();
  EXPECT_EQ(tasks.size(), 2u) << "one for each quality";
  EXPECT_EQ(tasks[0]->request().valueForHTTPHeaderField("X-Own"), "2");

  ASSERT_EQ(adapter->pauseDownload(download->uuid()), nullptr);
  EXPECT_EQ(download->state(), DownloadState::paused);
  ASSERT_EQ(adapter->resumeDownload(download->uuid()), nullptr);
  tasks[0]->write(3, 10);
  service->run();
  EXPECT_GT(download->progress().progress(), 0);
  ASSERT_TRUE(download->progress().renditions());
  EXPECT_EQ(download->progress().renditions()->size(), 2u);
  EXPECT_EQ(download->progress().renditions()->at(0).label, "video 36p");

  finishAll();
  EXPECT_EQ(download->state(), DownloadState::success);
  EXPECT_EQ(download->localRelativePath(), download->uuid() + "/manifest.mpd");
  EXPECT_EQ(dispatcher->events(), (Events{"running", "start", "paused", "running", "idle", "success"}));
  for (const char* name : {"hi-1.m4s", "hi-2.m4s", "de-1.m4s"})
    EXPECT_EQ(support::readFile(adapter->downloadPath() + "/" + download->uuid() + "/" + name), "payload")
        << name;

  ASSERT_EQ(adapter->startDownload(download->uuid(), {}), nullptr);
  EXPECT_EQ(download->state(), DownloadState::success) << "what is complete is complete at once";
  EXPECT_TRUE(liveTasks().empty());
}

TEST_F(DashAdapter, AFailedRunIsToldOnTheMainQueueAndKeptWithTheRecord) {
  auto download = started();
  for (const auto& task : liveTasks())
    if (task->request().url().lastPathComponent() == "hi-2.m4s") {
      task->respond(404);
      task->write(4, 4);
    } else
      task->finish("payload");
  service->run();
  EXPECT_EQ(download->state(), DownloadState::failed);
  auto error = dispatcher->failed.wait();
  ASSERT_TRUE(error.has_value());
  EXPECT_EQ((*error)->type(), ErrorType::download_failed);
  EXPECT_NE(halvix::describeError(*error).find("404"), std::string::npos) << halvix::describeError(*error);
}

TEST_F(DashAdapter, RemovingDeletesWhatIsOnDiskActiveOrNot) {
  auto download = started();
  finishAll();
  const std::string folder = adapter->downloadPath() + "/" + download->uuid();
  EXPECT_TRUE(platform::FileManager::fileExistsAtPath(folder));

  // Another process: the record is loaded, no set is active.
  adapter->storeItems();
  auto later = DashDownloader::create(true, {}, environment);
  ASSERT_TRUE(later->findDownload(download->uuid()));
  EXPECT_EQ(later->removeDownload(download->uuid()), nullptr);
  EXPECT_FALSE(platform::FileManager::fileExistsAtPath(folder));
  EXPECT_EQ(later->removeDownload(download->uuid())->type(), ErrorType::storage_error_while_removing_file);
}

TEST_F(DashAdapter, EventsOfARemovedDownloadAreLoggedAndDropped) {
  auto download = started();
  adapter->forgetDownload(download->uuid());
  const CapturedLog log("[DashDownloader]");
  ASSERT_EQ(adapter->cancelDownload(download->uuid()), nullptr);
  EXPECT_THAT(log.copy(), testing::Contains(testing::StartsWith("::Completed download item not found " +
                                                                download->uuid())));
}
