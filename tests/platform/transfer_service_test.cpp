#include "tests/platform/TransferServiceFixture.h"

#include <future>
#include <malloc.h>
#include <mutex>

using namespace transfer_tests;

namespace {

TEST_F(TransferServiceTest, DownloadsAndCleansUp) {
  auto content = serveRandom("/a", 300'000);
  open();
  auto record = finish(start("/a"));
  expectWhole(record, content);
  EXPECT_EQ(record.progress.front().written, record.progress.front().total);
  EXPECT_EQ(record.progress.front().expected, 300'000);
  EXPECT_EQ(record.statesAtCompletion.front(), URLSessionTaskState::Completed);
  service->shutdown();
  EXPECT_EQ(filesBelow("partials") + filesBelow("finished"), 0u);
}

// ---- Redirects and credentials

TEST_F(TransferServiceTest, WritesAShortBodyToItsIntendedLocationWhenNothingStandsThere) {
  configuration.maximumLengthUnsynced = 1000;
  open();
  server.serve("/a", {"content", "\"1\"", OldDate});
  const auto longer = serveRandom("/longer", 1001);
  server.handle("/gone", FaultServer::reply(404, {}, "page"));
  const std::string place = directory / "place";
  const auto get = [&](const std::string& path, const std::string& location) {
    const auto task = session->downloadTaskWithRequest(request(path));
    task->setIntendedLocation(location);
    return finish(started(task));
  };
  expectWhole(get("/gone", place), "page");
  expectWhole(get("/longer", place), longer);
  EXPECT_FALSE(std::filesystem::exists(place));
  expectWhole(get("/a", directory / "no/such/place"), "content");

  const auto record = get("/a", place);
  expectWhole(record, "content");
  EXPECT_EQ(record.finishedAt.at(0), place);
  EXPECT_EQ(readFile(place), "content") << "it is the delegate's";
  directory.write("place", "mine");
  const auto other = get("/a", place);
  expectWhole(other, "content");
  EXPECT_NE(other.finishedAt.at(0), place);
  EXPECT_EQ(readFile(place), "mine");
  EXPECT_EQ(filesBelow("finished"), 0u);
}

TEST_F(TransferServiceTest, ADelegateMayShutTheServiceDown) {
  struct Closing : URLSessionDelegate {
    std::function<void()> close;
    void URLSessionDownloadTaskDidFinishDownloadingToURL(URLSession&, const DownloadTaskRef&,
                                                         const std::string&) override {
      close();
    }
  };
  configuration.maximumLengthUnsynced = 1000;
  server.serve("/a", {"content", "\"1\"", OldDate});
  server.serve("/held", {"content", "\"1\"", OldDate}, stallingAfter(3, stalled));
  for (int round = 0; round < 20; ++round) {
    open();
    const auto closing = std::make_shared<Closing>();
    std::promise<void> closed;
    std::once_flag once;
    closing->close = [&] {
      std::call_once(once, [&] {
        close();
        service.reset();
        configuration.service.reset();
        closed.set_value();
      });
    };
    session = URLSession::sessionWithConfiguration(configuration, closing, nullptr);
    start("/held");
    const auto first = session->downloadTaskWithRequest(request("/a"));
    const auto second = session->downloadTaskWithRequest(request("/a"));
    first->resume();
    second->resume();
    closed.get_future().wait();
  }
}

TEST_F(TransferServiceTest, FollowsRedirectsWithoutLeakingCredentials) {
  auto content = serveRandom("/end", 1000);
  server.handle("/near", FaultServer::redirect("/end"));
  server.handle("/far", FaultServer::redirect(server.url("/end", "localhost"), 307));
  server.handle("/circle", FaultServer::redirect("/circle2"));
  server.handle("/circle2", FaultServer::redirect("/circle"));
  server.handle("/file", FaultServer::redirect("file:///etc/passwd"));
  open();
  auto with = [&](const std::string& path) {
    auto made = request(path, "bytes=10-19");
    for (const char* name : {"Authorization", "Cookie", "X-Own"})
      made.setValueForHTTPHeaderField("secret", name);
    return started(session->downloadTaskWithRequest(made));
  };
  auto near = with("/near");
  expectWhole(finish(near), content.substr(10, 10));
  EXPECT_EQ(server.requests("/end").back().header("Authorization"), "secret");
  EXPECT_THAT(near->response()->url().absoluteString(), EndsWith("/end"));
  EXPECT_THAT(near->originalRequest().url().absoluteString(), EndsWith("/near"));
  expectWhole(finish(with("/far")), content.substr(10, 10));
  for (const char* name : {"Authorization", "Cookie", "X-Own"})
    EXPECT_EQ(server.requests("/end").back().header(name), "") << name;
  expectError(finish(start("/circle")), NSURLErrorHTTPTooManyRedirects);
  expectError(finish(start("/file")), NSURLErrorUnsupportedURL);
}

TEST_F(TransferServiceTest, AnswersChallenges) {
  auto content = serveRandom("/a", 1000);
  server.protect("/a", "me", "right");
  open();
  auto record = finish(start("/a"));
  ASSERT_THAT(record.challenges, SizeIs(1));
  EXPECT_EQ(record.challenges[0].scheme, "basic");
  EXPECT_EQ(record.challenges[0].realm, "test");
  EXPECT_EQ(record.progress.at(0).status, 401); // default handling: the refusal is the response
  EXPECT_THAT(record.order, EndsWith("fc"));

  delegate->credentials = [](const AuthenticationChallenge& challenge) {
    return URLCredential{"me", challenge.previousFailureCount == 0 ? "wrong" : "right"};
  };
  record = finish(start("/a"));
  expectWhole(record, content);
  EXPECT_THAT(record.challenges, SizeIs(2));
  EXPECT_EQ(record.progress.front().status, 200);

  Arrival<int> status;
  auto task = session->dataTaskWithRequest(request("/a"), [&](DataRef, auto response, ErrorRef) {
    status.arrive(response ? response->statusCode() : -1);
  });
  task->resume();
  EXPECT_EQ(status.wait().value_or(0), 200);
}

TEST_F(TransferServiceTest, SpeaksHTTP2OverOneTrustedConnection) {
  if (!NginxServer::isInstalled())
    GTEST_SKIP();
  auto content = randomBytes(100'000);
  directory.write("www/a", content);
  NginxServer secure(directory / "www", {.tls = true});
  open();
  expectError(finish(startURL(secure.url("/a"))), NSURLErrorServerCertificateUntrusted);
  openTrusting(secure);
  for (int i = 0; i < 20; ++i)
    startURL(secure.url("/a"));
  ASSERT_TRUE(delegate->waitForCompletions(20));
  for (const auto& [identifier, record] : delegate->tasks())
    expectWhole(record, content);
  std::set<std::uint64_t> connections;
  for (const auto& entry : secure.accessLog()) {
    EXPECT_EQ(entry.protocol, "HTTP/2.0");
    connections.insert(entry.connection);
  }
  EXPECT_THAT(connections, SizeIs(1));
}

// ---- Tasks

TEST_F(TransferServiceTest, SuspendKeepsTheBytesAndFreesTheConnection) {
  auto content = serveRandom("/a", 200'000);
  open();
  auto task = startStalled("/a", 120'000);
  task->suspend();
  EXPECT_EQ(task->state(), URLSessionTaskState::Suspended);
  EXPECT_EQ(task->countOfBytesReceived(), 120'000);
  waitForOpenConnections(0);
  task->resume();
  auto record = finish(task);
  expectWhole(record, content);
  EXPECT_THAT(record.resumedAt, SizeIs(0));
  EXPECT_EQ(rangeAskedLast(), "bytes=120000-");
}

TEST_F(TransferServiceTest, CancellingLeavesNothingBehind) {
  serveRandom("/a", 200'000);
  open();
  auto running = startStalled("/a", 120'000);
  running->cancel();
  expectError(finish(running), NSURLErrorCancelled);
  EXPECT_EQ(filesBelow("partials"), 0u);
}

TEST_F(TransferServiceTest, DataTasks) {
  server.serve("/a", {"hello", "\"1\"", OldDate});
  server.handle("/moved", FaultServer::redirect("/a"));
  server.handle("/none", FaultServer::reply(404, {{"Content-Length", "2"}}, "no"));
  configuration.maximumDataLength = 5;
  open();
  auto load = [&](URLSession& from, const std::string& path) {
    Arrival<std::string> result;
    auto task = from.dataTaskWithRequest(request(path), [&](DataRef data, auto response, ErrorRef failure) {
      result.arrive(failure ? std::to_string(failure->code())
                            : std::to_string(response->statusCode()) + " " +
                                  std::string(data->begin(), data->end()));
    });
    task->resume();
    return result.wait().value_or("nothing");
  };
  EXPECT_EQ(load(*session, "/a"), "200 hello");
  EXPECT_EQ(load(*session, "/moved"), "200 hello");
  EXPECT_EQ(load(*session, "/none"), "404 no");
  server.serve("/a", {"longer", "\"1\"", OldDate});
  EXPECT_EQ(load(*session, "/a"), std::to_string(NSURLErrorDataLengthExceedsMaximum));
  auto shared = service->sharedSession();
  EXPECT_EQ(load(*shared, "/a"), "200 longer");
  EXPECT_EQ(shared, service->sharedSession());

  // A session that goes takes its tasks along, but answers for them.
  Arrival<std::int64_t> code;
  auto task = session->dataTaskWithRequest(
      request("/a"), [&](DataRef, auto, ErrorRef failure) { code.arrive(failure ? failure->code() : 0); });
  session.reset();
  EXPECT_EQ(code.wait().value_or(0), NSURLErrorCancelled);
}

TEST_F(TransferServiceTest, KeepsToTheCapAndReusesConnections) {
  auto gate = makeGate();
  server.serve("/held", {randomBytes(1000), "\"1\"", OldDate}, stallingAfter(10, gate));
  const auto content = serveRandom("/a", 1000);
  configuration.HTTPMaximumConnectionsPerHost = 3;
  configuration.timeoutIntervalForRequest = std::chrono::seconds(30);
  open();
  std::vector<DownloadTaskRef> tasks;
  for (int i = 0; i < 3; ++i)
    tasks.push_back(start("/held"));
  ASSERT_TRUE(gate->waitUntilReached(3));
  for (int i = 0; i < 20; ++i)
    tasks.push_back(start("/a"));
  gate->open();
  ASSERT_TRUE(delegate->waitForCompletions(tasks.size()));
  for (const auto& [identifier, record] : delegate->tasks())
    expectWhole(record, content);
  EXPECT_EQ(server.peakRequests(), 3u);
  EXPECT_LE(server.connections(), 3u);
}

TEST_F(TransferServiceTest, TasksThatWaitCostLittle) {
  open();
  std::vector<DownloadTaskRef> tasks;
  tasks.reserve(10'000);
  const auto before = ::mallinfo2();
  for (int i = 0; i < 10'000; ++i)
    tasks.push_back(session->downloadTaskWithRequest(request("/" + std::to_string(i))));
  const auto after = ::mallinfo2(); // tells nothing under a sanitizer
  EXPECT_LT((after.uordblks - before.uordblks) / tasks.size(), 2'000u);
  session->invalidateAndCancel();
  ASSERT_TRUE(delegate->waitForCompletions(tasks.size()));
  tasks.clear();

  auto gate = makeGate();
  server.serve("/held", {randomBytes(20'000), "\"1\"", OldDate}, stallingAfter(10'000, gate));
  configuration.HTTPMaximumConnectionsPerHost = 100;
  open();
  for (int i = 0; i < 100; ++i)
    tasks.push_back(start("/held"));
  for (const auto& task : tasks)
    ASSERT_TRUE(delegate->waitForProgress(task->taskIdentifier(), 10'000));
  for (const auto& task : tasks)
    task->suspend();
  waitForOpenConnections(0);
  gate->open();
  for (const auto& task : tasks)
    task->resume();
  ASSERT_TRUE(delegate->waitForCompletions(100));
}

// ---- Sessions

TEST_F(TransferServiceTest, ABackgroundSessionSurvives) {
  auto content = serveRandom("/a", 200'000);
  open("name");
  auto running = startStalled("/a", 120'000);
  running->setTaskDescription("the running one");
  auto suspended = session->downloadTaskWithRequest(request("/b"));
  suspended->setTaskDescription("the other");
  const auto identifier = running->taskIdentifier(), secondIdentifier = suspended->taskIdentifier();
  running.reset();
  suspended.reset();
  restart("name");
  ASSERT_TRUE(delegate->waitForFinishedEvents());
  ASSERT_TRUE(delegate->waitForCompletions(1));
  auto record = delegate->task(identifier);
  expectWhole(record, content);
  EXPECT_EQ(rangeAskedLast(), "bytes=120000-");
  Arrival<std::vector<DownloadTaskRef>> listed;
  session->getTasksWithCompletionHandler([&](auto tasks) { listed.arrive(std::move(tasks)); });
  auto tasks = listed.wait().value();
  ASSERT_THAT(tasks, SizeIs(1));
  EXPECT_EQ(tasks[0]->taskDescription(), "the other");
  EXPECT_EQ(tasks[0]->state(), URLSessionTaskState::Suspended);
  EXPECT_EQ(tasks[0]->taskIdentifier(), secondIdentifier);
  EXPECT_GT(session->downloadTaskWithRequest(request("/c"))->taskIdentifier(), secondIdentifier);
}

TEST_F(TransferServiceTest, ANewRequestAdoptsAnOrphan) {
  auto content = serveRandom("/a", 200'000);
  open("gone");
  startStalled("/a", 120'000);
  restart("another");
  // Another range of the same resource is another body.
  expectWhole(finish(start("/a", "bytes=0-9")), content.substr(0, 10));
  EXPECT_EQ(rangeAskedLast(), "bytes=0-9");
  auto record = finish(start("/a"));
  expectWhole(record, content);
  EXPECT_THAT(record.resumedAt, testing::ElementsAre(testing::Pair(120'000, 200'000)));
}

TEST_F(TransferServiceTest, SessionsComeAndGoWhileEventsFly) {
  serveRandom("/a", 20'000);
  open();
  for (int i = 0; i < 300; ++i) {
    auto brief = URLSession::sessionWithConfiguration(configuration, delegate, nullptr, nullptr);
    for (int j = 0; j < 3; ++j)
      brief->downloadTaskWithRequest(request("/a"))->resume();
    if (i % 3 == 0)
      brief->invalidateAndCancel();
  }
  service->shutdown();
  session.reset();
  EXPECT_TRUE(delegate->waitForCompletions(900));
  EXPECT_EQ(delegate->completions(), 900u);
}

} // namespace
