// What outlives the process: the journal, the partial files, the locks.

#include "tests/platform/ChildProcess.h"
#include "tests/platform/TransferServiceFixture.h"

#include "platform/transfer/internal/DiskPool.h"
#include "platform/transfer/internal/Journal.h"
#include "platform/transfer/internal/PartialStore.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <functional>
#include <sched.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace platform::transfer;
using namespace transfer_tests;

namespace {

class StoreTest : public testing::Test {
protected:
  StoreTest()
      : locks(directory / "locks"), diskThreads(0), store(directory.path(), "p-1", locks, diskThreads) {
    for (const char* name : {"locks", "partials", "finished"})
      std::filesystem::create_directory(directory / name);
  }

  /// A closed partial file of 10 bytes; answers its name.
  std::string leave(PartialDescription description) {
    auto file = store.create(PartialStore::keyOf("GET", "http://host/a", ""));
    EXPECT_EQ(file->write(0, "0123456789", 10), 0);
    description.url = "http://host/a";
    description.validators.etag = description.validators.etag.empty() ? "\"1\"" : description.validators.etag;
    EXPECT_EQ(file->settle(description), 0);
    return file->name();
  }
  std::optional<Claim> adopt() { return store.adopt("GET", "http://host/a", ""); }

  TemporaryDirectory directory;
  OwnerLocks locks;
  DiskPool diskThreads;
  PartialStore store;
};

TEST_F(StoreTest, AdoptsOnlyWhatNobodyHas) {
  int holder = 0, failure = 0;
  auto lock = locks.take("s-1", &holder, &failure);
  ASSERT_TRUE(lock);
  EXPECT_FALSE(locks.take("s-1", &holder, &failure));
  EXPECT_EQ(holder, ::getpid());
  const auto mayHoldOne = [this] { return store.mayHoldOrphan("GET", "http://host/a", ""); };
  std::filesystem::last_write_time(directory / "partials", std::filesystem::file_time_type::min());
  EXPECT_FALSE(mayHoldOne());
  PartialDescription description;
  description.owner = "s-1";
  auto name = leave(description);
  EXPECT_TRUE(mayHoldOne());
  EXPECT_FALSE(adopt());
  EXPECT_FALSE(store.reclaim(name, "s-2", "GET", "http://host/a", ""));
  EXPECT_FALSE(store.reclaim(name, "s-1", "GET", "http://host/b", ""));
  lock.reset();
  auto claim = adopt();
  ASSERT_TRUE(claim);
  EXPECT_EQ(claim->file->held().total(), 10);
  EXPECT_FALSE(adopt()); // it is open
  EXPECT_NE(leave(description), name);
}

TEST_F(StoreTest, TrustsThePageCacheOnlyWithinOneBoot) {
  PartialDescription description;
  auto name = leave(description);
  auto path = directory / "partials/" + name + ".json";
  auto text = readFile(path);
  text.replace(text.find(bootIdentifier()), 4, "0000");
  text.replace(text.find("[[0,10]]"), 8, "[[0,4]]");
  std::ofstream(path) << text;
  auto claim = adopt();
  ASSERT_TRUE(claim);
  EXPECT_EQ(claim->file->held().total(), 4);
  EXPECT_EQ(claim->file->write(4, "xy", 2), 0);
  EXPECT_EQ(claim->file->settle(description), 0);
  EXPECT_EQ(readFile(directory / "partials/" + name + ".part"), "0123xy");
}

TEST_F(StoreTest, LeavesNewerFormatsAloneAndDropsWhatTellsNothing) {
  auto name = leave({});
  auto path = directory / "partials/" + name;
  auto text = readFile(path + ".json");
  std::ofstream(path + ".json") << "{\"version\":3}";
  EXPECT_FALSE(adopt());
  store.sweep(std::chrono::hours(0));
  EXPECT_TRUE(std::filesystem::exists(path + ".part"));
  std::ofstream(path + ".json") << text.substr(0, text.size() / 2);
  EXPECT_FALSE(adopt());
  EXPECT_FALSE(std::filesystem::exists(path + ".part"));

  leave({});
  store.sweep(std::chrono::hours(1));
  EXPECT_TRUE(adopt());
  store.sweep(std::chrono::hours(0));
  EXPECT_FALSE(adopt());
}

TEST_F(StoreTest, ADescriptionNeverSpeaksOfBytesThatAreGone) {
  auto file = store.create("key");
  file->write(0, "old", 3);
  file->handOver();
  PartialDescription description;
  description.validators.etag = "\"old\"";
  auto generation = file->generation();
  EXPECT_EQ(file->syncAndDescribe(description, generation), 0);
  EXPECT_EQ(file->clear(), 0);
  file->write(0, "new", 3);
  file->handOver();
  EXPECT_EQ(file->syncAndDescribe(description, generation), 0); // was under way when it was cleared
  EXPECT_FALSE(store.peek(file->name()));
}

// It is not synced before it has its name, so another run of the system must not believe its length.
TEST_F(StoreTest, ABodyThatFitsIntoMemoryIsWrittenAtItsPlaceAndAdoptedFromThereWithinOneBoot) {
  PartialDescription description;
  description.validators.etag = "\"1\"";
  auto body = store.create(PartialStore::keyOf("GET", "http://host/a", ""));
  body->write(0, "01234", 5);
  body->write(5, "56789", 5);
  const auto path = store.newFinishedPath(*body, description);
  EXPECT_EQ(body->finish(path, true), 0);
  EXPECT_EQ(readFile(path), "0123456789");
  EXPECT_TRUE(std::filesystem::is_empty(directory / "partials"));

  const auto elsewhere = path.substr(0, path.rfind('~')) + "~0123456789abcdef";
  std::filesystem::rename(path, elsewhere);
  EXPECT_FALSE(PartialStore(directory.path(), "p-2", locks, diskThreads).adopt("GET", "http://host/a", ""));
  std::filesystem::rename(elsewhere, path);
  PartialStore next(directory.path(), "p-3", locks, diskThreads);
  auto claim = next.adopt("GET", "http://host/a", "");
  ASSERT_TRUE(claim);
  EXPECT_EQ(claim->file->held().total(), 10);
  EXPECT_EQ(claim->description.validators.etag, "\"1\"");
}

// Past the page cache everything has to lie right; beside it, it must not matter.
TEST_F(StoreTest, PortionsOfAnyPlaceAndLengthEndUpInTheFileAsTheyCame) {
  DiskPool threads(2);
  PartialStore threaded(directory.path(), "p-2", locks, threads);
  std::string content(3'000'001, '\0');
  for (std::size_t i = 0; i < content.size(); ++i)
    content[i] = static_cast<char>(i * 131 + i / 4093);
  for (const bool mapped : {false, true}) {
    auto body = threaded.create("key");
    body->write(0, content.data(), 1001);
    if (mapped) {
      body->handOver();
      ASSERT_EQ(body->startMap({}, body->generation()), 0);
    }
    std::vector<std::pair<std::size_t, std::size_t>> spans{{1001, content.size()}};
    if (mapped)
      spans = {{1001, 999'999}, {999'999, 2'000'011}, {2'000'011, content.size()}};
    for (std::size_t i = 0; !spans.empty(); ++i) {
      auto& [at, end] = spans[i % spans.size()];
      const auto some = std::min<std::size_t>(end - at, 40'000 + i * 7919 % 90'000);
      ASSERT_EQ(body->write(static_cast<std::int64_t>(at), content.data() + at, some), 0);
      at += some;
      if (i % 29 == 0)
        body->syncAndDescribe({}, body->generation());
      std::erase_if(spans, [](const auto& span) { return span.first == span.second; });
    }
    const auto path = directory / (mapped ? "mapped" : "grown");
    EXPECT_EQ(body->held().total(), static_cast<std::int64_t>(content.size()));
    ASSERT_EQ(body->finish(path, true), 0);
    EXPECT_TRUE(readFile(path) == content);
    EXPECT_TRUE(std::filesystem::is_empty(directory / "partials"));
  }
}

struct Row final : JournaledTask {
  explicit Row(std::uint64_t number) { row.identifier = number; }
  const std::string& journalSession() const override { return session; }
  std::uint64_t journalIdentifier() const override { return row.identifier; }
  std::optional<TaskRow> journalRow(bool withRequest) override {
    auto copy = row;
    copy.request = withRequest ? "{}" : "";
    return gone ? std::nullopt : std::optional(copy);
  }
  std::string session = "name";
  TaskRow row;
  bool gone = false;
};

TEST_F(StoreTest, JournalsTheNewestState) {
  auto path = directory / "journal.db";
  auto kept = std::make_shared<Row>(1), dropped = std::make_shared<Row>(2);
  {
    auto journal = Journal::open(path, nullptr);
    journal->reserveIdentifiers("name", 50);
    journal->touch(kept);
    journal->touch(dropped);
    EXPECT_THAT(journal->loadSession("name", nullptr)->tasks, SizeIs(2));
    kept->row.description = "";
    kept->row.partial = "file";
    dropped->gone = true;
    journal->touch(kept);
    journal->touch(dropped);
  }
  auto journal = Journal::open(path, nullptr);
  auto session = journal->loadSession("name", nullptr);
  ASSERT_TRUE(session);
  EXPECT_EQ(session->nextTask, 50u);
  ASSERT_THAT(session->tasks, SizeIs(1));
  EXPECT_EQ(session->tasks[0].description, "");
  EXPECT_EQ(session->tasks[0].partial, "file");
  EXPECT_EQ(session->tasks[0].request, "{}");
  EXPECT_THAT(journal->loadSession("other", nullptr)->tasks, SizeIs(0));
  journal->forgetSessions(std::time(nullptr) + 1, [](const std::string&) { return false; });
  EXPECT_THAT(journal->loadSession("name", nullptr)->tasks, SizeIs(0));
  EXPECT_EQ(journal->loadSession("name", nullptr)->nextTask, 50u);
}

TEST_F(StoreTest, RefusesANewerJournalAndSetsAGarbledOneAside) {
  auto path = directory / "journal.db";
  sqlite3* database = nullptr;
  sqlite3_open(path.c_str(), &database);
  sqlite3_exec(database, "PRAGMA user_version = 7; CREATE TABLE future(x)", nullptr, nullptr, nullptr);
  sqlite3_close(database);
  auto before = readFile(path);
  ErrorRef error;
  EXPECT_FALSE(Journal::open(path, &error));
  ASSERT_TRUE(error);
  EXPECT_THAT(error->localizedDescription(), HasSubstr("version 7"));
  EXPECT_EQ(readFile(path), before);

  const std::string garbage = "this is no database, however long one looks at it";
  std::ofstream(path) << garbage;
  EXPECT_TRUE(Journal::open(path, nullptr));
  std::size_t aside = 0;
  for (const auto& entry : std::filesystem::directory_iterator(directory.path()))
    aside +=
        entry.path().string().find(".damaged-") != std::string::npos && readFile(entry.path()) == garbage;
  EXPECT_EQ(aside, 1u);
}

// ---- Processes that die

/// Downloads of a session whose first process dies, and of the next one.
class KilledTest : public SessionTest {
protected:
  /// What the only task was told, after its end.
  RecordingSessionDelegate::TaskRecord record() {
    EXPECT_TRUE(delegate->waitForCompletions(1));
    const auto tasks = delegate->tasks();
    EXPECT_THAT(tasks, SizeIs(1));
    auto record = tasks.begin()->second;
    EXPECT_FALSE(record.completions.at(0));
    EXPECT_TRUE(record.content == content);
    return record;
  }

  /// To be made while this process has a single thread.
  ChildProcess firstProcess(std::shared_ptr<URLSessionDelegate> told = nullptr) {
    configuration.identifier = "films";
    return ChildProcess([&](const URLRequest& request) {
      downloadUntilKilled(configuration, optionsFor(folder), request, told);
    });
  }

  const std::string content = std::string(600'000, 'x');
};

TEST_F(KilledTest, AKilledProcessLosesNothingAndHoldsItsIdentifierWhileItLives) {
  auto child = firstProcess();
  FaultServer server;
  auto gate = makeGate();
  server.serve("/a", {content, "\"1\"", OldDate});
  server.once("/a", stallingAfter(400'000, gate));
  child.start(server.url("/a"));
  ASSERT_TRUE(gate->waitUntilReached(1));
  // The description of what is held is written a moment after the bytes.
  auto described = [&] {
    for (const auto& entry : std::filesystem::directory_iterator(folder + "/partials"))
      if (entry.path().extension() == ".json" &&
          readFile(entry.path()).find("[[0,400000]]") != std::string::npos)
        return true;
    return false;
  };
  while (!described())
    ::sched_yield();

  EXPECT_FALSE(tryOpen("films"));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), NSURLErrorBackgroundSessionInUseByAnotherProcess);
  EXPECT_THAT(error->localizedDescription(), HasSubstr(std::to_string(child.process())));

  child.kill();
  open("films");
  record();
  EXPECT_EQ(server.requests("/a").back().header("Range"), "bytes=400000-");
}

int finishedRows(const std::string& journal) {
  sqlite3* database = nullptr;
  sqlite3_stmt* statement = nullptr;
  int rows = -1;
  if (sqlite3_open_v2(journal.c_str(), &database, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
      sqlite3_prepare_v2(database, "SELECT count(*) FROM tasks WHERE state = 3", -1, &statement, nullptr) ==
          SQLITE_OK &&
      sqlite3_step(statement) == SQLITE_ROW)
    rows = sqlite3_column_int(statement, 0);
  sqlite3_finalize(statement);
  sqlite3_close(database);
  return rows;
}

/// Dies in the middle of being told, as far as the service can know.
class Stuck final : public URLSessionDelegate {
public:
  explicit Stuck(std::string mark) : _mark(std::move(mark)) {}
  void URLSessionDownloadTaskDidFinishDownloadingToURL(URLSession&, const DownloadTaskRef&,
                                                       const std::string&) override {
    std::ofstream(_mark) << "reached";
    ::pause();
  }

private:
  const std::string _mark;
};

TEST_F(KilledTest, AFinishedBodyIsToldAgainWhenTheProcessDiedInTheTelling) {
  const std::string mark = directory / "mark";
  auto child = firstProcess(std::make_shared<Stuck>(mark));
  FaultServer server;
  server.serve("/a", {content, "\"1\"", OldDate});
  child.start(server.url("/a"));
  // The journal follows a moment behind; what it does not hold yet a killed process does lose.
  while (!std::filesystem::exists(mark) || finishedRows(folder + "/journal.db") != 1)
    ::sched_yield();
  child.kill();

  open("films");
  ASSERT_TRUE(delegate->waitForCompletions(1));
  ASSERT_TRUE(delegate->waitForFinishedEvents());
  EXPECT_THAT(record().order, EndsWith("fc"));
  EXPECT_THAT(server.requests("/a"), SizeIs(1)) << "nothing is fetched again";
  close();
  EXPECT_TRUE(std::filesystem::is_empty(folder + "/finished"));
}

/// What a disk that takes no more looks like to the child, and how it is relieved.
struct FullDisk {
  const char* name;
  int code;
  std::function<bool(const std::string&directory)> prepare, fill, relieve;
};

bool limitFileSize(rlim_t limit) {
  rlimit now{};
  ::getrlimit(RLIMIT_FSIZE, &now);
  now.rlim_cur = std::min(limit, now.rlim_max);
  return ::setrlimit(RLIMIT_FSIZE, &now) == 0;
}

/// A small file system of the child's own over the service's directory.
bool mountSmall(const std::string& directory) {
  if (::unshare(CLONE_NEWNS) != 0 && ::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
    return false;
  return ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("tmpfs", directory.c_str(), "tmpfs", 0, "size=1m") == 0;
}

TEST_F(StoreTest, AFailedWriteIsOneClearErrorAndKeepsTheRest) {
  const auto nothing = [](const std::string&) { return true; };
  const FullDisk disks[] = {
      // The limit holds for the whole process, so a child meets it. SIGXFSZ must not end it.
      {"file size", EFBIG, [](auto&) { return ::signal(SIGXFSZ, SIG_IGN) != SIG_ERR; },
       [](auto&) { return limitFileSize(300'000); }, [](auto&) { return limitFileSize(RLIM_INFINITY); }},
      {"space", ENOSPC, mountSmall, nothing,
       [](const std::string& path) {
         return ::mount("tmpfs", path.c_str(), "tmpfs", MS_REMOUNT, "size=16m") == 0;
       }},
  };
  const std::string content(3'000'000, 'x');
  enum Ending { Passed = 0, NotPermitted = 77 };
  for (const FullDisk& disk : disks) {
    ChildProcess child([&](const URLRequest& request) {
      if (!disk.prepare(directory.path()))
        ::_exit(NotPermitted);
      auto configuration = URLSessionConfiguration::defaultSessionConfiguration();
      configuration.service = makeHTTPTransferService(optionsFor(directory.path()));
      auto delegate = std::make_shared<RecordingSessionDelegate>();
      auto session = URLSession::sessionWithConfiguration(configuration, delegate, nullptr);
      auto task = session->downloadTaskWithRequest(request);
      disk.fill(directory.path());
      task->resume();
      if (!delegate->waitForCompletions(1))
        ::_exit(10);
      disk.relieve(directory.path());
      auto failure = delegate->tasks().begin()->second.completions.at(0);
      if (!failure || failure->code() != NSURLErrorCannotWriteToFile || !failure->underlyingError() ||
          failure->underlyingError()->code() != disk.code)
        ::_exit(11);
      auto data = failure->value<DataRef>(NSURLSessionDownloadTaskResumeData);
      if (!data || !*data)
        ::_exit(12);
      task = session->downloadTaskWithResumeData(**data);
      task->resume();
      if (!delegate->waitForCompletions(2) || delegate->task(task->taskIdentifier()).content != content ||
          delegate->task(task->taskIdentifier()).resumedAt.size() != 1)
        ::_exit(13);
      ::_exit(Passed);
    });
    FaultServer server;
    server.serve("/a", {content, "\"1\"", OldDate});
    child.start(server.url("/a"));
    auto status = child.wait();
    EXPECT_TRUE(WIFEXITED(status)) << disk.name;
    if (WEXITSTATUS(status) == NotPermitted)
      GTEST_SKIP() << "mounting a small file system needs root or user namespaces";
    EXPECT_EQ(WEXITSTATUS(status), Passed) << disk.name;
  }
}

} // namespace
