#include "tests/platform/TransferServiceFixture.h"

#include <malloc.h>

using namespace transfer_tests;

namespace {

TEST_F(TransferServiceTest, DownloadsAndCleansUp) {
  auto content = randomBytes(300'000);
  server.serve("/a", {content, "\"1\"", OldDate});
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

TEST_F(TransferServiceTest, FollowsRedirectsWithoutLeakingCredentials) {
  auto content = randomBytes(1000);
  server.serve("/end", {content, "\"1\"", OldDate});
  server.handle("/near", FaultServer::redirect("/end"));
  server.handle("/far", FaultServer::redirect(server.url("/end", "localhost"), 307));
  server.handle("/circle", FaultServer::redirect("/circle2"));
  server.handle("/circle2", FaultServer::redirect("/circle"));
  server.handle("/file", FaultServer::redirect("file:///etc/passwd"));
  open();
  auto with = [&](const std::string& path) {
    auto made = request(path, "bytes=10-19");
    made.setValueForHTTPHeaderField("secret", "Authorization");
    made.setValueForHTTPHeaderField("secret", "Cookie");
    made.setValueForHTTPHeaderField("secret", "X-Own");
    auto task = session->downloadTaskWithRequest(made);
    task->resume();
    return task;
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
  auto content = randomBytes(1000);
  server.serve("/a", {content, "\"1\"", OldDate});
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
  NginxOptions options;
  options.tls = true;
  NginxServer secure(directory / "www", options);
  open();
  auto startSecure = [&] {
    auto task = session->downloadTaskWithRequest(URLRequest(*URL::URLWithString(secure.url("/a"))));
    task->resume();
    return task;
  };
  expectError(finish(startSecure()), NSURLErrorServerCertificateUntrusted);

  session.reset();
  service->shutdown();
  auto trusting = optionsFor(directory / "service");
  trusting.certificateAuthorityFile = secure.certificateFile();
  service = makeHTTPTransferService(trusting);
  open();
  for (int i = 0; i < 20; ++i)
    startSecure();
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
  auto gate = makeGate();
  auto content = randomBytes(200'000);
  server.serve("/a", {content, "\"1\"", OldDate});
  server.once("/a", stallingAfter(120'000, gate));
  open();
  auto task = start("/a");
  ASSERT_TRUE(delegate->waitForProgress(task->taskIdentifier(), 120'000));
  task->suspend();
  EXPECT_EQ(task->state(), URLSessionTaskState::Suspended);
  EXPECT_EQ(task->countOfBytesReceived(), 120'000);
  while (server.openConnections() > 0)
    std::this_thread::yield();
  task->resume();
  auto record = finish(task);
  expectWhole(record, content);
  EXPECT_THAT(record.resumedAt, SizeIs(0));
  EXPECT_EQ(server.requests("/a").back().header("Range"), "bytes=120000-");
}

TEST_F(TransferServiceTest, CancellingCompletesOnceInEveryState) {
  auto gate = makeGate();
  server.serve("/a", {randomBytes(200'000), "\"1\"", OldDate});
  const Fault stall = stallingAfter(120'000, gate);
  open();
  auto created = session->downloadTaskWithRequest(request("/a"));
  created->cancel();
  created->cancel();
  expectError(finish(created), NSURLErrorCancelled);

  server.once("/a", stall);
  auto running = start("/a");
  ASSERT_TRUE(delegate->waitForProgress(running->taskIdentifier(), 120'000));
  running->cancel();
  expectError(finish(running), NSURLErrorCancelled);
  EXPECT_EQ(filesBelow("partials"), 0u);

  server.once("/a", stall);
  auto kept = start("/a");
  ASSERT_TRUE(delegate->waitForProgress(kept->taskIdentifier(), 120'000));
  Arrival<DataRef> data;
  kept->cancelByProducingResumeData([&](DataRef made) { data.arrive(std::move(made)); });
  auto record = finish(kept);
  expectError(record, NSURLErrorCancelled);
  ASSERT_TRUE(data.hasArrived());
  ASSERT_TRUE(data.wait().value());
  EXPECT_EQ(data.wait().value(), resumeDataOf(record));
  auto resumed = session->downloadTaskWithResumeData(*data.wait().value());
  resumed->resume();
  expectWhole(finish(resumed), randomBytes(200'000));

  Arrival<DataRef> late;
  resumed->cancelByProducingResumeData([&](DataRef made) { late.arrive(std::move(made)); });
  EXPECT_FALSE(late.wait().value());
}

TEST_F(TransferServiceTest, DataTasks) {
  server.serve("/a", {"hello", "\"1\"", OldDate});
  server.handle("/moved", FaultServer::redirect("/a"));
  server.handle("/none", FaultServer::reply(404, {{"Content-Length", "2"}}, "no"));
  configuration.maximumDataLength = 5;
  open();
  auto load = [&](URLSession& from, const std::string& path) {
    Arrival<std::string> result;
    auto task = from.dataTaskWithRequest(request(path), [&](DataRef data, auto response, ErrorRef error) {
      result.arrive(error ? std::to_string(error->code())
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
      request("/a"), [&](DataRef, auto, ErrorRef error) { code.arrive(error ? error->code() : 0); });
  session.reset();
  EXPECT_EQ(code.wait().value_or(0), NSURLErrorCancelled);
}

TEST_F(TransferServiceTest, KeepsToTheCapAndReusesConnections) {
  auto gate = makeGate();
  server.serve("/held", {randomBytes(1000), "\"1\"", OldDate}, stallingAfter(10, gate));
  server.serve("/a", {randomBytes(1000), "\"1\"", OldDate});
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
    expectWhole(record, randomBytes(1000));
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
  while (server.openConnections() > 0)
    std::this_thread::yield();
  gate->open();
  for (const auto& task : tasks)
    task->resume();
  ASSERT_TRUE(delegate->waitForCompletions(100));
}

// ---- Sessions

TEST_F(TransferServiceTest, InvalidationEndsEverythingOnce) {
  auto gate = makeGate();
  server.serve("/held", {randomBytes(1000), "\"1\"", OldDate}, stallingAfter(10, gate));
  open("name");
  auto running = start("/held");
  auto waiting = session->downloadTaskWithRequest(request("/held"));
  ASSERT_TRUE(delegate->waitForProgress(running->taskIdentifier(), 10));
  ErrorRef error;
  EXPECT_FALSE(URLSession::sessionWithConfiguration(configuration, delegate, nullptr, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), NSURLErrorBackgroundSessionInUseByAnotherProcess);
  EXPECT_THAT(error->localizedDescription(), HasSubstr(std::to_string(::getpid())));
  session->invalidateAndCancel();
  auto late = session->downloadTaskWithRequest(request("/held"));
  ASSERT_TRUE(delegate->waitForCompletions(3));
  ASSERT_TRUE(delegate->waitForInvalid());
  for (const auto& [identifier, record] : delegate->tasks())
    expectError(record, NSURLErrorCancelled);
  auto next = URLSession::sessionWithConfiguration(configuration, delegate, nullptr, &error);
  ASSERT_TRUE(next);
  Arrival<std::size_t> count;
  next->getTasksWithCompletionHandler(
      [&](std::vector<DownloadTaskRef> tasks) { count.arrive(tasks.size()); });
  EXPECT_EQ(count.wait().value_or(99), 0u);
}

TEST_F(TransferServiceTest, ABackgroundSessionSurvives) {
  auto gate = makeGate();
  auto content = randomBytes(200'000);
  server.serve("/a", {content, "\"1\"", OldDate});
  server.once("/a", stallingAfter(120'000, gate));
  open("name");
  auto running = start("/a");
  running->setTaskDescription("the running one");
  auto suspended = session->downloadTaskWithRequest(request("/b"));
  suspended->setTaskDescription("the other");
  ASSERT_TRUE(delegate->waitForProgress(running->taskIdentifier(), 120'000));
  auto identifier = running->taskIdentifier();
  running.reset();
  auto secondIdentifier = suspended->taskIdentifier();
  suspended.reset();
  restart("name");
  ASSERT_TRUE(delegate->waitForFinishedEvents());
  ASSERT_TRUE(delegate->waitForCompletions(1));
  auto record = delegate->task(identifier);
  expectWhole(record, content);
  EXPECT_EQ(server.requests("/a").back().header("Range"), "bytes=120000-");
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
  auto content = randomBytes(200'000);
  auto gate = makeGate();
  server.serve("/a", {content, "\"1\"", OldDate});
  server.once("/a", stallingAfter(120'000, gate));
  open("gone");
  auto task = start("/a");
  ASSERT_TRUE(delegate->waitForProgress(task->taskIdentifier(), 120'000));
  task.reset();
  restart("another");
  // Another range of the same resource is another body.
  expectWhole(finish(start("/a", "bytes=0-9")), content.substr(0, 10));
  EXPECT_EQ(server.requests("/a").back().header("Range"), "bytes=0-9");
  auto record = finish(start("/a"));
  expectWhole(record, content);
  EXPECT_THAT(record.resumedAt, testing::ElementsAre(testing::Pair(120'000, 200'000)));
}

TEST_F(TransferServiceTest, NewTasksAfterShutdownCompleteAtOnce) {
  open();
  service->shutdown();
  auto task = session->downloadTaskWithRequest(request("/a"));
  task->resume();
  expectError(finish(task), NSURLErrorCancelled);
}

TEST_F(TransferServiceTest, SessionsComeAndGoWhileEventsFly) {
  server.serve("/a", {randomBytes(20'000), "\"1\"", OldDate});
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
