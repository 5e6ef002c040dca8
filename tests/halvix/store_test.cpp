#include "tests/halvix/ScriptedDownloader.h"
#include "tests/support/TemporaryDirectory.h"

#include "halvix/DownloadStore.h"
#include "halvix/LibraryLock.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sys/stat.h>
#include <thread>

namespace {

using namespace halvix;
using support::readFile;
using support::TemporaryDirectory;
using tests::dashMovie;
using tests::openEnvironment;
using tests::ScriptedDownloader;

DownloadRecord record(const std::string& uuid) {
  DownloadRecord r;
  r.uuid = uuid;
  r.downloader = "scripted";
  r.contentUrl = "http://example.test/" + uuid;
  r.createdMs = 1;
  return r;
}

std::shared_ptr<Download> keptDownload(ScriptedDownloader& downloader, const std::string& name) {
  auto download = downloader.createDownload(dashMovie(name), {{"Authorization", "secret"}}, nullptr);
  download->keep();
  EXPECT_FALSE(downloader.storeItems());
  return download;
}

TEST(Records, ComeBackWholeInTheNextProcess) {
  TemporaryDirectory library;
  {
    auto downloader = std::make_shared<ScriptedDownloader>(openEnvironment(library.path()));
    auto download = keptDownload(*downloader, "a.mpd");
    Selection selection;
    selection.audio = tests::someTracks().audio[0].renditions;
    download->setSelection(selection);
    download->setResumeData(std::make_shared<const platform::Data>(platform::Data{0, 1, 255}));
    download->setLocalRelativePath("id-a.mpd/manifest.mpd");
    download->setPreferredBitrate(700'000);
    download->setMaximumConcurrentTransfers(7);
    download->setFairplayKeyURIs({"skd://one", "skd://two"});
    download->setLastError(QVErrorBuilder(ErrorType::download_failed).message("no luck").build());
    download->setProgress(
        download->progress().copyWithExpectedContentSize(100).copyWithDownloadedContentSize(40));
    EXPECT_FALSE(downloader->storeItems());
  }
  auto downloader = std::make_shared<ScriptedDownloader>(openEnvironment(library.path()));
  auto download = downloader->findDownload("id-a.mpd");
  ASSERT_TRUE(download);
  EXPECT_EQ(downloader->findDownloadByContentUrl("http://example.test/a.mpd"), download);
  EXPECT_EQ(download->title(), "Title of a.mpd");
  EXPECT_EQ(download->contentType(), ContentType::dash);
  EXPECT_EQ(download->selectedAudioRenditions().at(0).language, "de");
  EXPECT_EQ(*download->resumeData(), (platform::Data{0, 1, 255}));
  EXPECT_EQ(download->localUrl(), library / "scripted/id-a.mpd/manifest.mpd");
  EXPECT_EQ(download->preferredBitrate(), 700'000);
  EXPECT_EQ(download->maximumConcurrentTransfers(), 7);
  EXPECT_EQ(download->fairplayKeyURIs().size(), 2u);
  EXPECT_EQ(download->lastErrorText(), "no luck");
  EXPECT_EQ(download->progress().downloadedContentSize(), 40);
  const auto headers = downloader->headersForDownload("id-a.mpd");
  EXPECT_EQ(headers.at("authorization"), "secret");
  EXPECT_EQ(headers.at("X-Library"), "all");
  EXPECT_EQ(headers.at("X-Downloader"), "own");

  struct stat status = {};
  for (const auto& entry : std::filesystem::directory_iterator(library.path()))
    if (entry.path().filename().string().starts_with("halvix.")) {
      ASSERT_EQ(::stat(entry.path().c_str(), &status), 0);
      EXPECT_EQ(status.st_mode & 0777, 0600u) << entry.path();
    }
}

TEST(Records, AreWrittenOnlyWhenSomethingInThemChanged) {
  TemporaryDirectory library;
  auto environment = openEnvironment(library.path());
  auto downloader = std::make_shared<ScriptedDownloader>(environment);
  auto a = keptDownload(*downloader, "a");
  auto b = keptDownload(*downloader, "b");
  auto rows = [&] {
    EXPECT_FALSE(downloader->storeItems());
    return environment->store()->rowsWritten();
  };
  EXPECT_EQ(rows(), 2u);
  a->setProgress(a->progress().copyWithDownloadedContentSize(10));
  a->setTitle(a->title());
  a->setHeaders(a->headers());
  a->setState(DownloadState::idle);
  EXPECT_EQ(rows(), 2u);
  a->setState(DownloadState::running);
  a->setTitle("new");
  EXPECT_EQ(rows(), 3u);
  EXPECT_EQ(rows(), 3u);

  // A provisional download is no part of the list, whatever else is written; leaving idle makes it one.
  auto c = downloader->createDownload(dashMovie("c"), {}, nullptr);
  c->setTitle("changed");
  b->setTitle("changed");
  EXPECT_EQ(rows(), 4u);
  c->setState(DownloadState::running);
  EXPECT_EQ(rows(), 5u);

  EXPECT_FALSE(downloader->forgetDownload("id-c"));
  c->setTitle("after its end");
  EXPECT_EQ(rows(), 5u);
  EXPECT_EQ(environment->store()->load("scripted", nullptr).size(), 2u);
}

TEST(Store, RefusesWhatItDoesNotKnowAndLeavesItAlone) {
  struct Case {
    const char* name;
    ErrorType type;
    std::size_t position;
    char byte;
  };
  // The version stands at byte 60 of the file, our mark at byte 68.
  for (const Case& c : {Case{"newer", ErrorType::library_too_new, 63, 9},
                        Case{"foreign", ErrorType::library_damaged, 68, 0}}) {
    SCOPED_TRACE(c.name);
    TemporaryDirectory library;
    QVErrorRef error;
    ASSERT_FALSE(DownloadStore::open(library.path(), &error)->write({record("a")}));
    std::string bytes = readFile(library / DownloadStore::fileName);
    ASSERT_GT(bytes.size(), 100u);
    bytes[c.position] = c.byte;
    library.write(DownloadStore::fileName, bytes);

    EXPECT_FALSE(DownloadStore::open(library.path(), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->type(), c.type) << error->description();
    QVErrorRef listError;
    EXPECT_TRUE(DownloadStore::summaries(library.path(), &listError).empty());
    ASSERT_TRUE(listError);
    EXPECT_EQ(listError->type(), c.type) << listError->description();
    EXPECT_EQ(readFile(library / DownloadStore::fileName), bytes);
    EXPECT_FALSE(LibraryLock::isHeld(library.path()));
  }
  QVErrorRef error;
  EXPECT_FALSE(DownloadStore::open("/proc/no/such/place", &error));
  EXPECT_EQ(error->type(), ErrorType::library_unavailable);
  EXPECT_FALSE(DownloadStore::open("relative", &error));
}

TEST(Store, HasOneWriterAndAnyReaders) {
  TemporaryDirectory library;
  QVErrorRef error;
  auto store = DownloadStore::open(library.path(), &error);
  ASSERT_TRUE(store);
  EXPECT_TRUE(LibraryLock::isHeld(library.path()));
  EXPECT_FALSE(DownloadStore::open(library.path(), &error));
  EXPECT_EQ(error->type(), ErrorType::library_locked);
  DownloadRecord running = record("r");
  running.state = DownloadState::running;
  running.localRelativePath = "../../etc";
  EXPECT_FALSE(store->write({running}));
  auto listed = DownloadStore::summaries(library.path(), &error);
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0].state, DownloadState::running);
  EXPECT_EQ(listed[0].localPath, std::nullopt);

  store.reset();
  listed = DownloadStore::summaries(library.path(), &error);
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0].state, DownloadState::paused);
  EXPECT_TRUE(listed[0].interrupted);
}

TEST(Store, ListsWithoutTouchingTheLibrary) {
  TemporaryDirectory library;
  QVErrorRef error;
  EXPECT_TRUE(DownloadStore::summaries(library / "nowhere", &error).empty());
  EXPECT_FALSE(error);
  EXPECT_FALSE(std::filesystem::exists(library / "nowhere"));
}

TEST(Download, SharedByThreadsKeepsItsChanges) {
  TemporaryDirectory library;
  auto environment = openEnvironment(library.path());
  auto downloader = std::make_shared<ScriptedDownloader>(environment);
  auto download = keptDownload(*downloader, "a");
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        download->setState(i % 2 ? DownloadState::running : DownloadState::paused);
        download->setProgress(download->progress().copyWithDownloadedContentSize(i));
        download->setTitle(std::to_string(t) + "/" + std::to_string(i));
        if (i % 20 == 0)
          downloader->storeItems();
        (void)download->localUrl(), (void)downloader->downloads();
      }
    });
  for (auto& thread : threads)
    thread.join();
  EXPECT_FALSE(downloader->storeItems());
  EXPECT_EQ(environment->store()->load("scripted", nullptr).at(0).title, download->title());
}

} // namespace
