#include "tests/adapters/AdapterFixture.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadSet.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloader.h"
#include "halvix/Download.h"
#include "halvix/ErrorDescription.h"

#include <gtest/gtest.h>

using namespace tests;
using halvix::ContentType;
using halvix::Download;
using halvix::DownloadState;
using halvix::ErrorType;
using Events = std::vector<std::string>;

namespace {

constexpr const char* url = "http://host/dir/movie.mpd?k=1";

const std::string manifest =
    "<MPD mediaPresentationDuration=\"PT8S\"><Period>"
    "<AdaptationSet id=\"1\" mimeType=\"video/mp4\">"
    "<Representation id=\"hi\" bandwidth=\"2000\" width=\"64\" height=\"36\" codecs=\"avc1.64\"><SegmentList>"
    "<SegmentURL media=\"hi-1.m4s\"/><SegmentURL media=\"hi-2.m4s\"/></SegmentList></Representation>"
    "<Representation id=\"lo\" bandwidth=\"1000\" width=\"32\" height=\"18\"><SegmentList>"
    "<SegmentURL media=\"lo-1.m4s\"/></SegmentList></Representation></AdaptationSet>"
    "<AdaptationSet id=\"2\" mimeType=\"audio/mp4\" lang=\"ger\"><Representation id=\"de\" bandwidth=\"500\" "
    "audioSamplingRate=\"48000\"><SegmentList><SegmentURL media=\"de-1.m4s\"/></SegmentList></Representation>"
    "</AdaptationSet><AdaptationSet id=\"3\" mimeType=\"text/vtt\" lang=\"en\"><Representation id=\"en\" "
    "bandwidth=\"1\"><BaseURL>en.vtt</BaseURL></Representation></AdaptationSet></Period></MPD>";

class DashAdapter : public testing::Test {
protected:
  void SetUp() override {
    service = std::make_shared<support::ScriptedTransferService>(bodies.path());
    environment = openEnvironment(directory.path());
    environment->setTransferService(service);
    dash = DashDownloader::create(true, {{"X-All", "1"}}, environment);
    dispatcher = std::make_shared<RecordingDispatcher>();
    dash->setDispatcher(dispatcher);
  }

  std::shared_ptr<Download> create() {
    halvix::QVErrorRef error;
    auto download = dash->createDownload({url, ContentType::dash, "Title"}, {{"X-Own", "2"}}, &error);
    EXPECT_TRUE(download) << halvix::describeError(error);
    return download;
  }

  halvix::QVErrorRef prepare(const std::string& uuid) {
    support::Arrival<std::pair<std::shared_ptr<Download>, halvix::QVErrorRef>> answer;
    dash->prepareDownload(uuid, [&](auto download, auto error) { answer.arrive({download, error}); });
    if (!answer.hasArrived()) {
      service->dataTasks().back()->answer(200, manifest);
      service->run();
    }
    auto result = answer.wait();
    EXPECT_EQ(answer.count(), 1u);
    EXPECT_EQ(result->first == nullptr, result->second != nullptr);
    return result->second;
  }

  std::shared_ptr<Download> prepared() {
    auto download = create();
    EXPECT_EQ(prepare(download->uuid()), nullptr);
    return download;
  }

  /// Chooses the best picture and the sound.
  static void choose(Download& download) {
    halvix::Selection selection;
    selection.video = {download.videoTracks()[0].renditions[0]};
    selection.audio = {download.audioTracks()[0].renditions[0]};
    download.setSelection(selection);
  }

  std::vector<support::ScriptedTaskRef> liveTasks() {
    return service->session(DashDownloader::sessionConfiguration().identifier)->liveTasks();
  }

  void finishAll() {
    for (bool any = true; any;) {
      any = false;
      for (const auto& task : liveTasks()) {
        task->finish("payload");
        any = true;
      }
      service->run();
    }
  }

  support::TemporaryDirectory directory, bodies;
  std::shared_ptr<support::ScriptedTransferService> service;
  std::shared_ptr<halvix::HostEnvironment> environment;
  std::shared_ptr<DashDownloader> dash;
  std::shared_ptr<RecordingDispatcher> dispatcher;
};

} // namespace

TEST_F(DashAdapter, PreparingDescribesTheMovieInTheHostsTerms) {
  auto download = prepared();
  EXPECT_EQ(download->uuid(), dash->downloader()->downloadIdWithURL(url));
  EXPECT_EQ(service->dataTasks().back()->request().valueForHTTPHeaderField("X-All"), "1");
  EXPECT_EQ(service->dataTasks().back()->request().valueForHTTPHeaderField("X-Own"), "2");

  ASSERT_EQ(download->videoTracks().size(), 1u);
  const auto video = download->videoTracks()[0].renditions;
  ASSERT_EQ(video.size(), 2u);
  EXPECT_EQ(video[0].id, "hi");
  EXPECT_EQ(video[0].codec, "64 x 36 @ 2.0 kbps");
  EXPECT_EQ(video[0].fourCC, "avc1");
  EXPECT_EQ(video[1].fourCC, "") << "the type's default code says nothing";
  EXPECT_EQ(video[0].estimatedSize, 2000);
  const auto audio = download->audioTracks()[0];
  EXPECT_EQ(audio.language, "ger");
  EXPECT_EQ(audio.renditions[0].sampleRate, 48000);
  EXPECT_EQ(audio.renditions[0].codec, "German 48.0 kHZ, 0 ch @ 0.5 kbps\t");
  const auto text = download->textTracks()[0];
  EXPECT_EQ(text.source, "English [VTT]");
  EXPECT_EQ(text.format, halvix::TextTrackFormat::web_vtt);
  EXPECT_EQ(download->duration(), 8.0);
  EXPECT_TRUE(download->notices().empty());
}

TEST_F(DashAdapter, CommandsNeedADownloadThatWasPrepared) {
  auto download = create();
  EXPECT_TRUE(dash->startDownload(download->uuid(), {}));
  EXPECT_TRUE(dispatcher->events().empty()) << "nothing was started";
  for (const std::string& uuid : {download->uuid(), std::string("unknown")}) {
    EXPECT_EQ(dash->pauseDownload(uuid)->type(), ErrorType::downloader_id_not_found);
    EXPECT_EQ(dash->resumeDownload(uuid)->type(), ErrorType::downloader_id_not_found);
    EXPECT_EQ(dash->cancelDownload(uuid)->type(), ErrorType::downloader_id_not_found);
  }
  EXPECT_EQ(dash->startDownload("unknown", {})->type(), ErrorType::downloader_id_not_found);
  EXPECT_EQ(dash->removeDownload("unknown")->type(), ErrorType::storage_error_while_removing_file);
}

TEST_F(DashAdapter, ARunMovesTheHostsRecordThroughItsStates) {
  auto download = prepared();
  choose(*download);
  download->setMaximumConcurrentTransfers(1);
  ASSERT_EQ(dash->startDownload(download->uuid(), {}), nullptr);
  EXPECT_EQ(download->state(), DownloadState::running);
  auto tasks = liveTasks();
  EXPECT_EQ(tasks.size(), 2u) << "one for each quality";
  EXPECT_EQ(tasks[0]->request().valueForHTTPHeaderField("X-Own"), "2");

  ASSERT_EQ(dash->pauseDownload(download->uuid()), nullptr);
  EXPECT_EQ(download->state(), DownloadState::paused);
  ASSERT_EQ(dash->resumeDownload(download->uuid()), nullptr);
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
    EXPECT_EQ(support::readFile(dash->downloadPath() + "/" + download->uuid() + "/" + name), "payload")
        << name;

  ASSERT_EQ(dash->startDownload(download->uuid(), {}), nullptr);
  EXPECT_EQ(download->state(), DownloadState::success) << "what is complete is complete at once";
  EXPECT_TRUE(liveTasks().empty());
}
