// What outlives the process: the journal, the partial files, the locks.

#include "tests/platform/ChildProcess.h"
#include "tests/platform/TransferServiceFixture.h"

#include "platform/transfer/internal/Journal.h"
#include "platform/transfer/internal/PartialStore.h"

#include <filesystem>
#include <fstream>
#include <sqlite3.h>
#include <unistd.h>

using namespace platform::transfer;
using namespace transfer_tests;

namespace {

class StoreTest : public testing::Test {
protected:
  StoreTest() : locks(directory / "locks"), store(directory.path(), "p-1", locks) {
    for (const char* name : {"locks", "partials", "finished"})
      std::filesystem::create_directory(directory / name);
  }

  /// A closed partial file of 10 bytes; answers its name.
  std::string leave(PartialDescription description) {
    int failure = 0;
    auto file = store.create(PartialStore::keyOf("GET", "http://host/a", ""), &failure);
    EXPECT_EQ(file->write(0, "0123456789", 10), 0);
    description.url = "http://host/a";
    description.validators.etag = description.validators.etag.empty() ? "\"1\"" : description.validators.etag;
    EXPECT_EQ(file->settle(description), 0);
    return file->name();
  }
  std::optional<Claim> adopt() { return store.adopt("GET", "http://host/a", ""); }

  TemporaryDirectory directory;
  OwnerLocks locks;
  PartialStore store;
};

TEST_F(StoreTest, AdoptsOnlyWhatNobodyHas) {
  int holder = 0, failure = 0;
  auto lock = locks.take("s-1", &holder, &failure);
  ASSERT_TRUE(lock);
  EXPECT_FALSE(locks.take("s-1", &holder, &failure));
  EXPECT_EQ(holder, ::getpid());
  PartialDescription description;
  description.owner = "s-1";
  auto name = leave(description);
  EXPECT_FALSE(adopt());
  EXPECT_FALSE(store.reclaim(name, "s-2", "GET", "http://host/a", ""));
  EXPECT_FALSE(store.reclaim(name, "s-1", "GET", "http://host/b", ""));
  lock.reset();
  auto claim = adopt();
  ASSERT_TRUE(claim);
  EXPECT_EQ(claim->file->held().total(), 10);
  EXPECT_FALSE(adopt()); // it is open
  int another = 0;
  EXPECT_NE(store.create(PartialStore::keyOf("GET", "http://host/a", ""), &another)->name(), name);
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
  EXPECT_EQ(claim->file->flush(), 0);
  EXPECT_EQ(readFile(claim->file->path()), "0123xy");
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
  int failure = 0;
  auto file = store.create("key", &failure);
  file->write(0, "old", 3);
  PartialDescription description;
  description.validators.etag = "\"old\"";
  auto generation = file->generation();
  EXPECT_EQ(file->syncAndDescribe(description, generation), 0);
  EXPECT_EQ(file->clear(), 0);
  file->write(0, "new", 3);
  EXPECT_EQ(file->syncAndDescribe(description, generation), 0); // was under way when it was cleared
  EXPECT_FALSE(store.peek(file->name()));
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

TEST_F(StoreTest, AKilledProcessLosesNothingAndHoldsItsIdentifierWhileItLives) {
  auto configuration = URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier("films");
  ChildProcess child([&](const URLRequest& request) {
    configuration.service = makeHTTPTransferService(optionsFor(directory.path()));
    auto session = URLSession::sessionWithConfiguration(configuration, {}, nullptr);
    auto task = session->downloadTaskWithRequest(request);
    task->setTaskDescription("kept");
    task->resume();
    ::pause();
  });
  const std::string content(600'000, 'x');
  FaultServer server;
  auto gate = makeGate();
  server.serve("/a", {content, "\"1\"", OldDate});
  server.once("/a", stallingAfter(400'000, gate));
  child.start(server.url("/a"));
  ASSERT_TRUE(gate->waitUntilReached(1));
  // The description of what is held is written a moment after the bytes.
  auto described = [&] {
    for (const auto& entry : std::filesystem::directory_iterator(directory / "partials"))
      if (entry.path().extension() == ".json" &&
          readFile(entry.path()).find("[[0,400000]]") != std::string::npos)
        return true;
    return false;
  };
  ASSERT_TRUE(eventually(described));

  auto service = makeHTTPTransferService(optionsFor(directory.path()));
  configuration.service = service;
  auto delegate = std::make_shared<RecordingSessionDelegate>();
  ErrorRef error;
  EXPECT_FALSE(URLSession::sessionWithConfiguration(configuration, delegate, nullptr, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), NSURLErrorBackgroundSessionInUseByAnotherProcess);
  EXPECT_THAT(error->localizedDescription(), testing::HasSubstr(std::to_string(child.process())));

  child.kill();
  auto session = URLSession::sessionWithConfiguration(configuration, delegate, nullptr, &error);
  ASSERT_TRUE(session) << error->localizedDescription();
  ASSERT_TRUE(delegate->waitForCompletions(1));
  auto record = delegate->tasks().begin()->second;
  EXPECT_FALSE(record.completions.at(0));
  EXPECT_TRUE(record.content == content);
  EXPECT_EQ(server.requests("/a").back().header("Range"), "bytes=400000-");
  service->shutdown();
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

TEST_F(StoreTest, AFinishedBodyIsToldAgainWhenTheProcessDiedInTheTelling) {
  auto configuration = URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier("films");
  const std::string mark = directory / "mark";
  ChildProcess child([&](const URLRequest& request) {
    configuration.service = makeHTTPTransferService(optionsFor(directory.path()));
    auto delegate = std::make_shared<Stuck>(mark);
    auto session = URLSession::sessionWithConfiguration(configuration, delegate, nullptr);
    auto task = session->downloadTaskWithRequest(request);
    task->setTaskDescription("kept");
    task->resume();
    ::pause();
  });
  const std::string content(600'000, 'x');
  FaultServer server;
  server.serve("/a", {content, "\"1\"", OldDate});
  child.start(server.url("/a"));
  // The journal follows a moment behind; what it does not hold yet a killed process does lose.
  ASSERT_TRUE(eventually(
      [&] { return std::filesystem::exists(mark) && finishedRows(directory / "journal.db") == 1; }));
  child.kill();

  auto service = makeHTTPTransferService(optionsFor(directory.path()));
  configuration.service = service;
  auto delegate = std::make_shared<RecordingSessionDelegate>();
  ErrorRef error;
  auto session = URLSession::sessionWithConfiguration(configuration, delegate, nullptr, &error);
  ASSERT_TRUE(session) << error->localizedDescription();
  ASSERT_TRUE(delegate->waitForCompletions(1));
  ASSERT_TRUE(delegate->waitForFinishedEvents());
  auto tasks = delegate->tasks();
  ASSERT_THAT(tasks, SizeIs(1));
  auto record = tasks.begin()->second;
  EXPECT_FALSE(record.completions.at(0));
  EXPECT_THAT(record.order, testing::EndsWith("fc"));
  EXPECT_TRUE(record.content == content);
  EXPECT_THAT(server.requests("/a"), SizeIs(1)) << "nothing is fetched again";
  session.reset();
  service->shutdown();
  EXPECT_TRUE(std::filesystem::is_empty(directory / "finished"));
}

} // namespace
