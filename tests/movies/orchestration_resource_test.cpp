#include "tests/movies/orchestration_support.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceId.h"

using namespace orchestration;

namespace {

TEST(ResourcePath, StaysBelowItsDirectory) {
  const QVResourceDirectory directory("/set", {"movie.mpd", "manifest.mpd", "properties.json"});
  const std::pair<const char*, const char*> places[] = {
      {"a/b.m4s", "a/b.m4s"},
      {"/rooted/b.m4s", "rooted/b.m4s"},
      {"./a/../b//c/.", "b/c"},
      {"a/..b/...", "a/..b/..."},
      {"manifest.mpd2", "manifest.mpd2"},
      {"sub/manifest.mpd", "sub/manifest.mpd"},
      {"http://host//a/b.m4s?x=1&y=..", "http:/host/a/b.m4s?x=1&y=.."}};
  for (const auto& [reference, place] : places)
    EXPECT_EQ(directory.relativePath(reference), place) << reference;

  const std::string_view refused[] = {"..",
                                      "../x",
                                      "a/../../x",
                                      "",
                                      ".",
                                      "a/..",
                                      "manifest.mpd",
                                      "./movie.mpd",
                                      "movie.mpd/x",
                                      "x/../properties.json",
                                      std::string_view("a\0b", 3),
                                      "/"};
  for (const auto& reference : refused) {
    std::string reason;
    EXPECT_FALSE(directory.relativePath(reference, &reason)) << reference;
    EXPECT_FALSE(reason.empty());
  }
  EXPECT_FALSE(QVResourceDirectory("/" + std::string(4000, 'd'), {}).relativePath(std::string(200, 'x')));
}

TEST(ResourcePath, ShortensLongComponentsInOneWay) {
  EXPECT_EQ(QVShortenedPathComponent(std::string(255, 'a')), std::string(255, 'a'));
  const std::string shortened = QVShortenedPathComponent(std::string(300, 'a') + ".m4s?token=x.y");
  EXPECT_THAT(shortened, testing::MatchesRegex("a{234}~[0-9a-f]{16}.m4s"));
  EXPECT_NE(shortened, QVShortenedPathComponent(std::string(300, 'a') + ".m4s?token=x.z"));
  EXPECT_EQ(QVShortenedPathComponent(std::string(300, 'b')).size(), 255U);

  // "é" is two bytes: neither the head nor the extension ends in the middle of one.
  std::string accents;
  for (int n = 0; n < 200; ++n)
    accents += "é";
  const std::string cut = QVShortenedPathComponent(accents + "." + accents);
  const std::size_t tilde = cut.find('~');
  EXPECT_EQ(tilde % 2, 0U);
  EXPECT_EQ(cut.substr(tilde + 17), "." + accents.substr(0, 14));
  EXPECT_LE(cut.size(), 255U);
}

TEST(ResourceId, SurvivesTheDescriptionOfATask) {
  const auto read = [](const std::string& text) { return QVResourceId::resourceIdWithJSONString(text); };
  Stage stage({{"v \"1\"", 3}});
  const auto& record = stage.set->selectedQualitiesInfo().front()->resources()[2];
  const auto id = read(QVResourceId::resourceIdWithResource(*record).serializeToJSON());
  EXPECT_EQ(std::tuple(id.manifestURL(), id.qualityId(), id.resourceIndex(), id.status()),
            std::tuple(manifestURL, "v \"1\"", 2U, 0U));

  for (const char* text : {"", "no JSON", "[1]", R"({"QVManifestURL":1,"QVResourceIndex":"x"})"}) {
    const auto garbled = read(text);
    EXPECT_FALSE(garbled.manifestURL() || garbled.qualityId()) << text;
    EXPECT_EQ(garbled.resourceIndex() + garbled.status(), 0U) << text;
  }
  EXPECT_GT(read(R"({"QVResourceIndex":-1})").resourceIndex(), 1U << 30);
}

class Record : public testing::Test {
protected:
  std::shared_ptr<QVResourceDownloadInfo> make(std::shared_ptr<QVRangedURL> resource,
                                               QVDownloadSize expected = QVDownloadSizeUnknown) {
    return QVResourceDownloadInfo::infoWithResource(std::move(resource), directory, {}, 7, expected,
                                                    controller);
  }

  std::shared_ptr<Controller> controller = std::make_shared<Controller>();
  std::shared_ptr<const QVResourceDirectory> directory =
      std::make_shared<QVResourceDirectory>("/set", std::vector<std::string>{"manifest.mpd"});
};

TEST_F(Record, ExpectsItsRangeRatherThanTheEstimate) {
  EXPECT_EQ(make(resourceAt("x", 10, 5000), {100, true})->expectedBytes(), (QVDownloadSize{5000, false}));
  const auto record = make(resourceAt("x", 10), {100, true});
  EXPECT_EQ(record->progress(), (QVDownloadProgress{0, true}));
  record->bytesDownloaded(50, -1);
  EXPECT_EQ(record->progress(), (QVDownloadProgress{0.5F, true}));
  record->bytesDownloaded(50, 200);
  EXPECT_EQ(record->progress(), (QVDownloadProgress{0.25F, false}));
}

TEST_F(Record, DescribesItsStatusInItsTask) {
  const auto record = make(resourceAt("x", 10, 20));
  record->setAdditionalHeaders(std::make_shared<platform::HTTPHeaders>(
      platform::HTTPHeaders{{"Cookie", "1"}, {"range", "bytes=0-1"}}));
  ASSERT_TRUE(record->activate());
  EXPECT_FALSE(record->activate());
  const auto task = controller->service->task(0);
  EXPECT_EQ(task->request().valueForHTTPHeaderField("Cookie"), "1");
  EXPECT_EQ(task->request().valueForHTTPHeaderField("Range"), "bytes=0-1") << "the given headers win";
  const auto describedStatus = [&] {
    return QVResourceId::resourceIdWithJSONString(task->taskDescription().value_or("")).status();
  };
  EXPECT_EQ(describedStatus(), 1U);
  EXPECT_FALSE(record->pause());
  EXPECT_EQ(task->calls().descriptions.size(), 1U);
  EXPECT_TRUE(record->resume());
  EXPECT_EQ(describedStatus(), 2U);
  EXPECT_TRUE(record->pause());
  EXPECT_EQ(task->state(), platform::URLSessionTaskState::Suspended);
  EXPECT_EQ(controller->attached.size(), 1U);

  record->bytesDownloaded(5, 20);
  EXPECT_TRUE(record->cancel());
  EXPECT_FALSE(record->cancel() || task->taskDescription());
  EXPECT_EQ(std::tuple(record->downloadedBytes(), task->calls().cancelled, controller->attached.size()),
            std::tuple(0, 1, 0U));
  EXPECT_TRUE(record->activate());
}

TEST_F(Record, HasFourRestarts) {
  const auto record = make(resourceAt("x"));
  record->activate();
  const auto error = platform::makeError(platform::NSURLErrorDomain, platform::NSURLErrorTimedOut);
  for (int restart = 0; restart < 4; ++restart) {
    record->completeWithError(error);
    EXPECT_TRUE(record->failed() && record->reactivate()) << restart;
    EXPECT_EQ(record->status(), QVDownloadStatusPaused);
  }
  record->completeWithError(error);
  EXPECT_FALSE(record->reactivate());
  EXPECT_EQ(record->error(), error);
  EXPECT_TRUE(record->clear());
  EXPECT_FALSE(record->clear());
  EXPECT_TRUE(record->reactivate());

  // Nothing to fetch with: the outcome stands.
  record->completeWithError(error);
  controller->session = nullptr;
  EXPECT_FALSE(record->reactivate());
  EXPECT_EQ(record->error(), error);
  EXPECT_TRUE(record->completed());
}

TEST_F(Record, TakesOverATaskOfAnEarlierProcess) {
  const auto task = controller->session->downloadTaskWithRequest(*resourceAt("x")->prepareRequest());
  const auto scripted = controller->service->task(0);
  scripted->resume();
  scripted->write(30, 90);

  const auto record = make(resourceAt("x"));
  ASSERT_TRUE(record->reattachWithStatus(2, task));
  EXPECT_FALSE(record->reattachWithStatus(2, task));
  EXPECT_EQ(std::tuple(record->status(), record->downloadedBytes(), record->expectedBytes()),
            std::tuple(QVDownloadStatusDownloading, 30, QVDownloadSize{90, false}));

  const auto strange = make(resourceAt("x"));
  EXPECT_TRUE(strange->reattachWithStatus(77, task)); // the task itself knows
  EXPECT_EQ(strange->status(), QVDownloadStatusDownloading);
  const auto present = make(resourceAt("x"));
  present->completeWithBytesPreloaded(10);
  EXPECT_FALSE(present->reattachWithStatus(2, task));
  task->cancel();
  EXPECT_FALSE(make(resourceAt("x"))->reattachWithStatus(2, task));
}

TEST_F(Record, ThatMayNotStandWhereItWouldIsNeverFetched) {
  const auto record = make(resourceAt("../other/manifest.mpd"));
  for (int round = 0; round < 2; ++round) {
    EXPECT_TRUE(record->completed());
    ASSERT_TRUE(record->error());
    EXPECT_EQ(record->error()->code(), QVDownloadErrorResourcePath);
    EXPECT_THAT(record->error()->localizedDescription(), testing::HasSubstr("../other/manifest.mpd"));
    EXPECT_EQ(record->resourcePath(), "");
    EXPECT_FALSE(record->clear() || record->activate() || record->reactivate());
    record->reset();
    record->completeWithBytesPreloaded(5);
  }
  EXPECT_EQ(controller->service->taskCount(), 0U);
}

} // namespace
