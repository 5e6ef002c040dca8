// Plain files as a user meets them: one and many, interrupted, killed, changed at the server, refused.

#include "tests/app/Program.h"
#include "tests/support/Expectation.h"
#include "tests/support/NginxServer.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>

using namespace support;
using nlohmann::json, testing::AllOf, testing::HasSubstr, testing::MatchesRegex, tolvane::Process;
namespace fs = std::filesystem;

namespace {

class Files : public testing::Test, public ProgramFixture {
protected:
  json inspect(const std::string& path) const {
    const ProgramResult result = runProgram({"inspect", server.url(path), "--json"});
    EXPECT_TRUE(endedWell(result));
    return json::parse(result.out);
  }

  /// The files that stand in a place of their own.
  std::size_t filesInPlace() const {
    const std::string root = library() + "/FileDownloader";
    return fs::exists(root) ? filesBelow(root).size() : 0;
  }

  /// Downloads "/movie.mp4" until it stands still after so many bytes, and interrupts it then.
  void interruptAfter(std::size_t bytes, const std::vector<std::string>& more = {}, bool described = true,
                      int signal = SIGINT) {
    const auto held = makeGate();
    server.once("/movie.mp4", stallingAfter(bytes, held));
    std::vector<std::string> arguments{"download", server.url("/movie.mp4")};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const auto process = start(arguments);
    EXPECT_TRUE(held->waitUntilReached());
    EXPECT_TRUE(eventually([&] { return holdsPartial(bytes, described); }));
    EXPECT_EQ(end(*process, signal), 130) << errors();
  }
};

} // namespace

TEST_F(Files, OneFileHasANameAndAPlaceAndCanBeVerifiedAndRemoved) {
  const std::string body = randomBytes(300'000);
  server.serve("/dir/My%20Film.mp4", {body, "\"v1\"", ""});
  const std::string url = server.url("/dir/My%20Film.mp4");
  ProgramResult result = run({"download", url, "--progress", "plain"});
  ASSERT_TRUE(endedWell(result));
  EXPECT_EQ(server.requests().size(), 1u) << "the suffix tells what it is";
  EXPECT_EQ(readFile(localPath()), body);
  EXPECT_THAT(result.out, HasSubstr("complete: " + localPath()));
  EXPECT_THAT(fs::path(localPath()).filename(), MatchesRegex("My Film-[0-9a-f]+\\.mp4"));
  const json entry = list()[0], told{{"title", "My Film.mp4"},
                                     {"contentType", "mp4"},
                                     {"state", "success"},
                                     {"downloadedBytes", 300'000}};
  for (const auto& [key, value] : told.items())
    EXPECT_EQ(entry[key], value) << key;

  EXPECT_NE(run({"download", url}).out.find("already complete"), std::string::npos);
  EXPECT_EQ(server.requests().size(), 1u);
  EXPECT_TRUE(succeeds({"verify", identifier(), "--origin"}));
  server.serve("/dir/My%20Film.mp4", {randomBytes(5), "\"v2\"", ""});
  EXPECT_NE(run({"verify", identifier(), "--origin"}).out.find("another version"), std::string::npos);
  fs::resize_file(localPath(), 299'999);
  const ProgramResult verified = run({"verify", identifier()});
  EXPECT_EQ(verified.status, 1);
  EXPECT_THAT(verified.out, HasSubstr("299999 of 300000"));

  EXPECT_TRUE(succeeds({"remove", identifier()}));
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
  ASSERT_TRUE(succeeds({"download", server.url("/get")}));
  EXPECT_THAT(fs::path(localPath()).filename(), MatchesRegex("a  film-[0-9a-f]+\\.mp4"));
  EXPECT_EQ(localPath().rfind(library() + "/FileDownloader/", 0), 0u) << localPath();
  EXPECT_EQ(list()[0]["title"], "a  film.mp4");
  ASSERT_TRUE(succeeds({"download", server.url("/song"), "--title", "Mine"}));
  EXPECT_EQ(list()[1]["contentType"], "mp3");
  EXPECT_EQ(list()[1]["title"], "Mine");
  EXPECT_THAT(fs::path(localPath(1)).filename(), MatchesRegex("song-[0-9a-f]+\\.mp3"));

  const json inspected = inspect("/get");
  EXPECT_EQ(inspected["bytes"], 1000);
  EXPECT_EQ(inspected["resumable"], true);

  serve("/attached", "application/octet-stream", "attachment; filename=talk.mp3");
  EXPECT_NE(runProgram({"inspect", server.url("/attached")}).out.find("file talk.mp3"), std::string::npos);

  serve("/page", "text/html", "");
  EXPECT_TRUE(refused(run({"download", server.url("/page")}), {"MP3 (.mp3)"}));
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
      const json inspected = inspect(path);
      EXPECT_EQ(inspected["bytes"], ranges ? 50'000 : 4'294'967'296);
      EXPECT_EQ(inspected["name"], "Film.mp4");
      ASSERT_TRUE(succeeds({"download", server.url(path)}));
      EXPECT_EQ(list()[0]["title"], "Film.mp4");
      EXPECT_TRUE(readFile(localPath()) == body);
      ASSERT_TRUE(succeeds({"remove", identifier()}));
    }
}

TEST_F(Files, SeveralGoUnderTheLimitAndOneThatFailsDoesNotKeepTheOthers) {
  std::vector<std::string> arguments{"download"};
  for (int i = 0; i < 12; ++i) {
    const std::string path = "/" + std::to_string(i) + ".mp3";
    server.serve(path, {randomBytes(20'000, static_cast<unsigned>(i)), "\"e\"", ""});
    arguments.push_back(server.url(path));
  }
  const std::string segmentList = "<SegmentList><SegmentURL media=\"1.m4s\"/></SegmentList>";
  server.serve("/movie.mpd", dashEntity(dashManifest(segmentList)));
  server.serve("/1.m4s", {"segment", "", ""});
  server.handle("/missing.mp4", FaultServer::reply(404, {{"Content-Length", "4"}}, "gone"));
  server.handle("/empty.mp4", FaultServer::reply(200, {{"Content-Length", "0"}}));
  arguments.insert(arguments.end(), {"--jobs", "3", "--progress", "plain"});
  ProgramResult result = run(arguments);
  EXPECT_TRUE(endedWell(result));
  EXPECT_LE(server.peakRequests(), 3u);
  EXPECT_EQ(filesInPlace(), 12u);
  EXPECT_THAT(result.out, HasSubstr("12 of 12: 100%"));

  server.serve("/13.mp4", {randomBytes(100), "", ""});
  arguments = {"download"};
  for (const char* path : {"/movie.mpd", "/missing.mp4", "/empty.mp4", "/13.mp4", "/13.mp4"})
    arguments.push_back(server.url(path));
  result = run(arguments);
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, AllOf(HasSubstr("404"), HasSubstr("empty.mp4: ")));
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
  interruptAfter(150'000, {server.url("/second.mp4"), "--jobs", "1"});
  EXPECT_EQ(state(), "paused");
  EXPECT_EQ(list()[0]["error"], nullptr);
  EXPECT_NE(list()[1]["state"], "success");
  EXPECT_TRUE(server.requests("/second.mp4").empty()) << "its turn never came";

  const ProgramResult resumed = run({"resume", "--all"});
  EXPECT_TRUE(endedWell(resumed));
  EXPECT_EQ(resumed.err, "");
  EXPECT_EQ(readFile(localPath()), body);
  EXPECT_EQ(list()[1]["state"], "success");
  EXPECT_EQ(server.requests("/movie.mp4")[1].header("Range").rfind("bytes=1", 0), 0u);
}

TEST_F(Files, AnInterruptWhileTheLastOfManyAreLookedAtKeepsTheFirst) {
  std::vector<std::string> arguments{"download"};
  for (int i = 0; i < 33; ++i) {
    const std::string path = "/" + std::to_string(i) + ".mp3";
    server.serve(path, {randomBytes(20'000), "\"v1\"", ""});
    arguments.push_back(server.url(path));
  }
  const Entity talk{"talk", "\"v1\"", "", "audio/mpeg"};
  arguments.push_back(server.url("/talk"));
  const auto held = makeGate(), asked = makeGate();
  server.once("/0.mp3", stallingAfter(5'000, held));
  server.once("/talk", FaultServer::entity(talk)); // what it is; then what it is called
  server.once("/talk", [asked](const ServerRequest&, ServerConnection& client) { client.wait(*asked); });
  const auto process = start(arguments);
  EXPECT_TRUE(held->waitUntilReached());
  EXPECT_TRUE(asked->waitUntilReached());
  EXPECT_EQ(end(*process, SIGINT), 130) << errors();
  EXPECT_THAT(errors(), HasSubstr("interrupted; what was downloaded is kept"));
  EXPECT_EQ(list().size(), 32u) << "what was only looked at leaves nothing";
  EXPECT_TRUE(endedWell(run({"resume", "--all"})));
  EXPECT_EQ(filesInPlace(), 32u);
}

TEST_F(Files, RemovingAnUnfinishedOneLeavesNoBytesBehind) {
  server.serve("/movie.mp4", {randomBytes(400'000), "\"v1\"", ""});
  interruptAfter(200'000);
  EXPECT_FALSE(filesBelow(library() + "/transfers/partials").empty());
  EXPECT_TRUE(succeeds({"remove", identifier()}));
  EXPECT_EQ(filesBelow(library() + "/transfers/partials"), std::set<std::string>());
  EXPECT_EQ(filesInPlace(), 0u);
}

TEST_F(Files, NewHeadersGoWithTheBytesThatAreThere) {
  const std::string body = randomBytes(400'000);
  server.serve("/movie.mp4", {body, "\"v1\"", ""});
  interruptAfter(200'000, {"--header", "X-Token: old"}, true, SIGTERM);
  ASSERT_TRUE(succeeds({"download", server.url("/movie.mp4"), "--header", "X-Token: new"}));
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
  ASSERT_TRUE(eventually([this] { return holdsPartial(12u << 20); }));
  end(*process, SIGKILL);
  std::size_t held = 0;
  for (const auto& entry : fs::directory_iterator(library() + "/transfers/partials"))
    if (entry.path().extension() == ".part")
      held = entry.file_size();
  EXPECT_NE(run({"list"}).out.find("interrupted"), std::string::npos);

  ProgramResult resumed = run({"resume", "--all"});
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
    bool ignoresRange;
    const char* reason;
  };
  const Case cases[] = {
      {{old, "\"v1\"", ""}, {young, "\"v2\"", ""}, false, "has changed"},
      {{old, "\"v1\"", ""}, {old, "\"v1\"", ""}, true, "does not serve parts"},
      {{old, "", ""}, {old, "", ""}, false, "no ETag, no Last-Modified"},
  };
  for (const Case& one : cases) {
    SCOPED_TRACE(one.reason);
    server.serve("/movie.mp4", one.before);
    interruptAfter(400'000, {}, !one.before.etag.empty());

    // The second response stands still as well, so that its start is seen.
    const auto second = makeGate();
    Fault fault = stallingAfter(100'000, second);
    fault.ignoreRange = one.ignoresRange;
    if (one.ignoresRange)
      fault.headers["Accept-Ranges"] = "none";
    server.serve("/movie.mp4", one.after, fault);
    const auto process = start({"resume", "--all"});
    EXPECT_TRUE(second->waitUntilReached());
    EXPECT_TRUE(eventually([&] { return errors().find("started from the beginning") != std::string::npos; }));
    second->open();
    EXPECT_EQ(process->wait(), 0) << errors();
    EXPECT_THAT(errors(), HasSubstr(one.reason));
    EXPECT_TRUE(readFile(localPath()) == one.after.content) << "never a mixture";
    ASSERT_TRUE(succeeds({"remove", identifier()}));
    fs::remove(directory / "err");
  }
}
