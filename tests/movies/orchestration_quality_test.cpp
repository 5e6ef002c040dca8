#include "tests/movies/orchestration_support.h"

#include <gmock/gmock.h>

using namespace orchestration;
using testing::ElementsAre;

namespace {

/// One quality, driven without its set.
class Quality : public testing::Test {
protected:
  void make(Wanted wanted, double duration = 0) {
    playlist = playlistOf({std::move(wanted)}, duration);
    const auto& track = playlist->movies().front()->tracks().front();
    info = QVQualityDownloadInfo::infoWithBaseURL("http://host/movie/", directory, track->qualities().front(),
                                                  {}, controller);
    ASSERT_EQ(info->_checkCounters(), "");
  }
  std::shared_ptr<QVResourceDownloadInfo> at(std::size_t index) const { return info->resources()[index]; }
  bool finish(std::size_t index) {
    const bool finished = info->resourceCompleteWithError(at(index), nullptr);
    EXPECT_EQ(info->_checkCounters(), "");
    return finished;
  }
  bool fail(std::size_t index, const platform::ErrorRef& error) {
    const bool finished = info->resourceCompleteWithError(at(index), error);
    EXPECT_EQ(info->_checkCounters(), "");
    return finished;
  }
  bool fail(std::size_t index, int status) {
    return fail(index, platform::makeError(QVDownloadHTTPErrorDomain, status));
  }
  std::vector<std::size_t> live() const {
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
  EXPECT_EQ(info->expectedBytes(), QVDownloadSizeUnknown);
  EXPECT_EQ(info->progress(), QVDownloadProgressUnknown);
  info->resourceBytesDownloaded(at(1), 10, 200);
  // The sum starts at -1 when no size is known at first, and keeps it.
  EXPECT_EQ(info->expectedBytes(), (QVDownloadSize{600, true}));
  EXPECT_FLOAT_EQ(info->progress().value, 20.0F / 600);
  EXPECT_EQ(info->_checkCounters(), "");
}

TEST_F(Quality, FetchesAFewAtATimeInOrder) {
  make({.identifier = "v", .count = 10});
  EXPECT_TRUE(info->download());
  EXPECT_THAT(live(), ElementsAre(0, 1, 2, 3));
  EXPECT_FALSE(finish(2));
  EXPECT_THAT(live(), ElementsAre(0, 1, 3, 4));
  EXPECT_FALSE(finish(2)); // its end is told once
  EXPECT_THAT(live(), ElementsAre(0, 1, 3, 4));

  info->setParallellDownloads(6);
  finish(0);
  EXPECT_THAT(live(), ElementsAre(1, 3, 4, 5, 6, 7));
  for (std::size_t index : {1, 3, 4, 5, 6, 7, 8})
    EXPECT_FALSE(finish(index));
  EXPECT_TRUE(finish(9));
  EXPECT_TRUE(info->completed());
  EXPECT_EQ(info->status(), QVDownloadStatusInactive);
  EXPECT_FALSE(info->download());
}

TEST_F(Quality, RetriesUntilTheBudgetIsSpentButNever404) {
  make({.identifier = "v", .count = 3});
  info->download();
  EXPECT_FALSE(fail(0, 404));
  EXPECT_EQ(at(0)->reactivations(), 0U);
  EXPECT_FALSE(info->failed()); // not before all have ended
  for (unsigned restart = 1; restart <= 4; ++restart) {
    EXPECT_FALSE(fail(1, 503));
    EXPECT_EQ(at(1)->reactivations(), restart);
    EXPECT_EQ(at(1)->status(), QVDownloadStatusDownloading);
  }
  fail(1, 503);
  EXPECT_TRUE(finish(2));
  EXPECT_TRUE(info->failed());

  const auto error = info->error();
  EXPECT_EQ(error->domain(), QVDownloadErrorDomain);
  EXPECT_EQ(error->code(), -1001);
  const auto* errors = error->value<QVResourceErrors>("QVResourceErrors");
  ASSERT_TRUE(errors);
  ASSERT_THAT(*errors, testing::SizeIs(2));
  EXPECT_EQ(errors->at(0)->code(), 404);
  EXPECT_EQ(error->underlyingError(), errors->at(0));
  EXPECT_EQ(*error->value<std::shared_ptr<QVQuality>>("QVQuality"), info->quality());

  EXPECT_TRUE(info->clear());
  EXPECT_FALSE(info->clear());
  EXPECT_EQ(info->_checkCounters(), "");
  EXPECT_FALSE(info->error() || info->completed());
  EXPECT_TRUE(info->download());
  EXPECT_THAT(live(), ElementsAre(0, 1));
}

TEST_F(Quality, GoesOnFromResumeData) {
  make({.identifier = "v", .count = 1});
  info->setAdditionalHeaders(std::make_shared<platform::HTTPHeaders>(platform::HTTPHeaders{{"A", "1"}}));
  info->download();
  const auto data = std::make_shared<const platform::Data>(platform::Data{'x'});
  fail(0, platform::makeError(platform::NSURLErrorDomain, platform::NSURLErrorNetworkConnectionLost,
                              {{platform::NSURLSessionDownloadTaskResumeData, platform::DataRef(data)}}));
  EXPECT_EQ(controller->service->task(1)->resumeData(), *data);
  info->pause();
  fail(0, 500);
  EXPECT_EQ(at(0)->status(), QVDownloadStatusPaused); // the restarted one stays paused too
  EXPECT_EQ(controller->service->task(2)->request().valueForHTTPHeaderField("A"), "1");
}

} // namespace
