#include "tests/movies/orchestration_support.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVMutableMovieDownloadProperties.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceId.h"

#include "platform/foundation/Exception.h"

using namespace orchestration;
using testing::ElementsAre;

namespace {

TEST(Set, FollowsARunToItsEnd) {
  Stage stage({{"v", 2}, {.identifier = "a", .count = 1, .type = QVMediaTypeAudio}});
  auto& set = *stage.set;
  EXPECT_EQ(std::tuple(set.baseURL(), set.uuid(), set.numberOfSelectedQualities()),
            std::tuple("http://host/movie/", "id", 2U));
  set.setAdditionalHeaders(platform::HTTPHeaders{{"cookie", "set"}});
  ASSERT_TRUE(set.downloadWithAdditionalHeaders(platform::HTTPHeaders{{"Cookie", "given"}, {"A", "1"}}));
  EXPECT_FALSE(stage.download());
  const auto& request = stage.controller->service->task(0)->request();
  EXPECT_EQ(request.valueForHTTPHeaderField("Cookie"), "set");
  EXPECT_EQ(request.valueForHTTPHeaderField("A"), "1");
  EXPECT_EQ(request.url().absoluteString(), "http://host/movie/v/0.m4s");

  const std::pair<std::string, std::function<void()>> misuses[] = {
      {"Can't select quality in non-idle state", [&] { set.selectAllQualities(); }},
      {"Can't deselect quality in non-idle state", [&] { set.deselectQuality(stage.quality(0)); }},
      {"Can't remove quality in non-idle state", [&] { set.removeDownloadedQuality(stage.quality(0)); }},
      {"Can't remove qualities in non-idle state", [&] { set.removeAllDownloadedQualities(); }},
      {"Quality not available in movie", [&] { set.isQualitySelected(nullptr); }}};
  for (const auto& [reason, misuse] : misuses)
    try {
      misuse();
      ADD_FAILURE() << reason;
    } catch (const platform::Exception& exception) {
      EXPECT_EQ(std::tuple(exception.name(), exception.reason()),
                std::tuple("QVMovieDownloadSetException", reason));
    }

  for (int times = 0; times < 2; ++times)
    set.pause();
  EXPECT_EQ(set.status(), QVDownloadStatusPaused);
  for (int times = 0; times < 2; ++times)
    set.resume();
  EXPECT_THAT(stage.told(), ElementsAre("status 2", "status 1", "status 2"));

  stage.finishAll();
  EXPECT_THAT(stage.told(), ElementsAre("quality v ok", "quality a ok", "status 0", "done ok"));
  EXPECT_EQ(set.status(), QVDownloadStatusInactive);
  EXPECT_FALSE(set.selectedQualities());
  // The list is walked from its end.
  EXPECT_THAT(*set.downloadedQualities(), ElementsAre(stage.quality(1), stage.quality(0)));
  EXPECT_EQ(set.properties()->numberOfDownloadedAudioQualities(), 1U);
  EXPECT_THAT(*set.properties()->downloadedQualityIdentifiers(), ElementsAre("a", "v"));
  EXPECT_FALSE(stage.download());
}

TEST(Set, EndsWithTheErrorsOfTheFailedQualities) {
  Stage stage({{"v", 3}, {"w", 1}, {.identifier = "x", .resources = {resourceAt("../x")}}});
  auto& set = *stage.set;
  ASSERT_TRUE(stage.download());
  stage.fail(stage.controller->oldest());
  EXPECT_EQ(set._checkCounters(), "");
  stage.finishAll();
  EXPECT_THAT(stage.told(),
              ElementsAre("status 2", "quality v failed", "quality w ok", "status 0", "done -1002"));
  const auto& error = stage.diary->lastError;
  const auto* errors = error->value<QVQualityErrors>("QVQualityErrors");
  ASSERT_TRUE(errors);
  ASSERT_THAT(*errors, testing::SizeIs(2));
  EXPECT_EQ(errors->at("v")->code(), -1001);
  EXPECT_THAT(errors->at("x")->localizedDescription(), testing::HasSubstr("../x"));
  EXPECT_EQ(*error->value<std::shared_ptr<QVMovie>>("QVMovie"), set.movie());
  EXPECT_EQ(error->underlyingError(), errors->at("v"));
  EXPECT_TRUE(set.isQualitySelected(stage.quality(0)) && set.isQualityDownloaded(stage.quality(1)));

  // The failed resource alone is fetched again; what can never be fetched is named again.
  ASSERT_TRUE(stage.download());
  EXPECT_EQ(stage.controller->attached.size(), 1U);
  stage.finishAll();
  EXPECT_THAT(stage.told(), ElementsAre("status 2", "quality v ok", "status 0", "done -1002"));
  EXPECT_FALSE(stage.download());
  set.deselectAllQualities();
}

TEST(Set, CountsBytesAndProgress) {
  Stage stage({{.identifier = "v", .count = 2, .bitrate = 800}, {.identifier = "w", .count = 2}}, 10);
  auto& set = *stage.set;
  const std::int64_t onDisk = set.downloadedBytes(); // the properties file
  EXPECT_GT(onDisk, 0);
  EXPECT_EQ(set.expectedBytes(), (QVDownloadSize{1000, true})); // w has no bit rate: its sizes are 0
  EXPECT_EQ(set.totalSize(), (QVDownloadSize{1000, true}));
  stage.download();
  const auto record = stage.controller->oldest();
  set.resourceBytesDownloaded(record, 200, 400);
  EXPECT_EQ(set._checkCounters(), "");
  EXPECT_FLOAT_EQ(stage.diary->qualityProgress.at("v"), 200.0F / 900);
  EXPECT_FLOAT_EQ(stage.diary->lastProgress, static_cast<float>(onDisk + 200) / 900);
  EXPECT_EQ(set.downloadedBytesForQuality(stage.quality(0)), 200);
  stage.fail(record, 500); // its bytes are gone; it starts again
  EXPECT_EQ(std::tuple(set.downloadedBytes(), set._checkCounters()), std::tuple(onDisk, ""));
  set.resourceBytesDownloaded(record, 100, 400);
  set.cancel();
  EXPECT_EQ(set.downloadedBytes(), onDisk);

  Stage unknown({{"v", 1}, {"w", 1}, {"x", 1}});
  EXPECT_EQ(unknown.set->expectedBytes(), (QVDownloadSize{-3, true}));
  EXPECT_EQ(unknown.set->progress(), QVDownloadProgressUnknown);
  EXPECT_EQ(unknown.set->totalSize(), QVDownloadSizeUnknown);
  const auto infos = unknown.set->selectedQualitiesInfo();
  EXPECT_EQ(QVMovieDownloadSet::expectedBytesFor(infos), QVDownloadSizeUnknown);
  unknown.download();
  unknown.set->resourceBytesDownloaded(infos[0]->resources()[0], 1, 101);
  unknown.set->resourceBytesDownloaded(infos[2]->resources()[0], 1, 201);
  EXPECT_EQ(QVMovieDownloadSet::expectedBytesFor(infos), (QVDownloadSize{450, true}));
}

TEST(Set, FindsWhatIsOnDisk) {
  Stage stage({{"v", 2}, {"w", 2}, {"x", 1}, {"none", 0}});
  for (const auto& [name, content] :
       {std::pair("v/0.m4s", "12345"), std::pair("v/1.m4s", "123"), std::pair("w/1.m4s", "1"),
        std::pair("x/0.m4s/file", "a directory is no resource")})
    stage.controller->directory.write(std::string("set/") + name, content);
  stage.open();
  auto& set = *stage.set;
  EXPECT_THAT(*set.downloadedQualities(), ElementsAre(stage.quality(0), stage.quality(3)));
  EXPECT_THAT(*set.selectedQualities(), ElementsAre(stage.quality(1)));
  EXPECT_EQ(set.downloadedSize(), 8);
  // Of the sum that starts at -1, and with it as an estimate, if nothing tells the sizes before.
  EXPECT_EQ(set.expectedBytesForQuality(stage.quality(0)), (QVDownloadSize{7, true}));

  set.selectQuality(stage.quality(0)); // stays downloaded
  stage.download();
  EXPECT_EQ(stage.controller->attached.size(), 1U);
  EXPECT_EQ(stage.controller->oldest()->index(), 0U);
  set.cancel();

  set.removeDownloadedQuality(stage.quality(0));
  EXPECT_FALSE(set.isQualityDownloaded(stage.quality(0)));
  EXPECT_EQ(support::readFile(stage.path() + "/v/0.m4s"), "");
  EXPECT_EQ(set._checkCounters(), "");
  set.selectQuality(stage.quality(0));
  EXPECT_TRUE(stage.download());
  EXPECT_EQ(stage.controller->attached.size(), 3U);
}

TEST(Set, KeepsItsCountWhenARunIsCancelledHalfway) {
  Stage stage({{"v", 1}, {"w", 1}});
  stage.download();
  stage.finish(stage.controller->oldest());
  for (int times = 0; times < 2; ++times)
    stage.set->cancel();
  EXPECT_THAT(stage.told(), ElementsAre("status 2", "quality v ok", "status 0"));
  stage.set->deselectQuality(stage.quality(0));
  EXPECT_EQ(stage.set->_checkCounters(), "");
  stage.download();
  stage.finishAll();
  EXPECT_THAT(stage.told(), ElementsAre("status 2", "quality w ok", "status 0", "done ok"));
}

TEST(Set, TakesOverTasksWithoutTelling) {
  Stage stage({{"v", 3}, {"w", 1}});
  auto& set = *stage.set;
  set.deselectAllQualities();
  const std::tuple<const char*, bool, QVDownloadStatus> tasks[] = {
      {R"({"QVQualityId":"z","QVStatus":2})", false, QVDownloadStatusInactive},
      {R"({"QVQualityId":"v","QVResourceIndex":3,"QVStatus":2})", false, QVDownloadStatusInactive},
      {R"({"QVQualityId":"v","QVResourceIndex":1,"QVStatus":1})", true, QVDownloadStatusPaused},
      {R"({"QVQualityId":"v","QVResourceIndex":2,"QVStatus":2})", true, QVDownloadStatusDownloading},
      {R"({"QVQualityId":"w","QVStatus":1})", true, QVDownloadStatusDownloading}};
  for (const auto& [id, taken, status] : tasks) {
    const auto task = stage.controller->session->downloadTaskWithRequest(*resourceAt("v")->prepareRequest());
    EXPECT_EQ(set.reattachResource(QVResourceId::resourceIdWithJSONString(id), task), taken) << id;
    EXPECT_EQ(set.status(), status) << id;
    EXPECT_THAT(stage.told(), testing::IsEmpty()) << id;
  }
  set.resume();
  EXPECT_EQ(set._checkCounters(), "");
  stage.finishAll();
  EXPECT_THAT(stage.told(), ElementsAre("status 2", "quality w ok", "quality v ok", "status 0", "done ok"));
}

TEST(Set, MayBeUsedByItsDelegate) {
  Stage stage({{.identifier = "v", .count = 8, .bitrate = 8000}}, 10);
  Stage other({{"o", 1}});
  stage.diary->onProgress = [&](const auto& set) {
    EXPECT_EQ(other.set->status(), QVDownloadStatusInactive); // another set's lock
    set->cancel();
  };
  stage.diary->onStatus = [&, again = true](const auto& set, QVDownloadStatus status) mutable {
    if (status == QVDownloadStatusInactive && std::exchange(again, false)) {
      set->downloadWithAdditionalHeaders(std::nullopt);
      throw std::runtime_error("a delegate's own fault");
    }
  };
  stage.download();
  stage.set->resourceBytesDownloaded(stage.controller->oldest(), 5, 10);
  EXPECT_EQ(stage.diary->progressEvents, 1);
  EXPECT_THAT(stage.told(), ElementsAre("status 2", "status 0", "status 2"));
  stage.finishAll();
  EXPECT_THAT(stage.told(), ElementsAre("quality v ok", "status 0", "done ok"));
}

} // namespace
