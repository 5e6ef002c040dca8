// What servers and connections do wrong, and what the service makes of it.

#include "tests/platform/TransferServiceFixture.h"

using namespace transfer_tests;

namespace {

TEST_F(TransferServiceTest, GoesOnByRangeAfterALostConnection) {
  auto content = randomBytes(500'000);
  server.serve("/a", {content, "\"1\"", OldDate});
  Fault cut;
  cut.cutAfter = 200'000;
  server.once("/a", cut);
  cut.cut = Fault::Cut::Reset;
  cut.cutAfter = 100'000;
  server.once("/a", cut);
  open();
  expectWhole(finish(start("/a")), content);
  auto requests = server.requests("/a");
  ASSERT_GE(requests.size(), 3u);
  EXPECT_EQ(requests[1].header("Range"), "bytes=200000-");
  EXPECT_EQ(requests[1].header("If-Range"), "\"1\"");
}

TEST_F(TransferServiceTest, StartsAgainWithoutAValidator) {
  auto content = randomBytes(200'000);
  server.serve("/a", {content, "W/\"1\"", ""});
  Fault cut;
  cut.cutAfter = 100'000;
  server.once("/a", cut);
  open();
  expectWhole(finish(start("/a")), content);
  EXPECT_EQ(server.requests("/a").at(1).header("Range"), "");
}

TEST_F(TransferServiceTest, NeverMixesTwoVersions) {
  auto before = randomBytes(300'000, 1), after = randomBytes(280'000, 2);
  server.serve("/a", {before, "\"1\"", OldDate});
  auto data = breakAt("/a", 150'000);
  ASSERT_TRUE(data);
  server.serve("/a", {after, "\"2\"", OldDate});
  auto task = session->downloadTaskWithResumeData(*data);
  EXPECT_EQ(task->countOfBytesReceived(), 150'000);
  task->resume();
  auto record = finish(task);
  expectWhole(record, after);
  EXPECT_THAT(record.resumedAt, SizeIs(0));
  EXPECT_EQ(record.progress.front().written, record.progress.front().total);
}

TEST_F(TransferServiceTest, ResumesFromData) {
  auto content = randomBytes(300'000);
  server.serve("/a", {content, "\"1\"", OldDate});
  auto data = breakAt("/a", 150'000);
  ASSERT_TRUE(data);
  auto task = session->downloadTaskWithResumeData(*data);
  task->resume();
  auto record = finish(task);
  expectWhole(record, content);
  EXPECT_THAT(record.resumedAt, testing::ElementsAre(testing::Pair(150'000, 300'000)));
  EXPECT_THAT(record.order, StartsWith("rw"));
  EXPECT_EQ(record.progress.front().status, 206);
  EXPECT_EQ(record.progress.front().written, record.progress.front().total);

  // Used up: the file is gone, so the next one starts from zero.
  auto again = session->downloadTaskWithResumeData(*data);
  again->resume();
  expectWhole(finish(again), content);
  EXPECT_EQ(server.requests("/a").back().header("Range"), "");

  auto garbled = session->downloadTaskWithResumeData(Data{1, 2, 3});
  garbled->resume();
  expectError(finish(garbled), NSURLErrorUnknown);
}

TEST_F(TransferServiceTest, KeepsTheCallersRangeRight) {
  auto content = randomBytes(300'000);
  server.serve("/a", {content, "\"1\"", OldDate});
  struct Case {
    const char *range, *resumed;
    std::size_t first, count;
  };
  for (auto& c : {Case{"bytes=1000-200999", "bytes=51000-200999", 1000, 200'000},
                  Case{"bytes=100000-999999", "bytes=150000-999999", 100'000, 200'000},
                  Case{"bytes=100000-", "bytes=150000-", 100'000, 200'000},
                  Case{"bytes=-100000", "bytes=250000-", 200'000, 100'000}}) {
    auto data = breakAt("/a", 50'000, c.range);
    ASSERT_TRUE(data) << c.range;
    auto task = session->downloadTaskWithResumeData(*data);
    task->resume();
    expectWhole(finish(task), content.substr(c.first, c.count));
    EXPECT_EQ(server.requests("/a").back().header("Range"), c.resumed);
  }
  // A server that does not know ranges: the caller's business.
  Fault whole;
  whole.ignoreRange = true;
  server.once("/a", whole);
  auto record = finish(start("/a", "bytes=5-9"));
  expectWhole(record, content);
  EXPECT_EQ(record.progress.front().status, 200);
}

TEST_F(TransferServiceTest, SeesThroughWrongParts) {
  auto content = randomBytes(300'000);
  server.serve("/a", {content, "\"1\"", OldDate});
  auto wrong = [](auto change) {
    Fault fault;
    change(fault);
    return fault;
  };
  std::vector<Fault> faults{
      wrong([](Fault& f) { f.contentRange = "bytes 100001-299999/300000"; }),
      wrong([](Fault& f) { f.contentRange = "bytes 100000-299998/300000"; }),
      wrong([](Fault& f) { f.contentRange = "bytes 100000-299999/300001"; }),
      wrong([](Fault& f) { f.contentRange = "nonsense"; }),
      wrong([](Fault& f) { f.headers["ETag"] = "\"other\""; }),
      wrong([](Fault& f) { f.status = 416; }),
  };
  for (auto& fault : faults) {
    auto data = breakAt("/a", 100'000);
    ASSERT_TRUE(data);
    server.once("/a", fault);
    auto task = session->downloadTaskWithResumeData(*data);
    task->resume();
    expectWhole(finish(task), content);
    EXPECT_EQ(server.requests("/a").back().header("Range"), "");
  }
  // A part although the whole was asked for, again and again.
  Fault stubborn;
  stubborn.status = 206;
  server.serve("/b", {content, "\"1\"", OldDate}, stubborn);
  expectError(finish(start("/b")), NSURLErrorBadServerResponse);
}

TEST_F(TransferServiceTest, AsksByDateWhenTheTagIsNotHonoured) {
  auto content = randomBytes(300'000);
  server.serve("/a", {content, "\"1\"", OldDate});
  auto data = breakAt("/a", 100'000);
  ASSERT_TRUE(data);
  Fault whole;
  whole.ignoreRange = true;
  server.once("/a", whole);
  auto task = session->downloadTaskWithResumeData(*data);
  task->resume();
  auto record = finish(task);
  expectWhole(record, content);
  EXPECT_THAT(record.resumedAt, SizeIs(1));
  EXPECT_EQ(server.requests("/a").back().header("If-Range"), OldDate);
}

TEST_F(TransferServiceTest, AcceptsNoShortAndNoLongBody) {
  server.serve("/a", {randomBytes(100'000), "", ""});
  configuration.retryLimit = 0;
  open();
  Fault fault;
  fault.headers["Content-Length"] = "100001";
  fault.closeAfter = true;
  server.once("/a", fault);
  expectError(finish(start("/a")), NSURLErrorNetworkConnectionLost);
  fault = {};
  fault.chunked = true;
  fault.cutAfter = 50'000;
  server.once("/a", fault);
  expectError(finish(start("/a")), NSURLErrorNetworkConnectionLost);
  for (std::size_t announced : {4, 30'000}) {
    server.once("/a", [announced](const ServerRequest&, ServerConnection& connection) {
      connection.send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(announced) + "\r\n\r\n" +
                      randomBytes(announced + 10));
    });
    expectError(finish(start("/a")), NSURLErrorBadServerResponse);
  }
  expectWhole(finish(start("/a")), randomBytes(100'000));
}

TEST_F(TransferServiceTest, ReportsStatusesWithTheirBodies) {
  server.handle("/404", FaultServer::reply(404, {{"Content-Length", "9"}}, "not there"));
  server.handle("/500", FaultServer::reply(500, {{"Content-Length", "0"}}));
  server.handle("/304", FaultServer::reply(304, {{"ETag", "\"1\""}}));
  server.handle("/503", FaultServer::reply(503, {{"Content-Length", "4"}, {"Retry-After", "3600"}}, "busy"));
  server.handle("/429", FaultServer::reply(429, {{"Content-Length", "0"}}));
  open();
  struct Case {
    int status;
    const char* body;
  };
  for (auto& c : {Case{404, "not there"}, Case{500, ""}, Case{304, ""}, Case{503, "busy"}, Case{429, ""}}) {
    auto task = start("/" + std::to_string(c.status));
    auto record = finish(task);
    expectWhole(record, c.body);
    EXPECT_EQ(record.progress.front().status, c.status);
    EXPECT_EQ(record.progress.front().total, static_cast<std::int64_t>(std::string(c.body).size()));
    EXPECT_EQ(task->response()->statusCode(), c.status);
  }
  EXPECT_THAT(server.requests(), SizeIs(5));
}

TEST_F(TransferServiceTest, ErrorPagesLeaveWhatIsHeldAlone) {
  auto content = randomBytes(300'000);
  server.serve("/a", {content, "\"1\"", OldDate});
  auto data = breakAt("/a", 100'000);
  server.once("/a", FaultServer::reply(500, {{"Content-Length", "5"}, {"ETag", "\"1\""}}, "sorry"));
  auto task = session->downloadTaskWithResumeData(*data);
  task->resume();
  auto page = finish(task);
  expectWhole(page, "sorry");
  EXPECT_THAT(page.resumedAt, SizeIs(0));
  auto record = finish(start("/a"));
  expectWhole(record, content);
  EXPECT_EQ(server.requests("/a").back().header("Range"), "bytes=100000-");
}

TEST_F(TransferServiceTest, WaitsAndTriesAgainWhenToldWhen) {
  auto content = randomBytes(1000);
  server.serve("/a", {content, "\"1\"", OldDate});
  for (int status : {503, 429})
    server.once("/a", FaultServer::reply(status, {{"Content-Length", "4"}, {"Retry-After", "0"}}, "busy"));
  open();
  auto record = finish(start("/a"));
  expectWhole(record, content);
  EXPECT_EQ(record.progress.front().status, 200);
  EXPECT_THAT(server.requests(), SizeIs(3));
}

TEST_F(TransferServiceTest, TriesAtOnceWhenAnIdleConnectionWasClosed) {
  auto content = randomBytes(1000);
  Fault close;
  close.closeAfter = true;
  server.serve("/a", {content, "\"1\"", OldDate}, close);
  configuration.retryLimit = 0;
  open();
  for (int i = 0; i < 5; ++i)
    expectWhole(finish(start("/a")), content);
}

TEST_F(TransferServiceTest, StallsEndWithResumeData) {
  auto gate = makeGate();
  auto content = randomBytes(200'000);
  server.serve("/a", {content, "\"1\"", OldDate});
  server.once("/a", stallingAfter(70'000, gate));
  configuration.timeoutIntervalForRequest = std::chrono::milliseconds(300);
  open();
  auto record = finish(start("/a"));
  expectError(record, NSURLErrorTimedOut);
  auto data = resumeDataOf(record);
  ASSERT_TRUE(data);
  auto task = session->downloadTaskWithResumeData(*data);
  task->resume();
  record = finish(task);
  expectWhole(record, content);
  EXPECT_EQ(record.resumedAt.at(0).first, 70'000);
}

TEST_F(TransferServiceTest, AServersRequestLimitIsNoFailure) {
  if (!NginxServer::isInstalled())
    GTEST_SKIP();
  const auto content = randomBytes(50'000);
  directory.write("www/a", content);
  NginxOptions options;
  options.tls = true;
  options.keepaliveRequests = 3; // then GOAWAY, and refused streams for what is on its way
  NginxServer secure(directory / "www", options);
  auto trusting = optionsFor(directory / "service");
  trusting.certificateAuthorityFile = secure.certificateFile();
  service = makeHTTPTransferService(trusting);
  configuration.retryLimit = 0;
  open();
  for (int i = 0; i < 40; ++i)
    session->downloadTaskWithRequest(URLRequest(*URL::URLWithString(secure.url("/a"))))->resume();
  ASSERT_TRUE(delegate->waitForCompletions(40));
  for (const auto& [identifier, record] : delegate->tasks())
    expectWhole(record, content);
}

TEST_F(TransferServiceTest, NamesConnectionFailures) {
  open();
  auto fails = [&](const char* url, std::int64_t code, const char* text) {
    auto task = session->downloadTaskWithRequest(URLRequest(*URL::URLWithString(url)));
    task->resume();
    auto record = finish(task);
    expectError(record, code);
    EXPECT_THAT(record.completions.at(0)->localizedDescription(), HasSubstr(text));
  };
  fails("http://127.0.0.1:1/a", NSURLErrorCannotConnectToHost, "127.0.0.1");
  fails("http://no-such-host.invalid/a", NSURLErrorCannotFindHost, "no-such-host.invalid");
  fails("ftp://127.0.0.1/a", NSURLErrorUnsupportedURL, "ftp://127.0.0.1/a");
}

} // namespace
