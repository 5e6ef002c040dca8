// A library over several processes: interrupted, killed, resumed, cancelled, removed, held by another
// process.

#include "tests/app/Program.h"

#include <csignal>
#include <filesystem>

using namespace support;
using nlohmann::json, tolvane::Process;

namespace {

constexpr int segments = 40;

class Library : public testing::Test, public ProgramFixture {
protected:
  void SetUp() override {
    std::string list;
    for (int i = 0; i < segments; ++i) {
      server.serve(path(i), {std::string(20'000, static_cast<char>('a' + i % 26)) + std::to_string(i),
                             "\"e" + std::to_string(i) + "\"", ""});
      list += "<SegmentURL media=\"" + std::to_string(i) + ".m4s\"/>";
    }
    server.serve("/movie.mpd", dashEntity(dashManifest("<SegmentList>" + list + "</SegmentList>", 40,
                                                       "bandwidth=\"160000\" height=\"36\"")));
  }
  static std::string path(int i) { return "/" + std::to_string(i) + ".m4s"; }

  /// Starts a download that stands still half-way through segment 20, and waits until it does.
  std::unique_ptr<Process> startAndHold() {
    server.once(path(20), stallingAfter(10'000, gate));
    auto process = start({"download", server.url("/movie.mpd"), "--title", "A movie"});
    EXPECT_TRUE(gate->waitUntilReached());
    // The other three lanes run on to the end; then only the held segment is missing.
    for (int i = 0; i < segments; ++i)
      EXPECT_TRUE(server.waitForRequests(path(i), 1));
    return process;
  }

  void expectWhole() {
    for (int i = 0; i < segments; ++i)
      EXPECT_EQ(readFile(downloadDirectory() + path(i)).size(), 20'000 + std::to_string(i).size()) << i;
    EXPECT_EQ(state(), "success");
  }
};

} // namespace

TEST_F(Library, ManifestsOfSeveralURLsAreAskedForAtOnce) {
  server.serve("/other.mpd",
               dashEntity(dashManifest(R"(<SegmentList><SegmentURL media="0.m4s"/></SegmentList>)")));
  for (const char* name : {"/movie.mpd", "/other.mpd"})
    server.once(name, stallingAfter(10, gate));
  auto process = start({"download", server.url("/movie.mpd"), server.url("/other.mpd")});
  EXPECT_TRUE(gate->waitUntilReached(2)) << "neither has ended";
  gate->open();
  EXPECT_EQ(process->wait(), 0) << errors();
  EXPECT_EQ(list().size(), 2u);
}

TEST_F(Library, OnlyWhatTransfersNeedsTheTransferLibrary) {
  ASSERT_TRUE(succeeds({"download", server.url("/movie.mpd")}));
  // A file in its place that is none, which is looked at first.
  const std::string broken = directory / "broken";
  std::filesystem::create_directory(broken);
  writeFile(broken + "/libcurl.so.4", "no library");
  const auto without = [&](const std::vector<std::string>& arguments) {
    std::vector<std::string> command{"/usr/bin/env", "LD_LIBRARY_PATH=" + broken, programPath()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    command.insert(command.end(), {"--library", library()});
    return runToEnd(command);
  };
  EXPECT_TRUE(endedWell(without({"list"})));
  EXPECT_TRUE(endedWell(without({"verify", identifier()})));
  EXPECT_TRUE(refused(without({"download", server.url("/movie.mpd")}),
                      {"libcurl.so.4", "cannot be loaded", "install the package libcurl4"}, 127));
  expectWhole();
}

TEST_F(Library, AnInterruptKeepsEverythingAndResumeGoesOn) {
  auto process = startAndHold();
  EXPECT_EQ(end(*process, SIGINT), 130) << errors();
  EXPECT_EQ(state(), "paused");
  EXPECT_EQ(list()[0]["title"], "A movie");

  EXPECT_TRUE(succeeds({"resume", identifier().substr(0, 20)}));
  expectWhole();
  // The other lanes may have been busy with the last segments when the signal came.
  int repeated = 0;
  for (int i = 0; i < segments; ++i)
    repeated += server.requests(path(i)).size() > 1;
  EXPECT_LE(repeated, 4) << "only what was in flight is asked for again";
  EXPECT_EQ(server.requests(path(20))[1].header("Range").rfind("bytes=", 0), 0u)
      << "the bytes that were there are not fetched again";
}

TEST_F(Library, AKilledDownloadIsListedAsInterruptedAndAdoptsWhatItHas) {
  auto process = startAndHold();

  EXPECT_TRUE(refused(run({"download", server.url("/movie.mpd")}), {"process"}));
  EXPECT_EQ(state(), "running") << "listing works beside a writer";

  end(*process, SIGKILL);
  EXPECT_NE(run({"list"}).out.find("interrupted"), std::string::npos);
  EXPECT_EQ(run({"verify", identifier()}).status, 1);

  EXPECT_TRUE(succeeds({"resume", "--all"}));
  expectWhole();
  EXPECT_TRUE(succeeds({"verify", identifier()}));
  EXPECT_NE(run({"resume", "--all"}).out.find("nothing to resume"), std::string::npos);
}

TEST_F(Library, CancelKeepsFilesAndRemoveDeletesThem) {
  auto process = startAndHold();
  EXPECT_EQ(end(*process, SIGTERM), 130);

  std::string id = identifier();
  EXPECT_TRUE(succeeds({"cancel", id}));
  EXPECT_EQ(state(), "idle");
  EXPECT_TRUE(std::filesystem::exists(downloadDirectory() + "/0.m4s"));

  std::string folder = downloadDirectory();
  EXPECT_EQ(run({"remove", id, "nonsense"}).status, 1) << "one unknown identifier and nothing is touched";
  EXPECT_TRUE(std::filesystem::exists(folder));
  EXPECT_TRUE(succeeds({"remove", id}));
  EXPECT_FALSE(std::filesystem::exists(folder));
  EXPECT_TRUE(list().empty());
}

TEST_F(Library, VerifyNamesWhatIsMissingAndWhatIsShort) {
  ASSERT_TRUE(succeeds({"download", server.url("/movie.mpd"), "--progress", "plain"}));
  std::filesystem::remove(downloadDirectory() + "/7.m4s");
  writeFile(downloadDirectory() + "/8.m4s", "");
  ProgramResult result = run({"verify", identifier()});
  EXPECT_EQ(result.status, 1);
  for (const char* words : {"missing 7.m4s", "damaged 8.m4s", "38 of 40"})
    EXPECT_NE(result.out.find(words), std::string::npos) << words << " in " << result.out;
}

TEST_F(Library, MachineReadableOutputHasTheStatedShape) {
  ASSERT_TRUE(succeeds({"download", server.url("/movie.mpd"), "--progress", "json", "--jobs", "2"}));
  EXPECT_LE(server.peakRequests(), 2u);
  json entry = list()[0];
  for (const char* key : {"id", "url", "title", "contentType", "state", "progress", "downloadedBytes",
                          "expectedBytes", "localPath", "error"})
    EXPECT_TRUE(entry.contains(key)) << key;
  EXPECT_EQ(entry["contentType"], "dash");
  EXPECT_EQ(entry["title"], nullptr);
  EXPECT_EQ(entry["localPath"], downloadDirectory() + "/manifest.mpd");

  json movie = json::parse(runProgram({"inspect", server.url("/movie.mpd"), "--json"}).out)["movies"][0];
  json quality = movie["tracks"][0]["qualities"][0];
  EXPECT_EQ(movie["duration"], 40.0);
  EXPECT_EQ(movie["tracks"][0]["language"], nullptr);
  EXPECT_EQ(quality["estimatedBytes"], 800'000);
  EXPECT_EQ(quality["codec"], nullptr);
  EXPECT_EQ(quality["height"], 36);
}

TEST_F(Library, HeadersReachEveryRequestAndAreKeptForResume) {
  server.once(path(20), stallingAfter(10, gate));
  auto process = start({"download", server.url("/movie.mpd"), "--header", "X-Token: secret: 1"});
  ASSERT_TRUE(gate->waitUntilReached());
  end(*process, SIGKILL);
  ASSERT_TRUE(succeeds({"resume", "--all"}));
  for (const ServerRequest& request : server.requests())
    EXPECT_EQ(request.header("X-Token"), "secret: 1") << request.method << " " << request.target;
}
