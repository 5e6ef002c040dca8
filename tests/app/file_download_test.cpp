// Plain files as a user meets them: one and many, interrupted, killed, changed at the server, refused.

#include "tests/app/Program.h"
#include "tests/support/Expectation.h"
#include "tests/support/NginxServer.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>

using namespace support;
using nlohmann::json;
using tolvane::Process;
namespace fs = std::filesystem;

namespace {

class Files : public testing::Test, public ProgramFixture {
protected:
  std::string localPath(std::size_t position = 0) const {
    return list()[position]["localPath"].get<std::string>();
  }
  std::string identifier() const { return list()[0]["id"].get<std::string>(); }

  /// The files that stand in a place of their own.
  std::size_t filesInPlace() const {
    const std::string root = library() + "/FileDownloader";
    return fs::exists(root) ? filesBelow(root).size() : 0;
  }

  /// Starts a download of "/movie.mp4" that stands still after so many bytes, and waits until it does.
  std::unique_ptr<Process> startAndHold(const GateRef& gate, std::size_t after, bool described = true) {
    server.once("/movie.mp4", stallingAfter(after, gate));
    auto process = start({"download", server.url("/movie.mp4")});
    EXPECT_TRUE(gate->waitUntilReached());
    waitForPartial(after, described);
    return process;
  }

  /// What was sent is on disk when a partial file has it.
  void waitForPartial(std::size_t bytes, bool described = true) const {
    const fs::path partials = library() + "/transfers/partials";
    EXPECT_TRUE(eventually([&] {
      std::error_code ignored;
      for (const auto& entry : fs::directory_iterator(partials, ignored))
        if (entry.path().extension() == ".part" && entry.file_size(ignored) >= bytes &&
            (!described || fs::exists(fs::path(entry.path()).replace_extension(".json"))))
          return true;
      return false;
    })) << "the partial file never had "
        << bytes << " bytes";
  }
};

} // namespace

TEST_F(Files, OneFileHasANameAndAPlaceAndCanBeVerifiedAndRemoved) {
  const std::string body = randomBytes(300'000);
  server.serve("/dir/My%20Film.mp4", {body, "\"v1\"", ""});
  const std::string url = server.url("/dir/My%20Film.mp4");
  ProgramResult result = run({"download", url, "--progress", "plain"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(server.requests().size(), 1u) << "the suffix tells what it is";
  EXPECT_EQ(readFile(localPath()), body);
  EXPECT_NE(result.out.find("complete: " + localPath()), std::string::npos) << result.out;
  EXPECT_EQ(fs::path(localPath()).filename(), "My Film.mp4");
  json entry = list()[0];
  EXPECT_EQ(entry["title"], "My Film.mp4");
  EXPECT_EQ(entry["contentType"], "mp4");
  EXPECT_EQ(entry["state"], "success");
  EXPECT_EQ(entry["downloadedBytes"], 300'000);

  EXPECT_NE(run({"download", url}).out.find("already complete"), std::string::npos);
  EXPECT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(run({"verify", identifier(), "--origin"}).status, 0);
  server.serve("/dir/My%20Film.mp4", {randomBytes(5), "\"v2\"", ""});
  EXPECT_NE(run({"verify", identifier(), "--origin"}).out.find("another version"), std::string::npos);
  fs::resize_file(localPath(), 299'999);
  ProgramResult verified = run({"verify", identifier()});
  EXPECT_EQ(verified.status, 1);
  EXPECT_NE(verified.out.find("299999 of 300000"), std::string::npos) << verified.out;

  EXPECT_EQ(run({"remove", identifier()}).status, 0);
  EXPECT_EQ(filesInPlace(), 0u);
  EXPECT_TRUE(list().empty());
}

TEST_F(Files, TheServerTellsWhatTheURLDoesNot) {
  const auto serve = [this](const std::string& path, const std::string& type,
                            const std::string& disposition) {
    Fault extra;
    if (!disposition.empty())
      extra.headers["Content-Disposition"] = disposition;
    server.serve(path, {randomBytes(1000), "\"e\"", "", type}, extra);
  };
  serve("/get", "video/mp4", "attachment; filename=\"../../../a \x1b film.mp4\"");
  serve("/song", "audio/mpeg", "");
  ASSERT_EQ(run({"download", server.url("/get"), "--progress", "none"}).status, 0);
  EXPECT_EQ(fs::path(localPath()).filename(), "a  film.mp4");
  EXPECT_EQ(localPath().rfind(library() + "/FileDownloader/", 0), 0u) << localPath();
  EXPECT_EQ(list()[0]["title"], "a  film.mp4");
  ASSERT_EQ(run({"download", server.url("/song"), "--progress", "none", "--title", "Mine"}).status, 0);
  EXPECT_EQ(list()[1]["contentType"], "mp3");
  EXPECT_EQ(list()[1]["title"], "Mine");
  EXPECT_EQ(fs::path(localPath(1)).filename(), "song.mp3");

  ProgramResult inspected = runProgram({"inspect", server.url("/get"), "--json"});
  ASSERT_EQ(inspected.status, 0) << inspected.err;
  EXPECT_EQ(json::parse(inspected.out)["bytes"], 1000);
  EXPECT_EQ(json::parse(inspected.out)["resumable"], true);

  serve("/attached", "application/octet-stream", "attachment; filename=talk.mp3");
  EXPECT_NE(runProgram({"inspect", server.url("/attached")}).out.find("file talk.mp3"), std::string::npos);

  serve("/page", "text/html", "");
  ProgramResult refused = run({"download", server.url("/page")});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("MP3 (.mp3)"), std::string::npos) << refused.err;
  EXPECT_EQ(list().size(), 2u);
}

TEST_F(Files, AServerThatKnowsOnlyGETIsAskedForAByteAndNotForTheFile) {
  const std::string body = randomBytes(50'000);
  const platform::HTTPHeaders told{{"Content-Type", "video/mp4"},
                                   {"Content-Disposition", "attachment; filename=\"Film.mp4\""}};
  Fault named;
  named.headers = told;
  const auto refusals = {FaultServer::reply(405, {{"Content-Length", "0"}}),
                         FaultServer::reply(403, {{"Content-Length", "100000"}}),
                         FaultServer::dropConnection()};
  for (const bool ranges : {true, false})
    for (const auto& refuse : refusals) {
      const std::string path = "/" + std::to_string(server.requests().size());
      auto never = makeGate();
      const auto whole = FaultServer::entity({body, "\"e\"", ""}, named);
      server.handle(path, [=](const ServerRequest& request, ServerConnection& connection) {
        if (request.method == "HEAD")
          return refuse(request, connection);
        if (ranges || request.header("Range").empty())
          return whole(request, connection);
        // Four gigabytes that nobody may wait for.
        auto headers = told;
        headers["Content-Length"] = "4294967296";
        connection.sendHead(200, headers);
        connection.wait(*never);
      });
      const ProgramResult inspected = runProgram({"inspect", server.url(path), "--json"});
      ASSERT_EQ(inspected.status, 0) << inspected.err;
      EXPECT_EQ(json::parse(inspected.out)["bytes"], ranges ? 50'000 : 4'294'967'296);
      EXPECT_EQ(json::parse(inspected.out)["name"], "Film.mp4");
      const ProgramResult result = run({"download", server.url(path), "--progress", "none"});
      ASSERT_EQ(result.status, 0) << result.err;
      EXPECT_EQ(list()[0]["title"], "Film.mp4");
      EXPECT_TRUE(readFile(localPath()) == body);
      ASSERT_EQ(run({"remove", identifier()}).status, 0);
    }
}

TEST_F(Files, SeveralGoUnderTheLimitAndOneThatFailsDoesNotKeepTheOthers) {
  std::vector<std::string> arguments{"download"};
  for (int i = 0; i < 12; ++i) {
    const std::string path = "/" + std::to_string(i) + ".mp3";
    server.serve(path, {randomBytes(20'000, static_cast<unsigned>(i)), "\"e\"", ""});
    arguments.push_back(server.url(path));
  }
  server.serve("/movie.mpd", {"<MPD mediaPresentationDuration=\"PT4S\"><Period><AdaptationSet "
                              "mimeType=\"video/mp4\"><Representation id=\"v\" bandwidth=\"1000\">"
                              "<SegmentList><SegmentURL media=\"1.m4s\"/></SegmentList></Representation>"
                              "</AdaptationSet></Period></MPD>",
                              "", "", "application/dash+xml"});
  server.serve("/1.m4s", {"segment", "", ""});
  server.handle("/missing.mp4", FaultServer::reply(404, {{"Content-Length", "4"}}, "gone"));
  server.handle("/empty.mp4", FaultServer::reply(200, {{"Content-Length", "0"}}));
  std::vector<std::string> files = arguments;
  files.insert(files.end(), {"--jobs", "3", "--progress", "plain"});
  ProgramResult result = run(files);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_LE(server.peakRequests(), 3u);
  EXPECT_EQ(filesInPlace(), 12u);
  EXPECT_NE(result.out.find("12 of 12: 100%"), std::string::npos) << result.out;

  arguments = {"download",
               server.url("/movie.mpd"),
               server.url("/missing.mp4"),
               server.url("/empty.mp4"),
               server.url("/13.mp4"),
               server.url("/13.mp4")};
  server.serve("/13.mp4", {randomBytes(100), "", ""});
  result = run(arguments);
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("404"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("empty.mp4: "), std::string::npos) << result.err;
  EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 2) << result.err;
  EXPECT_EQ(filesInPlace(), 13u) << "no error page has become a file";
  std::size_t complete = 0;
  for (const json& entry : list())
    complete += entry["state"] == "success";
  EXPECT_EQ(complete, 14u);
}

TEST_F(Files, AnInterruptKeepsTheBytesOfWhatRunsAndWhatWaits) {
  const std::string body = randomBytes(400'000);
  server.serve("/movie.mp4", {body, "\"v1\"", ""});
  server.serve("/second.mp4", {randomBytes(10), "\"v1\"", ""});
  auto gate = makeGate();
  server.once("/movie.mp4", stallingAfter(150'000, gate));
  auto process = start({"download", server.url("/movie.mp4"), server.url("/second.mp4"), "--jobs", "1"});
  ASSERT_TRUE(gate->waitUntilReached());
  waitForPartial(100'000);
  process->signal(SIGINT);
  EXPECT_EQ(process->wait(), 130) << readFile(directory / "err");
  EXPECT_EQ(list()[0]["state"], "paused");
  EXPECT_EQ(list()[0]["error"], nullptr);
  EXPECT_NE(list()[1]["state"], "success");
  EXPECT_TRUE(server.requests("/second.mp4").empty()) << "its turn never came";

  ProgramResult resumed = run({"resume", "--all", "--progress", "none"});
  EXPECT_EQ(resumed.status, 0) << resumed.err;
  EXPECT_EQ(resumed.err, "");
  EXPECT_EQ(readFile(localPath()), body);
  EXPECT_EQ(list()[1]["state"], "success");
  EXPECT_EQ(server.requests("/movie.mp4")[1].header("Range").rfind("bytes=1", 0), 0u);
}

TEST_F(Files, RemovingAnUnfinishedOneLeavesNoBytesBehind) {
  server.serve("/movie.mp4", {randomBytes(400'000), "\"v1\"", ""});
  auto gate = makeGate();
  auto process = startAndHold(gate, 200'000);
  process->signal(SIGINT);
  EXPECT_EQ(process->wait(), 130);
  EXPECT_FALSE(filesBelow(library() + "/transfers/partials").empty());
  EXPECT_EQ(run({"remove", identifier()}).status, 0);
  EXPECT_EQ(filesBelow(library() + "/transfers/partials"), std::set<std::string>());
  EXPECT_EQ(filesInPlace(), 0u);
}

TEST_F(Files, NewHeadersGoWithTheBytesThatAreThere) {
  const std::string body = randomBytes(400'000);
  server.serve("/movie.mp4", {body, "\"v1\"", ""});
  auto gate = makeGate();
  server.once("/movie.mp4", stallingAfter(200'000, gate));
  auto process = start({"download", server.url("/movie.mp4"), "--header", "X-Token: old"});
  ASSERT_TRUE(gate->waitUntilReached());
  waitForPartial(100'000);
  process->signal(SIGTERM);
  EXPECT_EQ(process->wait(), 130);
  ProgramResult result =
      run({"download", server.url("/movie.mp4"), "--header", "X-Token: new", "--progress", "none"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(readFile(localPath()) == body);
  const auto requests = server.requests("/movie.mp4");
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].header("X-Token"), "old");
  EXPECT_EQ(requests[1].header("X-Token"), "new");
  EXPECT_NE(requests[1].header("Range"), "");
}

TEST_F(Files, AKilledDownloadGoesOnFromTheBytesOnDisk) {
  if (!NginxServer::isInstalled())
    GTEST_SKIP() << "nginx is not installed";
  constexpr std::size_t size = 64u << 20;
  const std::string body = randomBytes(size);
  TemporaryDirectory root;
  root.write("big.mp4", body);
  NginxOptions options;
  options.directives = "location /slow/ { alias " + root.path() + "/; limit_rate 16m; }";
  NginxServer nginx(root.path(), options);
  auto process = start({"download", nginx.url("/slow/big.mp4")});
  waitForPartial(12u << 20);
  process->signal(SIGKILL);
  process->wait();
  std::size_t held = 0;
  for (const auto& entry : fs::directory_iterator(library() + "/transfers/partials"))
    if (entry.path().extension() == ".part")
      held = entry.file_size();
  EXPECT_NE(run({"list"}).out.find("interrupted"), std::string::npos);

  ProgramResult resumed = run({"resume", "--all", "--progress", "none"});
  ASSERT_EQ(resumed.status, 0) << resumed.err;
  EXPECT_EQ(resumed.err, "");
  EXPECT_TRUE(readFile(localPath()) == body);
  const auto log = nginx.accessLog();
  ASSERT_FALSE(log.empty());
  EXPECT_LE(log.back().bodyBytes, static_cast<std::int64_t>(size - held + (4u << 20)));
}

TEST_F(Files, WhatCannotBeContinuedStartsAgainAndSaysWhy) {
  const std::string old = randomBytes(600'000, 1), young = randomBytes(500'000, 2);
  struct Case {
    Entity before, after;
    Fault fault;
    const char* reason;
  };
  Fault noRanges;
  noRanges.ignoreRange = true;
  noRanges.headers["Accept-Ranges"] = "none";
  const Case cases[] = {
      {{old, "\"v1\"", ""}, {young, "\"v2\"", ""}, {}, "has changed"},
      {{old, "\"v1\"", ""}, {old, "\"v1\"", ""}, noRanges, "does not serve parts"},
      {{old, "", ""}, {old, "", ""}, {}, "no ETag, no Last-Modified"},
  };
  for (const Case& one : cases) {
    SCOPED_TRACE(one.reason);
    server.serve("/movie.mp4", one.before);
    auto gate = makeGate();
    auto process = startAndHold(gate, 400'000, !one.before.etag.empty());
    process->signal(SIGINT);
    EXPECT_EQ(process->wait(), 130) << readFile(directory / "err");

    // The second response stands still as well, so that its start is seen.
    auto second = makeGate();
    Fault fault = one.fault;
    fault.stallAfter = 100'000;
    fault.gate = second;
    server.serve("/movie.mp4", one.after, fault);
    process = start({"resume", "--all"});
    EXPECT_TRUE(second->waitUntilReached());
    EXPECT_TRUE(eventually(
        [&] { return readFile(directory / "err").find("started from the beginning") != std::string::npos; }));
    second->open();
    EXPECT_EQ(process->wait(), 0) << readFile(directory / "err");
    EXPECT_NE(readFile(directory / "err").find(one.reason), std::string::npos) << readFile(directory / "err");
    EXPECT_TRUE(readFile(localPath()) == one.after.content) << "never a mixture";
    ASSERT_EQ(run({"remove", identifier()}).status, 0);
    fs::remove(directory / "err");
  }
}
