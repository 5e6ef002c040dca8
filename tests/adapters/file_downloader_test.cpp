// The adapter of plain files over scripted transfers: states, records and events.

#include "TolvaneDownloader/FileDownloader/FileDownloader.h"
#include "tests/adapters/AdapterFixture.h"

#include "platform/concurrency/Queue.h"
#include "platform/foundation/FileManager.h"

#include <filesystem>

using namespace tests;
using halvix::ContentType, halvix::Download, halvix::DownloadState, halvix::ErrorType;
using Events = std::vector<std::string>;

namespace {

constexpr const char* url = "http://host/dir/movie.mp4?k=1";

class FileAdapter : public Adapter<FileDownloader> {
protected:
  void SetUp() override { open(); }

  /// As the next process does.
  void open(int limit = 2) {
    adapter.reset();
    environment.reset();
    service = std::make_shared<support::ScriptedTransferService>(bodies.path());
    halvix::HostOptions options;
    options.maximumConcurrentFiles = limit;
    environment = openEnvironment(directory.path(), options);
    environment->setTransferService(service);
    Adapter::open(false);
  }

  std::shared_ptr<Download> create(const std::string& address = url) {
    return Adapter::create(address, ContentType::mp4);
  }
  halvix::QVErrorRef prepare(const std::string& uuid, const platform::HTTPHeaders& told) {
    return Adapter::prepare(uuid, [&] {
      service->dataTasks().back()->answer(200, "", told);
      settle();
    });
  }
  /// Where a file of that name stands, below the directory of the library.
  static std::string placeOf(const std::string& uuid, const std::string& name) {
    return FilePlaces("FileDownloader").path(uuid, name);
  }
  std::shared_ptr<Download> started(const std::string& address = url) {
    auto download = create(address);
    EXPECT_EQ(adapter->startDownload(download->uuid(), {}), nullptr);
    return download;
  }
  std::vector<support::ScriptedTaskRef> live() const {
    std::vector<support::ScriptedTaskRef> tasks;
    for (const auto& task : service->tasks())
      if (task->state() != platform::URLSessionTaskState::Completed)
        tasks.push_back(task);
    return tasks;
  }
  /// Half of each body that is under way arrives; answers the first task.
  support::ScriptedTaskRef receiveHalf(const platform::HTTPHeaders& headers) const {
    const auto tasks = live();
    for (const auto& task : tasks) {
      task->respond(200, headers);
      task->write(5, 10);
    }
    return tasks.at(0);
  }
  /// Delivers what is waiting and lets the queues come round.
  void settle() {
    service->run();
    platform::SerialQueue::background().sync([] {});
    platform::MainQueue::shared().sync([] {});
    platform::MainQueue::shared().sync([] {});
  }

  support::TemporaryDirectory bodies;
  std::shared_ptr<support::ScriptedTransferService> service;
};

} // namespace

TEST_F(FileAdapter, AFileRunsFromStartToItsPlace) {
  auto download = started();
  EXPECT_EQ(download->title(), "movie.mp4");
  ASSERT_EQ(live().size(), 1u);
  auto task = live()[0];
  EXPECT_EQ(task->taskDescription(), download->uuid());
  EXPECT_EQ(task->request().url().absoluteString(), url);
  EXPECT_EQ(task->request().valueForHTTPHeaderField("X-Own"), "2");
  EXPECT_EQ(adapter->activityCount(), 1);
  receiveHalf({});
  settle();
  EXPECT_EQ(download->state(), DownloadState::running);
  EXPECT_EQ(download->progress().expectedContentSize(), 10);
  EXPECT_EQ(download->progress().downloadedContentSize(), 5);
  task->finish("0123456789");
  settle();
  EXPECT_EQ(download->state(), DownloadState::success);
  EXPECT_EQ("FileDownloader/" + download->localRelativePath().value(),
            placeOf(download->uuid(), "movie.mp4"));
  EXPECT_EQ(support::readFile(*download->localUrl()), "0123456789");
  EXPECT_EQ(adapter->activityCount(), 0);
  EXPECT_EQ(dispatcher->events(), (Events{"start", "running", "success", "finished"}));

  EXPECT_EQ(adapter->startDownload(download->uuid(), {}), nullptr) << "nothing is left to do";
  EXPECT_TRUE(live().empty());
  EXPECT_EQ(adapter->removeDownload(download->uuid()), nullptr);
  EXPECT_TRUE(std::filesystem::is_empty(adapter->downloadPath()));
}

TEST_F(FileAdapter, PauseKeepsWhatToGoOnFromAndIsNoError) {
  auto download = started();
  receiveHalf({{"ETag", "\"e\""}});
  settle();
  EXPECT_EQ(adapter->pauseDownload(download->uuid()), nullptr);
  // Resumed and paused again before the end of the pause is told: the last word counts.
  EXPECT_EQ(adapter->resumeDownload(download->uuid()), nullptr);
  EXPECT_EQ(adapter->pauseDownload(download->uuid()), nullptr);
  settle();
  EXPECT_EQ(download->state(), DownloadState::paused);
  EXPECT_NE(download->resumeData(), nullptr);
  EXPECT_TRUE(live().empty());
  for (const std::string& event : dispatcher->events())
    EXPECT_FALSE(event.starts_with("error")) << event;

  download->setHeaders({});
  EXPECT_EQ(adapter->resumeDownload(download->uuid()), nullptr);
  ASSERT_EQ(live().size(), 1u);
  EXPECT_TRUE(live()[0]->resumeData());
  EXPECT_EQ(adapter->pauseDownload(download->uuid()), nullptr);
  EXPECT_EQ(adapter->resumeDownload(download->uuid()), nullptr) << "resumed before the pause has ended";
  settle();
  EXPECT_EQ(download->state(), DownloadState::running);
  ASSERT_EQ(live().size(), 1u);
  EXPECT_TRUE(live()[0]->resumeData()) << "it waited for what the pause left";
}

TEST_F(FileAdapter, WhatWaitsIsIdleAndCanBePausedAndCancelled) {
  open(1);
  auto first = started("http://host/1.mp4"), second = started("http://host/2.mp4"),
       third = started("http://host/3.mp4"), fourth = started("http://host/4.mp4");
  EXPECT_EQ(live().size(), 1u);
  EXPECT_EQ(second->state(), DownloadState::idle);
  EXPECT_EQ(adapter->pauseDownload(second->uuid()), nullptr);
  EXPECT_EQ(adapter->cancelDownload(third->uuid()), nullptr);
  ASSERT_TRUE(dispatcher->failed.wait());
  settle();
  EXPECT_EQ(second->state(), DownloadState::paused);
  EXPECT_EQ(third->state(), DownloadState::failed);
  live()[0]->finish("1");
  settle();
  ASSERT_EQ(live().size(), 1u);
  EXPECT_EQ(live()[0]->taskDescription(), fourth->uuid());
  EXPECT_EQ(fourth->state(), DownloadState::running);
  EXPECT_NE(adapter->pauseDownload(second->uuid()), nullptr) << "it is not under way";
  EXPECT_NE(adapter->pauseDownload("unknown"), nullptr);
  EXPECT_NE(adapter->resumeDownload("unknown"), nullptr);
  EXPECT_NE(adapter->removeDownload("unknown"), nullptr);
}

TEST_F(FileAdapter, AFailureTellsTheReasonAndKeepsItsResumeData) {
  auto download = started();
  const auto task = receiveHalf({{"ETag", "\"e\""}});
  const auto data = std::make_shared<const platform::Data>(platform::Data{1, 2, 3});
  task->fail(platform::makeError(
      platform::NSURLErrorDomain, platform::NSURLErrorNetworkConnectionLost,
      platform::UserInfo{{platform::NSURLSessionDownloadTaskResumeData, platform::DataRef(data)}}));
  settle();
  EXPECT_EQ(download->state(), DownloadState::failed);
  EXPECT_EQ(download->resumeData(), data);
  ASSERT_TRUE(dispatcher->failed.wait());
  EXPECT_TRUE(dispatcher->events().back().starts_with("error the download failed: connection lost"));
}

TEST_F(FileAdapter, WhatAnEndedProcessLeftRunningIsReportedOnceAndGoesOn) {
  const std::string uuid = started()->uuid();
  adapter->storeItems();
  open();
  adapter->reportInterruptedDownloads();
  auto download = adapter->findDownload(uuid);
  ASSERT_TRUE(download);
  EXPECT_EQ(download->state(), DownloadState::paused);
  auto error = dispatcher->failed.wait();
  ASSERT_TRUE(error);
  EXPECT_EQ((*error)->type(), ErrorType::download_interrupted);
  adapter->reportInterruptedDownloads();
  EXPECT_EQ(dispatcher->failed.count(), 1u);
  EXPECT_EQ(adapter->resumeDownload(uuid), nullptr);
  ASSERT_EQ(live().size(), 1u);
  EXPECT_EQ(live()[0]->request().url().absoluteString(), url);
}

TEST_F(FileAdapter, AFileInPlaceWithoutARecordOfItsEndCountsWhenTheServerAgrees) {
  const std::string uuid = started()->uuid();
  adapter->storeItems();
  open();
  auto download = adapter->findDownload(uuid);
  // As the server called it then.
  const std::string file = directory.write(placeOf(uuid, "Holiday.mp4"), "0123456789");
  const std::string date = "Sun, 06 Nov 1994 08:49:37 GMT", later = "Sun, 06 Nov 1994 08:49:38 GMT";
  ASSERT_EQ(platform::FileManager::setModifiedSeconds(784'111'777, file), nullptr);
  // Each outcome before the next: what the server does not agree to is fetched, and stopped here.
  const std::tuple<const char*, std::string, bool> answers[] = {
      {"11", date, false}, {"10", later, false}, {"10", date, true}};
  for (const auto& [length, modified, counts] : answers) {
    SCOPED_TRACE(length + (" " + modified));
    EXPECT_EQ(prepare(uuid, {{"Content-Length", length}, {"Last-Modified", modified}}), nullptr);
    EXPECT_EQ(service->dataTasks().back()->request().HTTPMethod(), "HEAD");
    EXPECT_EQ(adapter->startDownload(uuid, {}), nullptr);
    EXPECT_EQ(live().empty(), counts);
    if (!counts) {
      EXPECT_EQ(adapter->cancelDownload(uuid), nullptr);
    }
    settle();
  }
  EXPECT_EQ(download->state(), DownloadState::success);
  EXPECT_EQ(support::readFile(*download->localUrl()), "0123456789");
}

TEST_F(FileAdapter, TheNameThatComesWithTheFileIsTakenWithoutAnotherRequest) {
  auto download = started("http://host/get.mp4?id=7"), mine = create("http://host/get.mp4?id=8");
  mine->setTitle("Mine");
  EXPECT_EQ(adapter->startDownload(mine->uuid(), {}), nullptr);
  // Left by a process that died after it had placed the file, when the server still called it otherwise.
  const std::string left = placeOf(download->uuid(), "get.mp4"), another = "FileDownloader/get.mp4";
  directory.write(left, "old");
  directory.write(another, "somebody's");
  receiveHalf({{"Content-Disposition", "attachment; filename=\"../Holiday.mp4\""},
               {"Last-Modified", "Sun, 06 Nov 1994 08:49:37 GMT"}});
  settle();
  EXPECT_EQ(download->title(), "Holiday.mp4") << "while it is on its way";
  for (const auto& task : live())
    task->finish("0123456789");
  settle();
  ASSERT_TRUE(dispatcher->recorded().waitUntil(
      [](const auto& events) { return std::count(events.begin(), events.end(), "finished") == 2; }));
  for (const auto& each : {download, mine})
    EXPECT_EQ("FileDownloader/" + each->localRelativePath().value(), placeOf(each->uuid(), "Holiday.mp4"));
  EXPECT_EQ(mine->title(), "Mine");
  EXPECT_EQ(platform::FileManager::attributesOfItemAtPath(*mine->localUrl())->modifiedSeconds, 784'111'777)
      << "the server's date";
  EXPECT_TRUE(service->dataTasks().empty());
  EXPECT_FALSE(std::filesystem::exists(directory / left));
  EXPECT_TRUE(std::filesystem::exists(directory / another));
}

TEST_F(FileAdapter, WhatIsRemovedWhileItComesIntoItsPlaceLeavesNothing) {
  // Removed before its file is moved (the end can no longer be stopped), and forgotten only afterwards.
  auto early = started();
  live()[0]->finish("0123456789");
  dispatcher->onProgress = [&, done = false]() mutable {
    if (!std::exchange(done, true)) {
      EXPECT_EQ(adapter->removeDownload(early->uuid()), nullptr);
    }
  };
  settle();
  dispatcher->onProgress = nullptr;
  EXPECT_TRUE(std::filesystem::is_empty(adapter->downloadPath()));
  EXPECT_NE(early->state(), DownloadState::success);
  adapter->forgetDownload(early->uuid());

  // Found in its place, and removed before anything was ever fetched.
  open();
  const std::string uuid = create()->uuid();
  adapter->storeItems();
  directory.write(placeOf(uuid, "movie.mp4"), "0123456789");
  auto found = adapter->findDownload(uuid);
  EXPECT_EQ(prepare(uuid, {{"Content-Length", "10"}}), nullptr);
  platform::MainQueue::shared().sync([&] {
    EXPECT_EQ(adapter->startDownload(uuid, {}), nullptr);
    platform::SerialQueue::background().sync([] {});
    EXPECT_EQ(adapter->removeDownload(uuid), nullptr);
  });
  settle();
  EXPECT_TRUE(std::filesystem::is_empty(adapter->downloadPath()));
  EXPECT_NE(found->state(), DownloadState::success);
}
