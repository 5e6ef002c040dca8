// What depends on the order of events, over a scripted service.

#include "tests/files/RecordingFileDelegate.h"

#include "platform/concurrency/Queue.h"
#include "platform/foundation/Progress.h"
#include "tests/support/ScriptedTransferService.h"

#include <fcntl.h>
#include <filesystem>
#include <thread>
#include <unistd.h>

using namespace platform;
using namespace support;
using namespace files;
using testing::ElementsAre, testing::SizeIs, testing::StartsWith;

namespace {

class FileQueueOrderTest : public FileDownloaderFixture, public testing::Test {
protected:
  void open(std::int64_t limit = 0, const std::string& identifier = "session") {
    FileDownloaderFixture::open(service, limit, identifier, queue);
  }
  void start(const std::string& token) {
    downloader->startDownloadWithIdentifierFromRemoteURL(token, urlOf(token));
  }
  /// Has an earlier process leave a task behind.
  template <class Change>
  void leave(const URL& url, const std::optional<std::string>& token, Change change) const {
    Survivor task{URLRequest(url)};
    task.description = token;
    change(task);
    service->addSurvivor("session", task);
  }
  auto running(const std::string& token) const { return service->runningTask("http://host/" + token); }
  static URL urlOf(const std::string& token) { return *URL::URLWithString("http://host/" + token); }
  void settle() {
    service->run();
    queue->sync([] {});
  }

  std::shared_ptr<ScriptedTransferService> service =
      std::make_shared<ScriptedTransferService>(directory.path(), ScriptedTransferService::Delivery::OnQueue);
  std::shared_ptr<SerialQueue> queue = std::make_shared<SerialQueue>("client");
};

TEST_F(FileQueueOrderTest, TakesOverWhatAnEarlierProcessLeft) {
  leave(urlOf("running"), "running", [](Survivor& task) { task.bytesReceived = 40; });
  leave(urlOf("nameless"), std::nullopt, [](Survivor&) {});
  leave(urlOf("unstarted"), "unstarted", [](Survivor& task) { task.state = URLSessionTaskState::Suspended; });
  leave(urlOf("finished.mp4"), "finished", [](Survivor& task) { task.finishedContent = "whole"; });
  delegate->root = Progress::progressWithTotalUnitCount(0);
  open();
  settle();
  // What had ended before is told although nobody has asked for the tasks yet.
  ASSERT_THAT(delegate->records.copy().ends, SizeIs(1));
  const End end = delegate->end(0);
  ASSERT_TRUE(end.file);
  EXPECT_EQ(end.token, "finished");
  EXPECT_EQ(readFile(end.file->path()), "whole");

  Expectation ready;
  downloader->setupWithCompletionBlock([&] { ready.fulfil(); });
  ASSERT_TRUE(ready.wait());
  EXPECT_TRUE(downloader->isDownloadingIdentifier("running"));
  EXPECT_TRUE(downloader->isDownloadingIdentifier("unstarted"));
  EXPECT_EQ(downloader->activeDownloadsCount(), 2u);
  EXPECT_EQ(delegate->root->totalUnitCount(), 3);
  EXPECT_EQ(delegate->records.copy().activity, 2);
  expectLogged("ERR: Missing task description (");
  EXPECT_EQ(running("unstarted")->state(), URLSessionTaskState::Running);
  delegate->root->cancel();
  settle();
  EXPECT_THAT(delegate->records.copy().ends, SizeIs(3));
  EXPECT_EQ(delegate->records.copy().activity, 0);
  // The one without a name belongs to nobody.
  ASSERT_TRUE(running("nameless")->finish("x"));
  settle();
  expectLogged("ERR: Missing download item for taskIdentifier: ");
  expectLogged("ERR: Download item not found for download task: ");
}

TEST_F(FileQueueOrderTest, AFileWithoutAnAddressHasNoPlace) {
  leave(URL::fileURLWithPath("/"), "orphan", [](Survivor& task) { task.finishedContent = "whole"; });
  open();
  settle();
  ASSERT_TRUE(delegate->waitForEnds(1));
  EXPECT_EQ(delegate->end(0).error->code(), NSURLErrorResourceUnavailable);
  EXPECT_THAT(delegate->end(0).messages,
              ElementsAre(StartsWith("ERR: Missing information: Remote URL (token: orphan) (")));
}

TEST_F(FileQueueOrderTest, AFileThatIsTakenAwayAtOnceHasNoSize) {
  // The way to the file is long, and that of the thief short.
  std::string folder = directory.path();
  for (int i = 0; i < 400; ++i)
    folder += "/d";
  std::filesystem::create_directories(folder);
  placeAt(folder + "/file");
  open();
  const int there = ::open(folder.c_str(), O_PATH | O_DIRECTORY);
  std::jthread thief([there](const std::stop_token& stop) {
    while (!stop.stop_requested())
      ::unlinkat(there, "file", 0);
    ::close(there);
  });
  const auto isTold = [this] {
    const auto ends = delegate->records.copy().ends;
    return !ends.empty() && !ends.back().messages.empty() &&
           ends.back().messages[0].starts_with("ERR: Error on getting file size for item at ");
  };
  EXPECT_TRUE(eventually([&] {
    start("film");
    running("film")->finish("x");
    settle();
    return isTold();
  }));
  EXPECT_EQ(delegate->records.copy().ends.back().error->code(), NSURLErrorResourceUnavailable);
}

TEST_F(FileQueueOrderTest, AFreshSessionGoesOnWithTheQueue) {
  open(1);
  start("old");
  start("next");
  auto old = running("old");
  ASSERT_TRUE(old->write(10, 100));
  settle();
  const auto first = downloader->backgroundSessionIdentifier();
  downloader->invalidateSessionConfigurationAndCancelTasks(false);
  EXPECT_THAT(downloader->backgroundSessionIdentifier(), StartsWith("test.app."));
  EXPECT_NE(downloader->backgroundSessionIdentifier(), first);
  // The first session's last task and the second's first one have the same number.
  ASSERT_TRUE(old->finish(std::string(100, 'x')));
  settle();
  ASSERT_THAT(delegate->records.copy().ends, SizeIs(1));
  EXPECT_TRUE(delegate->end(0).file);
  auto next = running("next");
  ASSERT_TRUE(next);
  EXPECT_EQ(next->taskIdentifier(), old->taskIdentifier());
  expectLogged("INFO: Session has been intentionally invalidated (");

  start("last");
  downloader->invalidateSessionConfigurationAndCancelTasks(true);
  settle();
  EXPECT_EQ(delegate->end(1).error->code(), NSURLErrorCancelled);
  ASSERT_TRUE(running("last"));
  EXPECT_EQ(delegate->records.copy().activity, 1);
}

TEST_F(FileQueueOrderTest, ATokenCanStartAgainBeforeItsEndWasTold) {
  open(1);
  start("film");
  start("other");
  queue->sync([&] { // so that no end can be told in between
    downloader->pauseDownloadWithIdentifier("film");
    EXPECT_FALSE(downloader->isDownloadingIdentifier("film"));
    start("film"); // waits behind the other: the first one still has its place
    EXPECT_EQ(downloader->waitingDownloadsCount(), 2u);
  });
  settle();
  EXPECT_TRUE(downloader->isDownloadingIdentifier("other"));
  ASSERT_TRUE(running("other")->finish("x"));
  settle();
  EXPECT_TRUE(downloader->isDownloadingIdentifier("film"));
  downloader->cancelDownloadWithIdentifier("film");
  settle();
  EXPECT_THAT(delegate->records.copy().ends, SizeIs(3));
  EXPECT_EQ(delegate->records.copy().activity, 0);
}

TEST_F(FileQueueOrderTest, APausedWaitingStartGivesItsResumeDataBack) {
  open(1);
  start("first");
  const Data data{1, 2, 3};
  downloader->startDownloadWithIdentifierUsingResumeData("film", data);
  Arrival<DataRef> back;
  downloader->pauseDownloadWithIdentifier("film", [&](DataRef resumeData) { back.arrive(resumeData); });
  auto arrived = back.wait();
  ASSERT_TRUE(arrived && *arrived);
  EXPECT_EQ(**arrived, data);
  EXPECT_FALSE(downloader->isWaitingForDownloadOfIdentifier("film"));
}

TEST_F(FileQueueOrderTest, ASessionThatIsInUseIsToldByEveryStart) {
  open(0, "taken");
  auto first = downloader;
  open(0, "taken");
  ASSERT_TRUE(downloader->sessionError());
  start("film");
  ASSERT_TRUE(delegate->waitForEnds(1));
  EXPECT_EQ(delegate->end(0).error->code(), NSURLErrorBackgroundSessionInUseByAnotherProcess);
  EXPECT_THAT(delegate->end(0).messages, ElementsAre(StartsWith("ERR: No download item (")));
  Expectation ready;
  downloader->setupWithCompletionBlock([&] { ready.fulfil(); });
  EXPECT_TRUE(ready.wait());
}

TEST_F(FileQueueOrderTest, ATaskThatHasEndedUnheardIsReportedWhenItIsCancelled) {
  open();
  service->session("session")->invalidateAndCancel();
  // Its session has ended, and told of its end before the start has put the download in.
  delegate->onIncrement = [this] {
    settle();
    downloader->cancelDownloadWithIdentifier("film");
  };
  start("film");
  ASSERT_TRUE(delegate->waitForEnds(1));
  settle();
  expectLogged("INFO: NSURLSessionDownloadTask cancelled (task not found): ");
  ASSERT_THAT(delegate->records.copy().ends, SizeIs(1));
  const auto end = delegate->end(0);
  EXPECT_EQ(end.error->code(), NSURLErrorCancelled);
  EXPECT_EQ(*end.error->value<std::string>(NSURLErrorFailingURLStringErrorKey), "http://host/film");
  EXPECT_EQ(delegate->records.copy().activity, 0);

  downloader->URLSessionDidBecomeInvalidWithError(*downloader->backgroundSession(),
                                                  makeError(NSURLErrorDomain, NSURLErrorUnknown));
  expectLogged("ERR: Session did become invalid with error: ");
}

TEST_F(FileQueueOrderTest, CallsTheApplicationBackOnceAllEventsWereTold) {
  open();
  Expectation early, late;
  downloader->setBackgroundSessionCompletionHandlerBlock([&] { early.fulfil(); });
  service->session("session")->finishEvents();
  ASSERT_TRUE(early.wait());
  service->session("session")->finishEvents();
  settle();
  downloader->setBackgroundSessionCompletionHandlerBlock([&] { late.fulfil(); });
  ASSERT_TRUE(late.wait());
  EXPECT_EQ(early.count(), 1u);
}

} // namespace
