#include "tests/halvix/ScriptedDownloader.h"
#include "tests/support/Expectation.h"
#include "tests/support/ScriptedTransferService.h"
#include "tests/support/TemporaryDirectory.h"

#include "halvix/DownloadManager.h"
#include "halvix/DownloadStore.h"
#include "halvix/Session.h"

#include "platform/concurrency/Queue.h"

#include <gmock/gmock.h>

#include <filesystem>

namespace {

using namespace halvix;
using support::TemporaryDirectory, testing::ElementsAre, tests::dashMovie, tests::failure,
    tests::openEnvironment, tests::pictureOnly, tests::ScriptedDownloader;

/// A plugin that is its only factory.
class ScriptedPlugin final : public QVPluginProtocol,
                             public DownloaderFactoryProtocol,
                             public std::enable_shared_from_this<ScriptedPlugin> {
public:
  explicit ScriptedPlugin(std::shared_ptr<ScriptedDownloader> downloader)
      : _downloader(std::move(downloader)) {}
  std::string name() const override { return "ScriptedPlugin"; }
  std::string version() const override { return "1"; }
  void pluginAttached(const std::shared_ptr<QVPluginContext>& context) override {
    _dispatchers = context->dispatchers();
    context->components()->registerFactory(shared_from_this());
  }
  void pluginDetached() override { ++detached; }
  void configure(const QVPluginConfiguration& configuration) override { configured = configuration.values; }

  bool canDownload(ContentType type) const override { return _downloader->canDownload(type); }
  std::shared_ptr<BaseDownloader> create(const std::shared_ptr<Session>& session, ContentType) override {
    ++created;
    _downloader->setDispatcher(_dispatchers->createDownloaderDispatcher(session));
    return _downloader;
  }
  bool canAttach(const std::shared_ptr<Session>& session) const override {
    return session->identifier() != "unwanted";
  }

  int created = 0, detached = 0;
  std::map<std::string, std::string> configured;

private:
  std::shared_ptr<ScriptedDownloader> _downloader;
  std::shared_ptr<QVPluginDispatchers> _dispatchers;
};

/// Writes down what it hears; only the main queue does, and the test after `settle`.
class Recorder final : public DownloadDelegate {
public:
  void downloadDidStart(const std::shared_ptr<Download>&) override { note("start"); }
  void downloadDidChangeState(const std::shared_ptr<Download>&, DownloadState state) override {
    note(rawValue(state));
  }
  void downloadDidUpdateProgress(const std::shared_ptr<Download>& download) override {
    note("progress " + std::to_string(download->progress().downloadedContentSize()));
  }
  void downloadDidFail(const std::shared_ptr<Download>&, const QVErrorRef& error) override {
    note("fail " + error->message());
  }
  void downloadDidFinish(const std::shared_ptr<Download>&) override { note("finish"); }

  std::vector<std::string> take() {
    std::vector<std::string> taken;
    platform::MainQueue::shared().sync([&] { taken.swap(_events); });
    return taken;
  }

private:
  void note(std::string event) {
    EXPECT_TRUE(platform::MainQueue::shared().isCurrent());
    _events.push_back(std::move(event));
  }
  std::vector<std::string> _events;
};

class ManagerTest : public testing::Test {
protected:
  ManagerTest() { open(); }
  ~ManagerTest() override { close(); }

  /// As the next process does, once there was one before.
  void open() {
    close();
    environment = openEnvironment(library.path());
    HostEnvironment::setDefault(environment);
    downloader = std::make_shared<ScriptedDownloader>(environment);
    plugin = std::make_shared<ScriptedPlugin>(downloader);
    manager = DownloadManager::create(environment);
    manager->attachPlugin(plugin);
    recorder = std::make_shared<Recorder>();
    manager->addListener(recorder);
    manager->addListener(recorder);
  }
  void close() {
    if (recorder)
      recorder->take(); // what the main queue still holds refers to downloads
    manager.reset();
    plugin.reset();
    downloader.reset();
    HostEnvironment::setDefault(nullptr);
    environment.reset();
  }

  std::shared_ptr<Download> create(const std::string& name) {
    QVErrorRef error;
    auto download = manager->createDownload(dashMovie(name), {}, &error);
    EXPECT_TRUE(download) << describe(error);
    return download;
  }
  using Command = void (DownloadManager::*)(const std::shared_ptr<Download>&, DownloadManager::Completion);
  QVErrorRef outcomeOf(Command command, const std::shared_ptr<Download>& download) {
    support::Arrival<QVErrorRef> arrival;
    (manager.get()->*command)(download, [&](const QVErrorRef& error) { arrival.arrive(error); });
    return arrival.wait().value();
  }
  QVErrorRef prepare(const std::shared_ptr<Download>& d) { return outcomeOf(&DownloadManager::prepare, d); }
  QVErrorRef resume(const std::shared_ptr<Download>& d) { return outcomeOf(&DownloadManager::resume, d); }
  std::shared_ptr<Download> started(const std::string& name) {
    auto download = create(name);
    EXPECT_FALSE(prepare(download));
    EXPECT_FALSE(manager->select(download, pictureOnly(0)));
    EXPECT_FALSE(manager->start(download));
    return download;
  }
  static std::string describe(const QVErrorRef& error) { return error ? error->description() : ""; }
  auto summaries() const { return DownloadStore::summaries(library.path(), nullptr); }

  TemporaryDirectory library;
  std::shared_ptr<HostEnvironment> environment;
  std::shared_ptr<ScriptedDownloader> downloader;
  std::shared_ptr<ScriptedPlugin> plugin;
  std::shared_ptr<DownloadManager> manager;
  std::shared_ptr<Recorder> recorder;
};

TEST_F(ManagerTest, FindsDownloadersThroughPluginsAndTheirFactories) {
  QVErrorRef error;
  EXPECT_EQ(manager->downloaderForContentType(ContentType::dash, &error), downloader);
  manager->downloaderForContentType(ContentType::dash, &error);
  EXPECT_EQ(plugin->created, 1);
  EXPECT_FALSE(manager->downloaderForContentType(ContentType::hls, &error));
  EXPECT_EQ(error->type(), ErrorType::downloader_not_found);
  const auto& components = manager->components();
  components->registerFactory(plugin);
  EXPECT_EQ(components->factories().size(), 1u);
  EXPECT_FALSE(components->factory(ContentType::dash, std::make_shared<Session>("unwanted")));
  EXPECT_EQ(components->downloader(manager->session(), ContentType::dash), downloader);

  manager->configurePlugins({{{"key", "value"}}});
  EXPECT_EQ(plugin->configured.at("key"), "value");
  manager->detachPlugins();
  manager.reset();
  EXPECT_EQ(plugin->detached, 1);
}

TEST_F(ManagerTest, CreatesADownloaderWhenItHasADownload) {
  auto other = DownloadManager::create(environment);
  other->attachPlugin(plugin);
  EXPECT_THAT(other->downloads(), testing::IsEmpty());
  EXPECT_FALSE(manager->findDownloadByContentUrl("https://example.com/movie.mpd"));
  EXPECT_EQ(plugin->created, 0);
  started("movie.mpd");
  EXPECT_THAT(other->downloads(), testing::SizeIs(1)) << "what another manager started is not found";

  other.reset();
  open();
  EXPECT_EQ(plugin->created, 0);
  EXPECT_THAT(manager->downloads(), testing::SizeIs(1));
  EXPECT_EQ(plugin->created, 1);

  DownloadRecord record; // of a component that is gone
  record.downloader = "unknown";
  record.uuid = "stray";
  ASSERT_FALSE(environment->store()->write({record}));
  EXPECT_THAT(manager->downloads(), testing::SizeIs(1));
  open();
  EXPECT_THAT(manager->downloads(), testing::SizeIs(1));
}

TEST_F(ManagerTest, RunsADownloadAndTellsItsEventsInOrder) {
  auto download = started("movie.mpd");
  EXPECT_THAT(recorder->take(), ElementsAre("running", "start"));
  EXPECT_EQ(summaries().size(), 1u);

  // However much progress arrives while the main queue is busy, one event waits, and it shows the newest.
  platform::MainQueue::shared().sync([&] {
    for (int i = 1; i <= 50; ++i)
      download->setProgress(download->progress().copyWithDownloadedContentSize(i));
  });
  EXPECT_THAT(recorder->take(), ElementsAre("progress 50"));
  download->setProgress(download->progress().copyWithDownloadedContentSize(60));
  EXPECT_THAT(recorder->take(), ElementsAre("progress 60"));

  EXPECT_FALSE(manager->pause(download));
  EXPECT_FALSE(resume(download));
  EXPECT_FALSE(resume(download)); // running: nothing to do
  EXPECT_THAT(recorder->take(), ElementsAre("paused", "running"));

  download->setState(DownloadState::success);
  downloader->dispatcher()->dispatchDownloadFinished(download);
  EXPECT_THAT(recorder->take(), ElementsAre("success", "finish"));
  EXPECT_EQ(summaries().at(0).state, DownloadState::success);
  EXPECT_FALSE(resume(download));
  EXPECT_THAT(downloader->calls(), ElementsAre("prepare id-movie.mpd", "start id-movie.mpd",
                                               "pause id-movie.mpd", "resume id-movie.mpd"));
}

TEST_F(ManagerTest, KeepsTheErrorOfARunAndForgetsItWithTheNext) {
  auto download = started("movie.mpd");
  recorder->take();
  download->setState(DownloadState::failed);
  downloader->dispatcher()->dispatchDownloadError(download,
                                                  failure(ErrorType::download_failed, "host not found"));
  EXPECT_THAT(recorder->take(), ElementsAre("failed", "fail host not found"));
  EXPECT_EQ(summaries().at(0).error, "host not found");

  EXPECT_FALSE(resume(download));
  EXPECT_EQ(download->lastErrorText(), "");
  EXPECT_FALSE(download->lastError());
  EXPECT_EQ(summaries().at(0).error, "");
}

TEST_F(ManagerTest, LeavesNoTraceOfWhatNeverStarted) {
  downloader->prepareError = failure(ErrorType::downloader_request_creation_failed, "no manifest");
  auto download = create("bad.mpd");
  EXPECT_EQ(describe(prepare(download)), "no manifest");
  EXPECT_FALSE(manager->findDownloadByContentUrl("http://example.test/bad.mpd"));

  downloader->prepareError = nullptr;
  downloader->removeError = failure(ErrorType::storage_error_while_removing_file, "busy");
  download = create("other.mpd");
  EXPECT_FALSE(prepare(download));
  EXPECT_EQ(manager->start(download)->type(), ErrorType::download_selection_empty);
  EXPECT_EQ(manager->select(download, {})->type(), ErrorType::download_selection_empty);
  Selection absent = pictureOnly(0);
  absent.video[0].bitrate = 1;
  EXPECT_EQ(manager->select(download, absent)->type(), ErrorType::download_selection_empty);
  downloader->startError = failure(ErrorType::unknown, "no");
  EXPECT_FALSE(manager->select(download, pictureOnly(0)));
  // What preparing wrote goes with it, but not what an earlier life of the download left there.
  library.write("scripted/id-other.mpd/manifest.mpd", "x");
  EXPECT_EQ(describe(manager->start(download)), "no");
  EXPECT_FALSE(manager->store());
  EXPECT_EQ(summaries().size(), 0u);
  EXPECT_TRUE(manager->downloads().empty());
  EXPECT_FALSE(std::filesystem::exists(library / "scripted/id-other.mpd"));
  library.write("scripted/id-other.mpd/segment", "x");
  manager->discard(create("other.mpd"));
  EXPECT_TRUE(std::filesystem::exists(library / "scripted/id-other.mpd/segment"));

  EXPECT_EQ(manager->createDownload({"http://h/x", std::nullopt, ""}, {}, nullptr), nullptr);
}

TEST_F(ManagerTest, AnswersEveryPreparationOnce) {
  downloader->holdPreparations = true;
  auto download = create("movie.mpd");
  support::Expectation answered(2);
  for (int i = 0; i < 2; ++i)
    manager->prepare(download, [&](const QVErrorRef& error) {
      EXPECT_FALSE(error);
      answered.fulfil();
    });
  ASSERT_EQ(downloader->held.size(), 1u);
  auto [uuid, completion] = downloader->held[0];
  downloader->endPreparation(uuid, completion);
  downloader->endPreparation(uuid, completion);
  EXPECT_TRUE(answered.wait());
  recorder->take();
  EXPECT_EQ(answered.count(), 2u);
  completion = nullptr;
  downloader->held.clear();

  downloader->holdPreparations = false;
  downloader->dropPreparations = true;
  EXPECT_EQ(describe(prepare(download)), "the preparation was abandoned");
}

TEST_F(ManagerTest, GoesOnWithWhatAnEarlierProcessLeft) {
  auto download = started("movie.mpd");
  EXPECT_EQ(create("movie.mpd"), download);
  download.reset();
  open();

  download = manager->findDownload("id-m", nullptr);
  ASSERT_TRUE(download);
  EXPECT_EQ(download->state(), DownloadState::paused); // it was running when the process ended
  EXPECT_FALSE(download->interruptedAtLoad());
  EXPECT_FALSE(resume(download));
  EXPECT_THAT(downloader->calls(), ElementsAre("prepare id-movie.mpd", "start id-movie.mpd"));
  EXPECT_EQ(download->selectedVideoRenditions().at(0).height, 360);

  EXPECT_TRUE(download->addToSelection(pictureOnly(1)));
  EXPECT_FALSE(download->addToSelection(pictureOnly(1)));
  EXPECT_EQ(download->selectedVideoRenditions().size(), 2u);
  EXPECT_FALSE(manager->cancel(download));
  EXPECT_EQ(download->state(), DownloadState::idle);
  download.reset();
  open();

  download = manager->findDownload("id-movie.mpd", nullptr);
  ASSERT_TRUE(download);
  EXPECT_EQ(download->selection().size(), 2u);
  EXPECT_FALSE(manager->cancel(download)); // not under way: the downloader is not asked
  EXPECT_TRUE(downloader->calls().empty());
}

TEST_F(ManagerTest, RemovesContentAndEntryTogether) {
  auto finished = started("done.mpd");
  finished->setState(DownloadState::success);
  finished->setLocalRelativePath("id-done.mpd/manifest.mpd");
  library.write("scripted/id-done.mpd/manifest.mpd", "x");
  auto partial = started("partial.mpd");
  library.write("scripted/id-partial.mpd/segment", "x");
  EXPECT_FALSE(manager->store());

  downloader->removeError = failure(ErrorType::storage_error_while_removing_file, "busy");
  EXPECT_EQ(describe(manager->remove(finished)), "busy");
  EXPECT_EQ(summaries().size(), 2u);
  // The downloader does not know the content of an unfinished download; the entry must still be removable.
  EXPECT_FALSE(manager->remove(partial));
  EXPECT_FALSE(std::filesystem::exists(library / "scripted/id-partial.mpd"));
  EXPECT_EQ(summaries().size(), 1u);
  std::filesystem::remove_all(library / "scripted/id-done.mpd");
  EXPECT_FALSE(manager->remove(finished));
  EXPECT_EQ(summaries().size(), 0u);
  EXPECT_EQ(manager->remove(finished), nullptr);
}

TEST_F(ManagerTest, FindsByUnambiguousPrefix) {
  started("ab");
  started("abc");
  started("x");
  QVErrorRef error;
  EXPECT_EQ(manager->findDownload("id-x", &error)->uuid(), "id-x");
  EXPECT_EQ(manager->findDownload("id-ab", &error)->uuid(), "id-ab");
  EXPECT_FALSE(manager->findDownload("id-", &error));
  EXPECT_EQ(error->type(), ErrorType::download_id_ambiguous);
  EXPECT_FALSE(manager->findDownload("", &error));
  EXPECT_EQ(error->type(), ErrorType::downloader_id_not_found);
}

TEST_F(ManagerTest, AsksTheServerWhenTheURLDoesNotTell) {
  TemporaryDirectory temporary;
  auto service = std::make_shared<support::ScriptedTransferService>(
      temporary.path(), support::ScriptedTransferService::Delivery::OnQueue);
  environment->setTransferService(service);
  service->onDataStart([](support::ScriptedDataTask& task) {
    EXPECT_EQ(task.request().valueForHTTPHeaderField("X-Library"), "all");
    EXPECT_EQ(task.request().valueForHTTPHeaderField("Cookie"), "c");
    const std::string path = task.request().url().path();
    // Content is asked for where its type says nothing, and then no more than its beginning; where HEAD is
    // refused, no more than a byte.
    const std::string range = task.request().valueForHTTPHeaderField("Range").value_or("");
    EXPECT_EQ(task.request().HTTPMethod(), range.empty() ? "HEAD" : "GET");
    EXPECT_EQ(range == "bytes=0-4095", !range.empty() && (path == "/html" || path == "/plain")) << path;
    EXPECT_EQ(range == "bytes=0-0", !range.empty() && path == "/missing") << path;
    const std::map<std::string, std::tuple<int, const char*, platform::HTTPHeaders>> answers{
        {"/plain", {206, "<?xml version='1.0'?><SmoothStreamingMedia", {{"Content-Type", "text/plain"}}}},
        {"/large", {200, "", {{"Content-Type", "text/plain"}, {"Content-Length", "99999999999"}}}},
        {"/typed", {200, "", {{"Content-Type", "application/dash+xml"}}}},
        {"/html", {200, "", {{"Content-Type", "text/html"}}}},
        {"/missing", {404, "", {{"Content-Type", "video/mp4"}}}},
    };
    if (const auto found = answers.find(path); found != answers.end())
      std::apply([&](auto... answer) { task.answer(answer...); }, found->second);
    else
      task.fail(platform::NSURLErrorCannotFindHost);
  });
  auto ask = [&](const std::string& url) {
    support::Arrival<std::pair<std::optional<ContentType>, std::string>> arrival;
    manager->determineContentType(url, {{"Cookie", "c"}},
                                  [&](std::optional<ContentType> type, QVErrorRef error) {
                                    EXPECT_TRUE(platform::MainQueue::shared().isCurrent());
                                    EXPECT_NE(type.has_value(), error != nullptr);
                                    arrival.arrive({type, describe(error)});
                                  });
    return arrival.wait().value();
  };
  EXPECT_EQ(ask("http://h/a.mpd").first, ContentType::dash);
  EXPECT_TRUE(service->dataTasks().empty());
  EXPECT_EQ(ask("http://h/typed").first, ContentType::dash);
  EXPECT_EQ(ask("http://h/plain").first, ContentType::dash);
  EXPECT_THAT(ask("http://h/html").second, testing::HasSubstr("text/html); supported are DASH"));
  EXPECT_THAT(ask("http://h/large").second, testing::HasSubstr("text/plain); supported are DASH"));
  EXPECT_THAT(ask("http://h/missing").second, testing::HasSubstr("HTTP status 404"));
  EXPECT_THAT(ask("http://h/gone").second, testing::HasSubstr("cannot tell what \"http://h/gone\" holds: "));
  EXPECT_THAT(ask("ftp://h/a.mpd").second, testing::HasSubstr("no http or https URL"));
}

} // namespace
