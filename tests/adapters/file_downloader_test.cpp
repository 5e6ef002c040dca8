// The adapter of plain files over scripted transfers: states, records and events.

#include "TolvaneDownloader/FileDownloader/FileDownloader.h"
#include "tests/adapters/AdapterFixture.h"

#include "halvix/Download.h"
#include "halvix/ErrorDescription.h"
#include "platform/concurrency/Queue.h"

#include <filesystem>
#include <gtest/gtest.h>

using namespace tests;
using halvix::ContentType;
using halvix::Download;
using halvix::DownloadState;
using halvix::ErrorType;
using Events = std::vector<std::string>;

namespace {

constexpr const char* url = "http://host/dir/movie.mp4?k=1";

class FileAdapter : public testing::Test {
protected:
  void SetUp() override { open(); }

  void open(int limit = 2) {
    files.reset();
    environment.reset();
    service = std::make_shared<support::ScriptedTransferService>(
        bodies.path(), support::ScriptedTransferService::Delivery::Pumped);
    halvix::HostOptions options;
    options.libraryDirectory = directory.path();
    options.maximumConcurrentFiles = limit;
    halvix::QVErrorRef error;
    environment = halvix::HostEnvironment::open(options, &error);
    ASSERT_TRUE(environment) << halvix::describeError(error);
    environment->setTransferService(service);
    files = FileDownloader::create(false, {{"X-All", "1"}}, environment);
    dispatcher = std::make_shared<RecordingDispatcher>();
    files->setDispatcher(dispatcher);
  }

  std::shared_ptr<Download> create(const std::string& address = url) {
    halvix::QVErrorRef error;
    auto download = files->createDownload({address, ContentType::mp4, ""}, {{"X-Own", "2"}}, &error);
    EXPECT_TRUE(download) << halvix::describeError(error);
    download->keep();
    return download;
  }
  std::shared_ptr<Download> started(const std::string& address = url) {
    auto download = create(address);
    EXPECT_EQ(files->startDownload(download->uuid(), {}), nullptr);
    return download;
  }
  std::vector<support::ScriptedTaskRef> live() const {
    std::vector<support::ScriptedTaskRef> tasks;
    for (const auto& task : service->tasks())
      if (task->state() != platform::URLSessionTaskState::Completed)
        tasks.push_back(task);
    return tasks;
  }
  /// Delivers what is waiting and lets the queues come round.
  void settle() {
    service->run();
    platform::SerialQueue::background().sync([] {});
    platform::MainQueue::shared().sync([] {});
    platform::MainQueue::shared().sync([] {});
  }

  support::TemporaryDirectory directory, bodies;
  std::shared_ptr<support::ScriptedTransferService> service;
  std::shared_ptr<halvix::HostEnvironment> environment;
  std::shared_ptr<FileDownloader> files;
  std::shared_ptr<RecordingDispatcher> dispatcher;
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
  EXPECT_EQ(files->activityCount(), 1);
  task->respond(200);
  task->write(5, 10);
  settle();
  EXPECT_EQ(download->state(), DownloadState::running);
  EXPECT_EQ(download->progress().expectedContentSize(), 10);
  EXPECT_EQ(download->progress().downloadedContentSize(), 5);
  task->finish("0123456789");
  settle();
  EXPECT_EQ(download->state(), DownloadState::success);
  EXPECT_EQ(download->localRelativePath(), download->uuid() + "/movie.mp4");
  EXPECT_EQ(support::readFile(*download->localUrl()), "0123456789");
  EXPECT_EQ(files->activityCount(), 0);
  EXPECT_EQ(dispatcher->events(), (Events{"start", "running", "success", "finished"}));

  EXPECT_EQ(files->startDownload(download->uuid(), {}), nullptr) << "nothing is left to do";
  EXPECT_TRUE(live().empty());
  EXPECT_EQ(files->removeDownload(download->uuid()), nullptr);
  EXPECT_FALSE(std::filesystem::exists(files->downloadPath() + "/" + download->uuid()));
}

TEST_F(FileAdapter, PauseKeepsWhatToGoOnFromAndIsNoError) {
  auto download = started();
  live()[0]->respond(200, {{"ETag", "\"e\""}});
  live()[0]->write(5, 10);
  settle();
  EXPECT_EQ(files->pauseDownload(download->uuid()), nullptr);
  // Resumed and paused again before the end of the pause is told: the last word counts.
  EXPECT_EQ(files->resumeDownload(download->uuid()), nullptr);
  EXPECT_EQ(files->pauseDownload(download->uuid()), nullptr);
  settle();
  EXPECT_EQ(download->state(), DownloadState::paused);
  EXPECT_NE(download->resumeData(), nullptr);
  EXPECT_TRUE(live().empty());
  for (const std::string& event : dispatcher->events())
    EXPECT_FALSE(event.starts_with("error")) << event;

  download->setHeaders({});
  EXPECT_EQ(files->resumeDownload(download->uuid()), nullptr);
  ASSERT_EQ(live().size(), 1u);
  EXPECT_TRUE(live()[0]->resumeData());
  EXPECT_EQ(files->pauseDownload(download->uuid()), nullptr);
  EXPECT_EQ(files->resumeDownload(download->uuid()), nullptr) << "resumed before the pause has ended";
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
  EXPECT_EQ(files->pauseDownload(second->uuid()), nullptr);
  EXPECT_EQ(files->cancelDownload(third->uuid()), nullptr);
  ASSERT_TRUE(dispatcher->failed.wait());
  settle();
  EXPECT_EQ(second->state(), DownloadState::paused);
  EXPECT_EQ(third->state(), DownloadState::failed);
  live()[0]->finish("1");
  settle();
  ASSERT_EQ(live().size(), 1u);
  EXPECT_EQ(live()[0]->taskDescription(), fourth->uuid());
  EXPECT_EQ(fourth->state(), DownloadState::running);
  EXPECT_NE(files->pauseDownload(second->uuid()), nullptr) << "it is not under way";
  EXPECT_NE(files->pauseDownload("unknown"), nullptr);
  EXPECT_NE(files->resumeDownload("unknown"), nullptr);
  EXPECT_NE(files->removeDownload("unknown"), nullptr);
}

TEST_F(FileAdapter, AFailureTellsTheReasonAndKeepsItsResumeData) {
  auto download = started();
  auto task = live()[0];
  task->respond(200, {{"ETag", "\"e\""}});
  task->write(5, 10);
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
  files->storeItems();
  open();
  files->reportInterruptedDownloads();
  auto download = files->findDownload(uuid);
  ASSERT_TRUE(download);
  EXPECT_EQ(download->state(), DownloadState::paused);
  auto error = dispatcher->failed.wait();
  ASSERT_TRUE(error);
  EXPECT_EQ((*error)->type(), ErrorType::download_interrupted);
  files->reportInterruptedDownloads();
  EXPECT_EQ(dispatcher->failed.count(), 1u);
  EXPECT_EQ(files->resumeDownload(uuid), nullptr);
  ASSERT_EQ(live().size(), 1u);
  EXPECT_EQ(live()[0]->request().url().absoluteString(), url);
}

TEST_F(FileAdapter, AFileInPlaceWithoutARecordOfItsEndCountsWhenTheServerAgrees) {
  const std::string uuid = started()->uuid();
  files->storeItems();
  open();
  directory.write("FileDownloader/" + uuid + "/Holiday.mp4", "0123456789"); // as the server called it then
  auto download = files->findDownload(uuid);
  for (const char* length : {"11", "10"}) {
    support::Expectation prepared;
    files->prepareDownload(uuid, [&](const auto&, const auto& error) {
      EXPECT_EQ(error, nullptr);
      prepared.fulfil();
    });
    service->dataTasks().back()->answer(200, "", {{"Content-Length", length}});
    settle();
    ASSERT_TRUE(prepared.wait());
    EXPECT_EQ(service->dataTasks().back()->request().HTTPMethod(), "HEAD");
    if (std::string(length) == "11")
      continue;
    EXPECT_EQ(files->startDownload(uuid, {}), nullptr);
    EXPECT_TRUE(live().empty());
    settle();
    EXPECT_EQ(download->state(), DownloadState::success);
    EXPECT_EQ(support::readFile(*download->localUrl()), "0123456789");
  }
}

TEST_F(FileAdapter, TheNameThatComesWithTheFileIsTakenWithoutAnotherRequest) {
  auto download = started("http://host/get.mp4?id=7"), mine = create("http://host/get.mp4?id=8");
  mine->setTitle("Mine");
  EXPECT_EQ(files->startDownload(mine->uuid(), {}), nullptr);
  // Left by a process that died after it had placed the file, when the server still called it otherwise.
  const std::string folder = "FileDownloader/" + download->uuid() + "/";
  directory.write(folder + "get.mp4", "old");
  directory.write(folder + "get.srt", "somebody's");
  for (const auto& task : live()) {
    task->respond(200, {{"Content-Disposition", "attachment; filename=\"../Holiday.mp4\""}});
    task->write(5, 10);
  }
  settle();
  EXPECT_EQ(download->title(), "Holiday.mp4") << "while it is on its way";
  for (const auto& task : live())
    task->finish("0123456789");
  settle();
  EXPECT_EQ(download->localRelativePath(), download->uuid() + "/Holiday.mp4");
  EXPECT_EQ(mine->localRelativePath(), mine->uuid() + "/Holiday.mp4");
  EXPECT_EQ(mine->title(), "Mine");
  EXPECT_TRUE(service->dataTasks().empty());
  EXPECT_FALSE(std::filesystem::exists(directory / (folder + "get.mp4")));
  EXPECT_TRUE(std::filesystem::exists(directory / (folder + "get.srt")));
}

TEST_F(FileAdapter, WhatIsRemovedWhileItComesIntoItsPlaceLeavesNothing) {
  const auto folderOf = [this](const Download& download) {
    return files->downloadPath() + "/" + download.uuid();
  };
  // Removed before its file is moved (the end can no longer be stopped), and forgotten only afterwards.
  auto early = started();
  live()[0]->finish("0123456789");
  dispatcher->onProgress = [&, done = false]() mutable {
    if (std::exchange(done, true))
      return;
    EXPECT_EQ(files->removeDownload(early->uuid()), nullptr);
  };
  settle();
  dispatcher->onProgress = nullptr;
  EXPECT_FALSE(std::filesystem::exists(folderOf(*early)));
  EXPECT_NE(early->state(), DownloadState::success);
  files->forgetDownload(early->uuid());

  // Found in its place, and removed before anything was ever fetched.
  open();
  const std::string uuid = create()->uuid();
  files->storeItems();
  directory.write("FileDownloader/" + uuid + "/movie.mp4", "0123456789");
  auto found = files->findDownload(uuid);
  support::Expectation prepared;
  files->prepareDownload(uuid, [&](const auto&, const auto&) { prepared.fulfil(); });
  service->dataTasks().back()->answer(200, "", {{"Content-Length", "10"}});
  settle();
  ASSERT_TRUE(prepared.wait());
  platform::MainQueue::shared().sync([&] {
    EXPECT_EQ(files->startDownload(uuid, {}), nullptr);
    platform::SerialQueue::background().sync([] {});
    EXPECT_EQ(files->removeDownload(uuid), nullptr);
  });
  settle();
  EXPECT_FALSE(std::filesystem::exists(folderOf(*found)));
  EXPECT_NE(found->state(), DownloadState::success);
}
