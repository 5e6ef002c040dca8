// What servers and connections do wrong, and what the service makes of it.

#include "tests/platform/TransferServiceFixture.h"

using namespace transfer_tests;

namespace {

TEST_F(TransferServiceTest, GoesOnByRangeAfterALostConnection) {
  auto content = serveRandom("/a", 500'000);
  server.once("/a", cuttingAfter(200'000));
  server.once("/a", cuttingAfter(100'000, Fault::Cut::Reset));
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
  server.once("/a", cuttingAfter(100'000));
  open();
  expectWhole(finish(start("/a")), content);
  EXPECT_EQ(server.requests("/a").at(1).header("Range"), "");
}

TEST_F(TransferServiceTest, NeverMixesTwoVersions) {
  const auto after = randomBytes(280'000, 2);
  serveRandom("/a", 300'000);
  const auto data = breakAt("/a", 150'000);
  server.serve("/a", {after, "\"2\"", OldDate});
  auto task = session->downloadTaskWithResumeData(data);
  EXPECT_EQ(task->countOfBytesReceived(), 150'000);
  task->resume();
  auto record = finish(task);
  expectWhole(record, after);
  EXPECT_THAT(record.resumedAt, SizeIs(0));
  EXPECT_EQ(record.progress.front().written, record.progress.front().total);
}

TEST_F(TransferServiceTest, ResumesFromData) {
  auto content = serveRandom("/a", 300'000);
  const auto data = breakAt("/a", 150'000);
  auto record = finish(startWith(data));
  expectWhole(record, content);
  EXPECT_THAT(record.resumedAt, testing::ElementsAre(testing::Pair(150'000, 300'000)));
  EXPECT_THAT(record.order, StartsWith("rw"));
  EXPECT_EQ(record.progress.front().status, 206);
  EXPECT_EQ(record.progress.front().written, record.progress.front().total);

  // Used up: the file is gone, so the next one starts from zero.
  expectWhole(finish(startWith(data)), content);
  EXPECT_EQ(rangeAskedLast(), "");

  expectError(finish(startWith(Data{1, 2, 3})), NSURLErrorUnknown);
}

TEST_F(TransferServiceTest, KeepsTheCallersRangeRight) {
  auto content = serveRandom("/a", 300'000);
  struct Case {
    const char *range, *resumed;
    std::size_t first, count;
  };
  for (auto& c : {Case{"bytes=1000-200999", "bytes=51000-200999", 1000, 200'000},
                  Case{"bytes=100000-999999", "bytes=150000-999999", 100'000, 200'000},
                  Case{"bytes=100000-", "bytes=150000-", 100'000, 200'000},
                  Case{"bytes=-100000", "bytes=250000-", 200'000, 100'000}}) {
    SCOPED_TRACE(c.range);
    expectWhole(finish(startWith(breakAt("/a", 50'000, c.range))), content.substr(c.first, c.count));
    EXPECT_EQ(rangeAskedLast(), c.resumed);
  }
  // A server that does not know ranges: the caller's business.
  server.once("/a", {.ignoreRange = true});
  auto record = finish(start("/a", "bytes=5-9"));
  expectWhole(record, content);
  EXPECT_EQ(record.progress.front().status, 200);
}

TEST_F(TransferServiceTest, SeesThroughWrongParts) {
  auto content = serveRandom("/a", 300'000);
  const Fault faults[] = {
      {.contentRange = "bytes 100001-299999/300000"}, {.contentRange = "bytes 100000-299998/300000"},
      {.contentRange = "bytes 100000-299999/300001"}, {.contentRange = "nonsense"},
      {.headers = {{"ETag", "\"other\""}}},           {.status = 416},
  };
  for (const auto& fault : faults) {
    SCOPED_TRACE(&fault - faults);
    const auto data = breakAt("/a", 100'000);
    server.once("/a", fault);
    expectWhole(finish(startWith(data)), content);
    EXPECT_EQ(rangeAskedLast(), "");
  }
  // A part although the whole was asked for, again and again.
  server.serve("/b", {content, "\"1\"", OldDate}, {.status = 206});
  expectError(finish(start("/b")), NSURLErrorBadServerResponse);
}

TEST_F(TransferServiceTest, AsksByDateWhenTheTagIsNotHonoured) {
  auto content = serveRandom("/a", 300'000);
  const auto data = breakAt("/a", 100'000);
  server.once("/a", {.ignoreRange = true});
  auto record = finish(startWith(data));
  expectWhole(record, content);
  EXPECT_THAT(record.resumedAt, SizeIs(1));
  EXPECT_EQ(server.requests("/a").back().header("If-Range"), OldDate);
}

TEST_F(TransferServiceTest, AcceptsNoShortAndNoLongBody) {
  server.serve("/a", {randomBytes(100'000), "", ""});
  configuration.retryLimit = 0;
  open();
  server.once("/a", {.closeAfter = true, .headers = {{"Content-Length", "100001"}}});
  expectError(finish(start("/a")), NSURLErrorNetworkConnectionLost);
  server.once("/a", {.cutAfter = 50'000, .chunked = true});
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
  const std::pair<int, std::string> cases[] = {
      {404, "not there"}, {500, ""}, {304, ""}, {503, "busy"}, {429, ""}};
  for (const auto& [status, body] : cases) {
    SCOPED_TRACE(status);
    auto task = start("/" + std::to_string(status));
    auto record = finish(task);
    expectWhole(record, body);
    EXPECT_EQ(record.progress.front().status, status);
    EXPECT_EQ(record.progress.front().total, static_cast<std::int64_t>(body.size()));
    EXPECT_EQ(task->response()->statusCode(), status);
  }
  EXPECT_THAT(server.requests(), SizeIs(5));
}

TEST_F(TransferServiceTest, ErrorPagesLeaveWhatIsHeldAlone) {
  auto content = serveRandom("/a", 300'000);
  const auto data = breakAt("/a", 100'000);
  server.once("/a", FaultServer::reply(500, {{"Content-Length", "5"}, {"ETag", "\"1\""}}, "sorry"));
  auto page = finish(startWith(data));
  expectWhole(page, "sorry");
  EXPECT_THAT(page.resumedAt, SizeIs(0));
  expectWhole(finish(start("/a")), content);
  EXPECT_EQ(rangeAskedLast(), "bytes=100000-");
}

TEST_F(TransferServiceTest, WaitsAndTriesAgainWhenToldWhen) {
  auto content = serveRandom("/a", 1000);
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
  server.serve("/a", {content, "\"1\"", OldDate}, {.closeAfter = true});
  configuration.retryLimit = 0;
  open();
  for (int i = 0; i < 5; ++i)
    expectWhole(finish(start("/a")), content);
}

TEST_F(TransferServiceTest, StallsEndWithResumeData) {
  auto content = serveRandom("/a", 200'000);
  server.once("/a", stallingAfter(70'000, stalled));
  configuration.timeoutIntervalForRequest = std::chrono::milliseconds(300);
  open();
  auto record = finish(start("/a"));
  expectError(record, NSURLErrorTimedOut);
  auto data = resumeDataOf(record);
  ASSERT_TRUE(data);
  record = finish(startWith(*data));
  expectWhole(record, content);
  EXPECT_EQ(record.resumedAt.at(0).first, 70'000);
}

TEST_F(TransferServiceTest, AServersRequestLimitIsNoFailure) {
  if (!NginxServer::isInstalled())
    GTEST_SKIP();
  const auto content = randomBytes(50'000);
  directory.write("www/a", content);
  // Then GOAWAY, and refused streams for what is on its way.
  NginxServer secure(directory / "www", {.tls = true, .keepaliveRequests = 3});
  configuration.retryLimit = 0;
  openTrusting(secure);
  for (int i = 0; i < 40; ++i)
    startURL(secure.url("/a"));
  ASSERT_TRUE(delegate->waitForCompletions(40));
  for (const auto& [identifier, record] : delegate->tasks())
    expectWhole(record, content);
}

TEST_F(TransferServiceTest, NamesConnectionFailures) {
  open();
  auto fails = [&](const char* url, std::int64_t code, const char* text) {
    auto record = finish(startURL(url));
    expectError(record, code);
    EXPECT_THAT(record.completions.at(0)->localizedDescription(), HasSubstr(text));
  };
  fails("http://127.0.0.1:1/a", NSURLErrorCannotConnectToHost, "127.0.0.1");
  fails("http://no-such-host.invalid/a", NSURLErrorCannotFindHost, "no-such-host.invalid");
  fails("ftp://127.0.0.1/a", NSURLErrorUnsupportedURL, "ftp://127.0.0.1/a");
}

} // namespace
