#include "tests/movies/orchestration_support.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloader.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceId.h"

#include "platform/application/Application.h"
#include "platform/concurrency/Queue.h"
#include "platform/foundation/Exception.h"
#include "tests/support/Expectation.h"

#include <atomic>
#include <thread>

using namespace orchestration;
using platform::URLSessionTaskState;
using testing::ElementsAre;

namespace {

constexpr const char* segmentBase = "http://host/movie/";

/// A manifest of `count` resources "s<n>.m4s" from 1, which is the initialization.
std::string manifest(int count, const std::string& media = "s$Number$.m4s") {
  std::string first = media;
  for (std::size_t at; (at = first.find("$Number$")) != std::string::npos;)
    first.replace(at, 8, "1");
  return R"(<MPD xmlns="urn:mpeg:dash:schema:mpd:2011" type="static" mediaPresentationDuration="PT)" +
         std::to_string(count - 1) +
         R"(S" profiles="urn:mpeg:dash:profile:isoff-live:2011"><Period><AdaptationSet mimeType="video/mp4">
         <SegmentTemplate timescale="1" duration="1" startNumber="2" initialization=")" +
         first + R"(" media=")" + media + R"("/>
         <Representation id="v" bandwidth="8000" codecs="avc1.4d401f" width="10" height="10"/>
         </AdaptationSet></Period></MPD>)";
}

using Set = std::shared_ptr<QVMovieDownloadSet>;
struct Outcome {
  int calls = 0;
  Set set;
  platform::ErrorRef error;
};

class Downloader : public testing::Test {
protected:
  Downloader() { open(); }
  ~Downloader() override {
    downloader = nullptr;
    service->shutdown();
  }

  void open() {
    auto configuration =
        platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier("session");
    configuration.service = service;
    downloader = QVMovieDownloader::downloaderWithConfiguration(configuration, directory / "downloads");
    service->run();
  }
  void relaunch(const std::vector<support::Survivor>& strays = {}) {
    downloader = nullptr;
    service->shutdown();
    service = service->relaunched();
    for (const auto& stray : strays)
      service->addSurvivor("session", stray);
    open();
  }
  Outcome fetch(const std::string& url = manifestURL) {
    auto outcome = std::make_shared<Outcome>();
    downloader->fetchDownloadSetForURL(url, [outcome](auto set, auto error) {
      *outcome = {outcome->calls + 1, std::move(set), std::move(error)};
    });
    service->run();
    EXPECT_EQ(outcome->calls, 1);
    EXPECT_NE(outcome->set == nullptr, outcome->error == nullptr);
    return *outcome;
  }
  /// A set of `count` segments that has started.
  Set start(int count, const std::string& media = "s$Number$.m4s") {
    service->serveData(manifestURL, 200, manifest(count, media));
    const auto set = fetch().set;
    set->setDelegate(diary);
    set->selectAllQualities();
    EXPECT_TRUE(downloader->download(set));
    service->run();
    return set;
  }
  support::ScriptedTaskRef task(const std::string& name) { return service->runningTask(segmentBase + name); }
  support::ScriptedTaskRef task(int number) { return task("s" + std::to_string(number) + ".m4s"); }
  /// Each of these tells the running task of a segment how it goes on, and the downloader of it.
  void finish(int number, const std::string& content) {
    task(number)->finish(content);
    service->run();
  }
  template <class Failure> void fail(int number, Failure&& failure) {
    task(number)->fail(failure);
    service->run();
  }
  std::string pathOf(const std::string& name, const std::string& url = manifestURL) {
    return directory / ("downloads/" + downloader->downloadIdWithURL(url) + "/" + name);
  }
  static bool exists(const std::string& path) { return std::filesystem::exists(path); }
  /// What became of the resources of the quality "v" in the last run.
  const QVResourceErrors& resourceErrors() const {
    const auto& failed = diary->lastError->value<QVQualityErrors>("QVQualityErrors")->at("v");
    return *failed->value<QVResourceErrors>("QVResourceErrors");
  }

  support::TemporaryDirectory directory;
  std::shared_ptr<support::ScriptedTransferService> service =
      std::make_shared<support::ScriptedTransferService>(directory.path());
  std::shared_ptr<Diary> diary = std::make_shared<Diary>();
  std::shared_ptr<QVMovieDownloader> downloader;
};

TEST_F(Downloader, NamesDownloadsAfterTheirURL) {
  const auto id = [&](const char* url) { return downloader->downloadIdWithURL(url); };
  EXPECT_THAT(id("http://Host/a?q"), testing::MatchesRegex("[0-9a-f]{16}-[0-9a-f]{16}-[0-9a-f]{16}"));
  EXPECT_EQ(id("http://Host/a?q"), id("https://user@hOST:8080/a?q#f"));
  EXPECT_NE(id("http://host/a?q"), id("http://host/a?r"));
  EXPECT_NE(id("http://host/a").substr(17, 16), id("http://host/b").substr(17, 16));
  EXPECT_EQ(id("http://host/a").substr(33), "-0000000000000000");
  directory.write("downloads/" + id("http://host/a").substr(0, 33) + "/x", "");
  EXPECT_EQ(id("http://host/a?q"), id("http://host/a").substr(0, 33));
}

TEST_F(Downloader, FindsTheStoredManifest) {
  const auto found = [&](const char* id) { return downloader->findManifestLocalNameForDownloadId(id); };
  EXPECT_EQ(found("none"), "manifest.mpd");
  directory.write("downloads/a/x.xml", manifest(2));
  directory.write("downloads/a/a.m4s", std::string("MPD\xff", 4));
  directory.write("downloads/a/late", std::string(1024, ' ') + "MPD");
  EXPECT_EQ(found("a"), "manifest.mpd");
  // Each of these is preferred to those before.
  const std::tuple<const char*, std::string, const char*> files[] = {
      {"movie.MPD", std::string(1022, ' ').replace(0, 3, "MPD") + "\xe2\x82\xac", "movie.MPD"},
      {"b.mpd", "", "b.mpd"},
      {"QVMovieDownloadSetProperties.json",
       R"({"QVDownloadSetSourceURL":"u","QVDownloadSetManifestName":"late"})", "late"},
      {"manifest.mpd", "", "manifest.mpd"}};
  for (const auto& [name, content, preferred] : files) {
    directory.write(std::string("downloads/a/") + name, content);
    EXPECT_EQ(found("a"), preferred);
  }
}

TEST_F(Downloader, FetchesAndStoresManifests) {
  EXPECT_FALSE(downloader->activeDownloadSets() || downloader->downloadedMovies());
  downloader->setAdditionalHeaders(platform::HTTPHeaders{{"Cookie", "1"}});
  service->serveData(manifestURL, 200, manifest(3));
  const auto set = fetch().set;
  ASSERT_TRUE(set);
  EXPECT_EQ(service->dataTasks().front()->request().valueForHTTPHeaderField("Cookie"), "1");
  EXPECT_EQ(support::readFile(pathOf("manifest.mpd")), manifest(3));
  EXPECT_EQ(set->playlist()->url(), manifestURL);
  EXPECT_EQ(fetch().set, set);
  EXPECT_EQ(downloader->fetchActiveDownloadSetForURL(manifestURL), set);
  EXPECT_THAT(*downloader->activeDownloadSets(), ElementsAre(set));
  ASSERT_THAT(*downloader->downloadedMovies(), testing::SizeIs(1));

  relaunch();
  EXPECT_FALSE(downloader->fetchActiveDownloadSetForURL(manifestURL));
  const auto stored = downloader->activateDownloadSet(*downloader->downloadedMovies()->front());
  ASSERT_TRUE(stored);
  EXPECT_EQ(fetch().set, stored);
  EXPECT_THAT(service->dataTasks(), testing::IsEmpty());
  EXPECT_FALSE(downloader->activateDownloadSetForURL("http://host/other"));
}

TEST_F(Downloader, ReportsEachFailedFetchOnce) {
  // The template shows its fault only when the resources are listed, after the manifest was stored.
  for (const auto& [url, body] :
       {std::pair<std::string, std::string>("http://host/garbage", "garbage"),
        {"http://host/empty",
         R"(<MPD xmlns="urn:mpeg:dash:schema:mpd:2011" type="static" profiles="x"></MPD>)"},
        {"http://host/template", manifest(2, "s$Number%999999d$.m4s")}}) {
    service->serveData(url, 200, body);
    EXPECT_EQ(fetch(url).error->code(), -101) << url;
    EXPECT_FALSE(exists(pathOf("", url))) << url;
  }
  directory.write("downloads/" + downloader->downloadIdWithURL("http://host/stored") + "/manifest.mpd",
                  "garbage");
  EXPECT_EQ(fetch("http://host/stored").error->code(), -101);

  downloader->setDownloadPath(directory.write("file", ""));
  service->serveData(manifestURL, 200, manifest(2));
  const auto error = fetch().error;
  EXPECT_EQ(error->localizedDescription(), "Failed to create download directory");
  EXPECT_EQ(error->underlyingError()->domain(), platform::NSPOSIXErrorDomain);
  EXPECT_FALSE(downloader->activeDownloadSets());
}

TEST_F(Downloader, SurvivesItsEndDuringAFetch) {
  int calls = 0;
  service->serveData(manifestURL, 200, manifest(2));
  downloader->fetchDownloadSetForURL(manifestURL, [&](auto set, auto error) {
    ++calls;
    EXPECT_TRUE(!set && error);
  });
  downloader = nullptr;
  service->run();
  EXPECT_EQ(calls, 1);
}

TEST_F(Downloader, PutsFilesIntoTheirPlace) {
  const auto set = start(5, "sub//s$Number$.m4s?q=$Number$");
  const auto running = [&](int number) {
    const std::string n = std::to_string(number);
    return task("sub//s" + n + ".m4s?q=" + n);
  };
  EXPECT_FALSE(running(5));
  directory.write("downloads/" + set->downloadId() + "/sub/s1.m4s?q=1", "old");
  ASSERT_TRUE(running(1) && running(1)->finish("new"));
  service->run();
  EXPECT_EQ(support::readFile(pathOf("sub/s1.m4s?q=1")), "new");
  EXPECT_EQ(set->downloadedBytesForQuality((*set->selectedQualities())[0]), 3);
  for (int number = 2; number <= 5; ++number)
    running(number)->finish(""), service->run();
  EXPECT_THAT(diary->take(), ElementsAre("status 2", "quality v ok", "status 0", "done ok"));
  EXPECT_EQ(set->_checkCounters(), "");
  EXPECT_TRUE(exists(pathOf("sub/s5.m4s?q=5")));
  EXPECT_FALSE(downloader->download(set));
}

TEST_F(Downloader, NeverStoresARefusal) {
  const auto set = start(3);
  auto refused = task(1);
  refused->respond(404, {{"Content-Length", "100"}});
  refused->write(10);
  service->run();
  EXPECT_EQ(refused->state(), URLSessionTaskState::Completed);
  task(2)->respond(404); // its head and its end come at once
  finish(2, "");
  task(3)->respond(206);
  finish(3, "ok");
  EXPECT_THAT(diary->take(), ElementsAre("status 2", "quality v failed", "status 0", "done -1002"));
  for (const auto& [index, error] : resourceErrors()) {
    EXPECT_EQ(std::tuple(error->domain(), error->code()), std::tuple(QVDownloadHTTPErrorDomain, 404));
    EXPECT_NE(*error->value<std::string>("QVStatusMessage"), "");
  }
  EXPECT_FALSE(exists(pathOf("s1.m4s")) || exists(pathOf("s2.m4s")));
  EXPECT_TRUE(exists(pathOf("s3.m4s")));
}

TEST_F(Downloader, TellsAWholeFileFromTheRangeItAskedFor) {
  const auto playlist =
      playlistOf({{.identifier = "v",
                   .resources = {resourceAt("all.mp4", 0, 4), resourceAt("head.mp4", 0, 4),
                                 resourceAt("part.mp4", 2, 4), resourceAt("tail.mp4", 3)}}});
  const auto set = QVMovieDownloadSet::downloadSetWithPlaylist(playlist, directory / "set", "manifest.mpd",
                                                               manifestURL, "id", downloader);
  set->setDelegate(diary);
  set->selectAllQualities();
  set->downloadWithAdditionalHeaders(std::nullopt);
  for (int round = 0; round < 5; ++round) // the range is asked for again, as after any failure
    for (const std::string name : {"all.mp4", "head.mp4", "part.mp4", "tail.mp4"})
      if (const auto asked = task(name)) {
        asked->respond(200);
        asked->finish(name == "all.mp4" ? "01234" : "0123456789");
        service->run();
      }
  EXPECT_EQ(resourceErrors().size(), 3U);
  EXPECT_EQ(resourceErrors().at(2)->code(), QVDownloadErrorResourceRange);
  EXPECT_EQ(support::readFile(directory / "set/all.mp4"), "01234");
  EXPECT_FALSE(exists(directory / "set/head.mp4") || exists(directory / "set/tail.mp4"));
}

TEST_F(Downloader, RetriesFailedTransfersAndIgnoresItsOwnCancels) {
  const auto set = start(2);
  const auto reactivations = [&] {
    return set->selectedQualitiesInfo().front()->resources().front()->reactivations();
  };
  fail(1, platform::NSURLErrorTimedOut);
  ASSERT_TRUE(task(1));
  fail(1, platform::NSURLErrorCancelled);
  EXPECT_EQ(set->status(), QVDownloadStatusDownloading);
  EXPECT_TRUE(downloader->cancel(set) && downloader->download(set));
  // Equal to the constant, but not the constant.
  fail(1, platform::makeError(platform::ErrorDomain("NSURLErrorDomain"), -999));
  EXPECT_EQ(reactivations(), 2U);

  // Nothing can be moved to where a directory stands.
  directory.write("downloads/" + set->downloadId() + "/s1.m4s/other", "");
  finish(1, "x");
  EXPECT_EQ(reactivations(), 3U);
  EXPECT_TRUE(exists(pathOf("s1.m4s/other")));
}

TEST_F(Downloader, CancelledByItsDelegateWithTheLastByte) {
  const auto set = start(2);
  diary->onProgress = [&](const auto& told) {
    if (exists(pathOf("s1.m4s")))
      downloader->cancel(told);
  };
  finish(1, "x");
  EXPECT_THAT(diary->take(), ElementsAre("status 2", "status 0"));
  EXPECT_EQ(set->_checkCounters(), "");
  EXPECT_TRUE(downloader->download(set));
}

TEST_F(Downloader, CommandsAnswerWhetherTheyHold) {
  auto& application = platform::Application::shared();
  const auto set = start(2);
  const auto open = [&] { return application.openBackgroundTasks().size(); };
  const std::size_t before = open();
  EXPECT_TRUE(downloader->resume(set) && downloader->pause(set));
  EXPECT_EQ(open(), before + 1); // the resumption that had nothing to do
  EXPECT_TRUE(downloader->pause(set));
  EXPECT_EQ(open(), before + 2);
  EXPECT_TRUE(downloader->resume(set));
  downloader->pauseAll();
  EXPECT_EQ(set->status(), QVDownloadStatusPaused);
  downloader->resumeAll();
  downloader->cancelAll();
  EXPECT_FALSE(downloader->cancel(set) || downloader->pause(set) || downloader->resume(set));
  EXPECT_THAT(diary->take(),
              ElementsAre("status 2", "status 1", "status 2", "status 1", "status 2", "status 0"));

  downloader->download(set);
  EXPECT_TRUE(downloader->remove(set));
  EXPECT_FALSE(exists(pathOf("")) || downloader->activeDownloadSets());
  try {
    downloader->download(set);
    ADD_FAILURE();
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(std::tuple(exception.name(), exception.reason()),
              std::tuple("QVMovieDownloaderException", "DownloadSet is not owned by this instance"));
  }
  start(2);
  downloader->removeAll();
  EXPECT_FALSE(exists(directory / "downloads") || downloader->activeDownloadSets());
  service->run();
}

TEST_F(Downloader, TakesOverTheTasksOfAnEarlierProcess) {
  const auto set = start(6);
  finish(1, "1");
  task(2)->write(10, 100);
  service->run();
  downloader->pause(set);
  downloader->resume(set);
  platform::URLRequest request(*platform::URL::URLWithString("http://host/stray"));
  support::Survivor nameless(request), lost(request), done(request);
  lost.description = R"({"QVManifestURL":"http://host/lost","QVQualityId":"v"})";
  done.description = // its file is there
      QVResourceId::resourceIdWithResource(*set->selectedQualitiesInfo().front()->resources()[0])
          .serializeToJSON();
  relaunch({nameless, lost, done});

  const auto again = downloader->fetchActiveDownloadSetForURL(manifestURL);
  ASSERT_TRUE(again);
  again->setDelegate(diary);
  diary->take();
  EXPECT_EQ(again->_checkCounters(), "");
  EXPECT_EQ(std::tuple(again->status(), again->selectedQualitiesInfo().front()->numActive()),
            std::tuple(QVDownloadStatusDownloading, 4U));
  for (const auto& survivor : service->tasks())
    if (survivor->request().url().absoluteString() == "http://host/stray") {
      EXPECT_EQ(survivor->state(), URLSessionTaskState::Completed);
      EXPECT_FALSE(survivor->taskDescription());
    }
  for (int number = 2; number <= 6; ++number)
    finish(number, "x");
  EXPECT_THAT(diary->take(), ElementsAre("quality v ok", "status 0", "done ok"));
}

TEST_F(Downloader, HandsBackBackgroundHandlers) {
  start(2);
  support::Expectation called(3);
  downloader->handleBackgroundEventsWithCompletionHandler(nullptr);
  for (int n = 0; n < 3; ++n)
    downloader->handleBackgroundEventsWithCompletionHandler([&] { called.fulfil(); });
  const auto countAfterEvents = [&] {
    service->session("session")->finishEvents();
    service->run();
    platform::MainQueue::shared().sync([] {});
    return called.count();
  };
  EXPECT_EQ(countAfterEvents(), 1U);
  downloader->cancelAll();
  EXPECT_EQ(countAfterEvents(), 3U);
  EXPECT_EQ(countAfterEvents(), 3U);
}

TEST_F(Downloader, RefreshesRunningTasksInTheForeground) {
  const auto set = start(2);
  auto& mainQueue = platform::MainQueue::shared();
  const auto first = task(1), second = task(2);
  platform::Application::shared().willEnterForeground();
  mainQueue.sync([] {});
  service->run();
  mainQueue.sync([] {});
  EXPECT_EQ(first->state(), URLSessionTaskState::Suspended);
  // Paused by its user meanwhile, of which the second is resumed again.
  const auto& record = set->selectedQualitiesInfo().front()->resources()[0];
  record->pause();
  support::Expectation later;
  mainQueue.after(std::chrono::milliseconds(1000), [&] { later.fulfil(); });
  ASSERT_TRUE(later.wait());
  EXPECT_EQ(std::tuple(first->state(), second->state()),
            std::tuple(URLSessionTaskState::Suspended, URLSessionTaskState::Running));
  record->resume();
}

TEST_F(Downloader, TakesEventsAndCommandsFromAnyThread) {
  downloader = nullptr;
  service = std::make_shared<support::ScriptedTransferService>(
      directory.path(), support::ScriptedTransferService::Delivery::OnQueue);
  std::atomic<int> starts = 0;
  service->onStart([&](support::ScriptedTask& started) {
    if (++starts % 5 == 0)
      started.fail(platform::NSURLErrorNetworkConnectionLost);
    else
      started.finish("content");
  });
  open();

  struct Listener final : QVMovieDownloadSetDelegate {
    void movieDownloadSetDidUpdateProgress(const Set& set, QVDownloadProgress) override {
      const auto active = owner->activeDownloadSets();
      EXPECT_TRUE(active && active->front() == set);
    }
    void movieDownloadSetDidCompleteWithError(const Set&, const platform::ErrorRef& error) override {
      done.arrive(error);
    }
    QVMovieDownloader* owner = nullptr;
    support::Arrival<platform::ErrorRef> done;
  };
  const auto listener = std::make_shared<Listener>();
  listener->owner = downloader.get();
  service->serveData(manifestURL, 200, manifest(60));
  support::Arrival<Set> fetched;
  downloader->fetchDownloadSetForURL(manifestURL, [&](auto set, auto) { fetched.arrive(set); });
  const auto set = fetched.wait().value_or(nullptr);
  ASSERT_TRUE(set);
  set->setDelegate(listener);
  set->selectAllQualities();
  ASSERT_TRUE(downloader->download(set));
  const auto keepDoing = [&](const std::function<void()>& commands) {
    return std::jthread([&listener, commands] {
      for (; !listener->done.hasArrived(); std::this_thread::yield())
        commands();
    });
  };
  std::jthread user = keepDoing([&] { downloader->pause(set), downloader->resume(set); });
  std::jthread pastTheDownloader = keepDoing([&] { set->pause(), set->progress(), set->resume(); });
  const auto error = listener->done.wait();
  ASSERT_TRUE(error);
  EXPECT_FALSE(*error) << (*error)->localizedDescription();
  user.join();
  pastTheDownloader.join();
  EXPECT_EQ(set->_checkCounters(), "");
  for (int number = 1; number <= 60; ++number)
    EXPECT_EQ(support::readFile(pathOf("s" + std::to_string(number) + ".m4s")), "content");
}

TEST_F(Downloader, WithoutASessionOnlyStartsNothing) {
  service->serveData(manifestURL, 200, manifest(2));
  const auto owner = downloader; // of the session that the next one asks for
  fetch();
  open();
  EXPECT_FALSE(downloader->downloadSession());
  ASSERT_TRUE(downloader->sessionError());
  EXPECT_EQ(fetch("http://host/new").error, downloader->sessionError());
  const auto set = downloader->activateDownloadSetForURL(manifestURL);
  ASSERT_TRUE(set);
  set->selectAllQualities();
  EXPECT_FALSE(downloader->download(set));
}

} // namespace
