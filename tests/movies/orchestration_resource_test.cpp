#include "tests/movies/orchestration_support.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceId.h"

#include <gmock/gmock.h>

using namespace orchestration;

namespace {

TEST(ResourcePath, StaysBelowItsDirectory) {
  const QVResourceDirectory directory("/set", {"movie.mpd", "manifest.mpd", "properties.json"});
  const std::pair<const char*, const char*> places[] = {
      {"a/b.m4s", "a/b.m4s"},
      {"/rooted/b.m4s", "rooted/b.m4s"},
      {"http://host//a/b.m4s?x=1&y=..", "http:/host/a/b.m4s?x=1&y=.."},
      {"./a/../b//c/.", "b/c"},
      {"a/..b/...", "a/..b/..."},
      {"manifest.mpd2", "manifest.mpd2"},
      {"sub/manifest.mpd", "sub/manifest.mpd"},
  };
  for (const auto& [reference, place] : places)
    EXPECT_EQ(directory.relativePath(reference), place) << reference;

  const std::string_view refused[] = {
      "..",
      "../x",
      "a/../../x",
      "",
      ".",
      "a/..",
      "manifest.mpd",
      "./movie.mpd",
      "movie.mpd/x",
      "x/../properties.json",
      {"a\0b", 3},
      "/",
  };
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
  Stage stage({{"v \"1\"", 3}});
  const auto& record = stage.set->selectedQualitiesInfo().front()->resources()[2];
  const auto id =
      QVResourceId::resourceIdWithJSONString(QVResourceId::resourceIdWithResource(*record).serializeToJSON());
  EXPECT_EQ(id.manifestURL(), manifestURL);
  EXPECT_EQ(id.qualityId(), "v \"1\"");
  EXPECT_EQ(id.resourceIndex(), 2U);
  EXPECT_EQ(id.status(), 0U);

  for (const char* text : {"", "no JSON", "[1]", R"({"QVManifestURL":1,"QVResourceIndex":"x"})"}) {
    const auto garbled = QVResourceId::resourceIdWithJSONString(text);
    EXPECT_FALSE(garbled.manifestURL() || garbled.qualityId()) << text;
    EXPECT_EQ(garbled.resourceIndex() + garbled.status(), 0U) << text;
  }
  EXPECT_GT(QVResourceId::resourceIdWithJSONString(R"({"QVResourceIndex":-1})").resourceIndex(), 1U << 30);
}

class Record : public testing::Test {
protected:
  std::shared_ptr<QVResourceDownloadInfo> make(std::shared_ptr<QVRangedURL> resource) {
    return QVResourceDownloadInfo::infoWithResource(std::move(resource), directory, {}, 7,
                                                    QVDownloadSizeUnknown, controller);
  }
  static std::uint64_t describedStatus(const platform::URLSessionTask& task) {
    return QVResourceId::resourceIdWithJSONString(task.taskDescription().value_or("")).status();
  }

  std::shared_ptr<Controller> controller = std::make_shared<Controller>();
  std::shared_ptr<const QVResourceDirectory> directory =
      std::make_shared<QVResourceDirectory>("/set", std::vector<std::string>{"manifest.mpd"});
};

TEST_F(Record, DescribesItsStatusInItsTask) {
  const auto record = make(resourceAt("x", 10, 20));
  record->setAdditionalHeaders(std::make_shared<platform::HTTPHeaders>(
      platform::HTTPHeaders{{"Cookie", "1"}, {"range", "bytes=0-1"}}));
  ASSERT_TRUE(record->activate());
  EXPECT_FALSE(record->activate());
  const auto task = controller->service->task(0);
  EXPECT_EQ(task->request().valueForHTTPHeaderField("Cookie"), "1");
  EXPECT_EQ(task->request().valueForHTTPHeaderField("Range"), "bytes=0-1"); // the given headers win
  EXPECT_EQ(describedStatus(*task), 1U);
  EXPECT_FALSE(record->pause());
  EXPECT_TRUE(record->resume());
  EXPECT_EQ(describedStatus(*task), 2U);
  EXPECT_TRUE(record->pause());
  EXPECT_EQ(task->state(), platform::URLSessionTaskState::Suspended);
  EXPECT_EQ(controller->attached.size(), 1U);

  record->bytesDownloaded(5, 20);
  EXPECT_TRUE(record->cancel());
  EXPECT_FALSE(record->cancel());
  EXPECT_EQ(record->downloadedBytes(), 0);
  EXPECT_EQ(task->state(), platform::URLSessionTaskState::Canceling);
  EXPECT_FALSE(task->taskDescription());
  EXPECT_TRUE(controller->attached.empty());
  EXPECT_TRUE(record->activate());
}

} // namespace
