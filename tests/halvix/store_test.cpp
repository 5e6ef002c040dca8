#include "tests/halvix/ScriptedDownloader.h"
#include "tests/support/TemporaryDirectory.h"

#include "halvix/DownloadStore.h"
#include "halvix/LibraryLock.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace halvix;
using support::readFile, support::TemporaryDirectory, tests::dashMovie, tests::openEnvironment,
    tests::ScriptedDownloader;

DownloadRecord record(const std::string& uuid) {
  DownloadRecord r;
  r.uuid = uuid;
  r.downloader = "scripted";
  r.contentUrl = "http://example.test/" + uuid;
  r.createdMs = 1;
  return r;
}

class Records : public testing::Test {
protected:
  std::shared_ptr<Download> keptDownload(const std::string& name) {
    auto download = downloader->createDownload(dashMovie(name), {{"Authorization", "secret"}}, nullptr);
    download->keep();
    EXPECT_FALSE(downloader->storeItems());
    return download;
  }
  std::vector<DownloadRecord> stored() { return environment->store()->load("scripted", nullptr); }

  TemporaryDirectory library;
  std::shared_ptr<HostEnvironment> environment = openEnvironment(library.path());
  std::shared_ptr<ScriptedDownloader> downloader = std::make_shared<ScriptedDownloader>(environment);
};

TEST_F(Records, ComeBackWholeInTheNextProcess) {
  {
    auto download = keptDownload("a.mpd");
    Selection selection;
    selection.audio = tests::someTracks().audio[0].renditions;
    download->setSelection(selection);
    download->setResumeData(std::make_shared<const platform::Data>(platform::Data{0, 1, 255}));
    download->setLocalRelativePath("id-a.mpd/manifest.mpd");
    download->setPreferredBitrate(700'000);
    download->setMaximumConcurrentTransfers(7);
    download->setFairplayKeyURIs({"skd://one", "skd://two"});
    download->setLastError(tests::failure(ErrorType::download_failed, "no luck"));
    download->setProgress(
        download->progress().copyWithExpectedContentSize(100).copyWithDownloadedContentSize(40));
    EXPECT_FALSE(downloader->storeItems());
  }
  downloader.reset(), environment.reset();
  environment = openEnvironment(library.path());
  downloader = std::make_shared<ScriptedDownloader>(environment);
  auto download = downloader->findDownload("id-a.mpd");
  ASSERT_TRUE(download);
  EXPECT_EQ(downloader->findDownloadByContentUrl("http://example.test/a.mpd"), download);
  EXPECT_EQ(std::tuple(download->title(), download->contentType(), download->lastErrorText()),
            std::tuple("Title of a.mpd", ContentType::dash, "no luck"));
  EXPECT_EQ(download->selectedAudioRenditions().at(0).language, "de");
  EXPECT_EQ(*download->resumeData(), (platform::Data{0, 1, 255}));
  EXPECT_EQ(download->localUrl(), library / "scripted/id-a.mpd/manifest.mpd");
  EXPECT_EQ(download->preferredBitrate(), 700'000);
  EXPECT_EQ(download->maximumConcurrentTransfers(), 7);
  EXPECT_EQ(download->fairplayKeyURIs().size(), 2u);
  EXPECT_EQ(download->progress().downloadedContentSize(), 40);
  const auto headers = downloader->headersForDownload("id-a.mpd");
  EXPECT_EQ(std::tuple(headers.at("authorization"), headers.at("X-Library"), headers.at("X-Downloader")),
            std::tuple("secret", "all", "own"));

  struct stat status = {};
  for (const auto& entry : std::filesystem::directory_iterator(library.path()))
    if (entry.path().filename().string().starts_with("halvix.")) {
      ASSERT_EQ(::stat(entry.path().c_str(), &status), 0);
      EXPECT_EQ(status.st_mode & 0777, 0600u) << entry.path();
    }
}

TEST_F(Records, AreWrittenOnlyWhenSomethingInThemChanged) {
  auto a = keptDownload("a"), b = keptDownload("b");
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
  EXPECT_EQ(stored().size(), 2u);
}

TEST_F(Records, ThatCannotBeWrittenStayMarked) {
  auto download = keptDownload("a");
  // The file size limit is the simplest disk that is full.
  ::signal(SIGXFSZ, SIG_IGN);
  rlimit old = {};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
  rlimit none = old;
  none.rlim_cur = 1;
  download->setTitle(std::string(100'000, 't'));
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &none), 0);
  const auto error = downloader->storeItems();
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &old), 0);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->type(), ErrorType::library_unavailable);
  EXPECT_FALSE(downloader->storeItems());
  EXPECT_EQ(stored().at(0).title.size(), 100'000u);
}

TEST(Store, RefusesWhatItDoesNotKnowAndLeavesItAlone) {
  struct Case {
    const char* name;
    ErrorType type;
    std::function<void(std::string&)> spoil;
  };
  const Case cases[] = {
      // The version stands at byte 60 of the file, our mark at byte 68.
      {"newer", ErrorType::library_too_new, [](std::string& bytes) { bytes[63] = 9; }},
      {"foreign", ErrorType::library_damaged, [](std::string& bytes) { bytes[68] = 0; }},
      {"garbled head", ErrorType::library_damaged, [](std::string& bytes) { bytes.replace(0, 16, 16, 'x'); }},
      {"garbled pages", ErrorType::library_damaged,
       [](std::string& bytes) { std::fill(bytes.begin() + 100, bytes.end(), '\x5a'); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TemporaryDirectory library;
    QVErrorRef error;
    ASSERT_FALSE(DownloadStore::open(library.path(), &error)->write({record("a")}));
    std::string bytes = readFile(library / DownloadStore::fileName);
    ASSERT_GT(bytes.size(), 100u);
    c.spoil(bytes);
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
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    auto lock = LibraryLock::acquire(library.path(), nullptr);
    (void)!::write(ready[1], lock ? "y" : "n", 1);
    for (;;)
      ::pause();
  }
  char answer = 0;
  ASSERT_EQ(::read(ready[0], &answer, 1), 1);
  EXPECT_EQ(answer, 'y');
  QVErrorRef error;
  EXPECT_FALSE(DownloadStore::open(library.path(), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->type(), ErrorType::library_locked);
  EXPECT_NE(error->description().find("process " + std::to_string(child)), std::string::npos);
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  ::close(ready[0]);
  ::close(ready[1]);

  // Its death leaves the library free; in one process the lock counts as well.
  auto store = DownloadStore::open(library.path(), &error);
  ASSERT_TRUE(store);
  EXPECT_TRUE(LibraryLock::isHeld(library.path()));
  EXPECT_FALSE(DownloadStore::open(library.path(), &error));
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

  std::vector<DownloadRecord> many;
  for (int i = 0; i < 10'000; ++i) {
    many.push_back(record("id" + std::to_string(i)));
    many.back().createdMs = 20'000 - i;
    many.back().resumeData = std::make_shared<const platform::Data>(200, std::uint8_t{1});
  }
  ASSERT_FALSE(DownloadStore::open(library.path(), &error)->write(many));
  auto listed = DownloadStore::summaries(library.path(), &error);
  ASSERT_EQ(listed.size(), many.size());
  EXPECT_EQ(listed.front().id, "id9999");
  EXPECT_EQ(listed.back().id, "id0");
}

TEST_F(Records, OfADownloadThatThreadsShareKeepTheirChanges) {
  auto download = keptDownload("a");
  std::vector<std::jthread> threads;
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
  threads.clear();
  EXPECT_FALSE(downloader->storeItems());
  EXPECT_EQ(stored().at(0).title, download->title());
}

} // namespace
