#include "tests/movies/orchestration_support.h"

using namespace orchestration;
using testing::ElementsAre;

namespace {

/// One quality, driven without its set.
class Quality : public testing::Test {
protected:
  void TearDown() override { EXPECT_EQ(info->_checkCounters(), ""); }
  void make(Wanted wanted, double duration = 0) {
    playlist = playlistOf({std::move(wanted)}, duration);
    const auto& track = playlist->movies().front()->tracks().front();
    info = QVQualityDownloadInfo::infoWithBaseURL("http://host/movie/", directory, track->qualities().front(),
                                                  {}, controller);
    ASSERT_EQ(info->_checkCounters(), "");
  }
  std::shared_ptr<QVResourceDownloadInfo> at(std::size_t index) const { return info->resources()[index]; }
  bool complete(std::size_t index, const platform::ErrorRef& error) {
    const bool finished = info->resourceCompleteWithError(at(index), error);
    EXPECT_EQ(info->_checkCounters(), "");
    return finished;
  }
  bool finish(std::size_t index) { return complete(index, nullptr); }
  bool fail(std::size_t index, int status) {
    return complete(index, platform::makeError(QVDownloadHTTPErrorDomain, status));
  }
  std::vector<std::size_t> live() const {
    EXPECT_EQ(info->_checkCounters(), "");
    std::vector<std::size_t> indices;
    for (const auto& record : info->resources())
      if (record->status() == QVDownloadStatusDownloading)
        indices.push_back(record->index());
    return indices;
  }

  std::shared_ptr<Controller> controller = std::make_shared<Controller>();
  std::shared_ptr<const QVResourceDirectory> directory =
      std::make_shared<QVResourceDirectory>("/set", std::vector<std::string>{"manifest.mpd"});
  std::shared_ptr<QVPlaylist> playlist;
  std::shared_ptr<QVQualityDownloadInfo> info;
};

TEST_F(Quality, EstimatesFromDurationAndBitrate) {
  make({.identifier = "v", .count = 10, .bitrate = 800000}, 10);
  EXPECT_EQ(at(3)->expectedBytes(), (QVDownloadSize{100000, true}));
  EXPECT_EQ(info->expectedBytes(), (QVDownloadSize{1000000, true}));
  info->resourceBytesDownloaded(at(0), 10, 50000);
  EXPECT_EQ(info->expectedBytes(), (QVDownloadSize{950000, true}));
  EXPECT_EQ(info->_checkCounters(), "");

  make({.identifier = "absurd", .count = 2, .bitrate = 4000000000U}, 1e300);
  EXPECT_EQ(info->expectedBytes(), QVDownloadSizeUnknown);
  make({.identifier = "none"});
  EXPECT_EQ(info->expectedBytes(), (QVDownloadSize{0, false}));
  EXPECT_FALSE(info->download());
}

TEST_F(Quality, ExtrapolatesFromTwoKnownSizes) {
  make({.identifier = "v", .count = 4});
  info->resourceBytesDownloaded(at(0), 10, 101);
  EXPECT_EQ(std::tuple(info->expectedBytes(), info->progress()),
            std::tuple(QVDownloadSizeUnknown, QVDownloadProgressUnknown));
  info->resourceBytesDownloaded(at(1), 10, 200);
  // The sum starts at -1 when no size is known at first, and keeps it.
  EXPECT_EQ(info->expectedBytes(), (QVDownloadSize{600, true}));
  EXPECT_FLOAT_EQ(info->progress().value, 20.0F / 600);
}

TEST_F(Quality, FetchesAFewAtATimeInOrder) {
  make({.identifier = "v", .count = 10});
  EXPECT_TRUE(info->download());
  EXPECT_THAT(live(), ElementsAre(0, 1, 2, 3));
  for (int told = 0; told < 2; ++told) { // its end counts once
    EXPECT_FALSE(finish(2));
    EXPECT_THAT(live(), ElementsAre(0, 1, 3, 4));
  }
  info->setParallellDownloads(6);
  finish(0);
  EXPECT_THAT(live(), ElementsAre(1, 3, 4, 5, 6, 7));
  for (std::size_t index : {1, 3, 4, 5, 6, 7, 8})
    EXPECT_FALSE(finish(index));
  EXPECT_TRUE(finish(9));
  EXPECT_TRUE(info->completed() && info->status() == QVDownloadStatusInactive && !info->download());
}

TEST_F(Quality, PausesResumesAndCancelsWhatIsFetched) {
  make({.identifier = "v", .count = 6});
  EXPECT_FALSE(info->pause() || info->resume() || info->cancel());
  info->download();
  EXPECT_FALSE(info->resume());
  info->resourceBytesDownloaded(at(1), 500, 1000);
  EXPECT_TRUE(info->pause());
  EXPECT_FALSE(info->pause());
  EXPECT_EQ(info->status(), QVDownloadStatusPaused);
  finish(0); // was on its way; the next one is prepared, but does not run
  EXPECT_EQ(std::tuple(at(4)->status(), info->status()),
            std::tuple(QVDownloadStatusPaused, QVDownloadStatusPaused));
  EXPECT_TRUE(info->resume());
  EXPECT_THAT(live(), ElementsAre(1, 2, 3, 4));

  EXPECT_TRUE(info->cancel());
  EXPECT_EQ(info->_checkCounters(), "");
  EXPECT_EQ(info->downloadedBytes(), 0);
  EXPECT_FALSE(finish(1) || at(1)->completed()) << "nobody waits for it any more";
  EXPECT_TRUE(info->download());
  EXPECT_THAT(live(), ElementsAre(1, 2, 3, 4));
}

TEST_F(Quality, RetriesUntilTheBudgetIsSpentButNever404) {
  make({.identifier = "v", .count = 3});
  info->download();
  EXPECT_FALSE(fail(0, 404));
  EXPECT_EQ(at(0)->reactivations(), 0U);
  EXPECT_FALSE(info->failed()); // not before all have ended
  for (unsigned restart = 1; restart <= 4; ++restart) {
    EXPECT_FALSE(fail(1, 503));
    EXPECT_EQ(std::tuple(at(1)->reactivations(), at(1)->status()),
              std::tuple(restart, QVDownloadStatusDownloading));
  }
  fail(1, 503);
  EXPECT_TRUE(finish(2));
  EXPECT_TRUE(info->failed());

  const auto error = info->error();
  EXPECT_EQ(std::tuple(error->domain(), error->code()), std::tuple(QVDownloadErrorDomain, -1001));
  const auto* errors = error->value<QVResourceErrors>("QVResourceErrors");
  ASSERT_TRUE(errors);
  ASSERT_THAT(*errors, testing::SizeIs(2));
  EXPECT_EQ(errors->at(0)->code(), 404);
  EXPECT_EQ(error->underlyingError(), errors->at(0));
  EXPECT_EQ(*error->value<std::shared_ptr<QVQuality>>("QVQuality"), info->quality());

  EXPECT_TRUE(info->clear());
  EXPECT_FALSE(info->clear() || info->error() || info->completed());
  EXPECT_EQ(info->_checkCounters(), "");
  EXPECT_TRUE(info->download());
  EXPECT_THAT(live(), ElementsAre(0, 1));
}

TEST_F(Quality, GoesOnFromResumeData) {
  make({.identifier = "v", .count = 1});
  info->setAdditionalHeaders(std::make_shared<platform::HTTPHeaders>(platform::HTTPHeaders{{"A", "1"}}));
  info->download();
  const auto data = std::make_shared<const platform::Data>(platform::Data{'x'});
  complete(0, platform::makeError(platform::NSURLErrorDomain, platform::NSURLErrorNetworkConnectionLost,
                                  {{platform::NSURLSessionDownloadTaskResumeData, platform::DataRef(data)}}));
  EXPECT_EQ(controller->service->task(1)->resumeData(), *data);
  info->pause();
  fail(0, 500);
  EXPECT_EQ(at(0)->status(), QVDownloadStatusPaused); // the restarted one stays paused too
  EXPECT_EQ(controller->service->task(2)->request().valueForHTTPHeaderField("A"), "1");
}

TEST_F(Quality, LeavesOutWhatMayNotBeStored) {
  make({.identifier = "v", .resources = {resourceAt("../x"), resourceAt("ok"), resourceAt("manifest.mpd")}});
  EXPECT_TRUE(info->download());
  EXPECT_THAT(live(), ElementsAre(1));
  EXPECT_TRUE(finish(1));
  EXPECT_THAT(*info->error()->value<QVResourceErrors>("QVResourceErrors"), testing::SizeIs(2));
  EXPECT_FALSE(info->clear());
  info->reset();
  EXPECT_EQ(info->_checkCounters(), "");
  EXPECT_TRUE(info->download());

  make({.identifier = "none", .resources = {resourceAt("../x")}});
  EXPECT_FALSE(info->download());
  EXPECT_TRUE(info->failed() && info->error() && !info->clear());
}

TEST_F(Quality, DoesNotStartWithoutASession) {
  controller->session = nullptr;
  make({.identifier = "v", .count = 2});
  EXPECT_FALSE(info->download());
}

} // namespace
