// HLS as ffmpeg packs it, downloaded, killed, resumed, and played without the server.

#include "tests/app/Program.h"
#include "tests/support/Command.h"
#include "tests/support/HLSMedia.h"
#include "tests/support/MediaFactory.h"
#include "tests/support/NginxServer.h"

#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>

namespace fs = std::filesystem;
using namespace support;
using nlohmann::json, testing::HasSubstr, testing::IsEmpty;

namespace {

const std::vector<std::string> everything{"--video", "best", "--audio", "all", "--text", "all"};

std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

/// Contents of the media files below a directory; playlists aside, which a package writes anew.
std::multiset<std::string> mediaBelow(const fs::path& directory) {
  std::multiset<std::string> contents;
  for (const std::string& name : filesBelow(directory))
    if (const auto type = fs::path(name).extension(); type != ".m3u8" && type != ".json" && type != ".info")
      contents.insert(readFile(directory / name));
  return contents;
}

class HLS : public ProgramFixture, public testing::Test {};

class HLSForms : public HLS, public testing::WithParamInterface<HLSForm> {
protected:
  void SetUp() override {
    ASSERT_TRUE(canMakeMedia() && NginxServer::isInstalled()) << "install ffmpeg and nginx";
    media = makeHLSMedia(GetParam());
  }

  bool hasGroups() const { return GetParam() == HLSForm::FragmentedWithGroups; }

  void expectWholePackage() {
    const std::string package = localPath();
    EXPECT_GT(decodedSeconds(package + "/master.m3u8", hasGroups()
                                                           ? std::vector<std::string>{"v", "a:0", "a:1"}
                                                           : std::vector<std::string>{"v", "a"}),
              3.4);
    auto origin = mediaBelow(media.directory + "/180");
    if (hasGroups())
      for (const char* name : {"en", "de", "text-en", "text-de"})
        origin.merge(mediaBelow(media.directory + "/" + name));
    if (GetParam() == HLSForm::Encrypted) {
      origin.insert(readFile(media.directory + "/media.key"));
      for (const std::string& name : filesBelow(package))
        if (name.ends_with(".key.ts")) {
          EXPECT_EQ(fs::status(package + "/" + name).permissions(), fs::perms(0600)) << "its owner's alone";
        }
    }
    EXPECT_TRUE(mediaBelow(package) == origin) << testing::PrintToString(filesBelow(package));
    for (const std::string& name : filesBelow(package))
      if (name.starts_with("text-") && name.ends_with(".m3u8")) {
        const std::string text = directory / "text.vtt";
        runCommand({"ffmpeg", "-nostdin", "-v", "error", "-y", "-protocol_whitelist", "file,crypto,data",
                    "-i", package + "/" + name, text},
                   directory.path());
        EXPECT_THAT(readFile(text), testing::ContainsRegex("(en|de) 2")) << name;
      }
    EXPECT_TRUE(succeeds({"verify", identifier()}));
  }

  HLSMedia media;
};

std::string nameOf(const testing::TestParamInfo<HLSForm>& info) {
  static const char* const names[] = {"TransportStream", "Encrypted", "SingleFile", "FragmentedWithGroups"};
  return names[static_cast<int>(info.param)];
}

} // namespace

TEST_P(HLSForms, PlaysWithoutTheServer) {
  {
    NginxServer nginx(media.directory);
    const std::string url = nginx.url("/" + media.master);
    const json offered = json::parse(runProgram({"inspect", url, "--json"}).out);
    const json& tracks = offered["movies"][0]["tracks"];
    ASSERT_EQ(tracks.size(), hasGroups() ? 5u : 1u) << tracks;
    EXPECT_EQ(tracks[0]["qualities"].size(), 2u);

    const json held = json::parse(runProgram({"resources", url, "--json"}).out);
    // The name of a stored file also tells its size, which is known before only of byte ranges.
    auto withoutSize = [](const std::string& name) {
      const auto dash = name.rfind('-'), dot = name.find('.', dash);
      const bool isSize = dash < dot && name.find_first_not_of("0123456789", dash + 1) == dot;
      return isSize ? name.substr(0, dash) + name.substr(dot) : name;
    };
    std::set<std::string> listed, files;
    for (const json& resource : held["movies"][0]["tracks"][0]["qualities"][0]["resources"])
      listed.insert(withoutSize(resource["path"]));

    ProgramResult result = run({"download", url, "--progress", "plain"});
    ASSERT_TRUE(endedWell(result));
    EXPECT_THAT(result.out, HasSubstr("100% of"));
    for (const std::string& name : filesBelow(localPath()))
      files.insert(withoutSize(name));
    EXPECT_TRUE(std::includes(files.begin(), files.end(), listed.begin(), listed.end()))
        << testing::PrintToString(listed) << testing::PrintToString(files);

    // What is chosen later is added to what is there.
    const std::size_t before = nginx.accessLog().size();
    result = run(std::vector<std::string>{"download", url} +
                 (hasGroups() ? everything : std::vector<std::string>{}));
    ASSERT_TRUE(endedWell(result));
    const auto log = nginx.accessLog();
    for (std::size_t i = before; i < log.size(); ++i)
      EXPECT_EQ(log[i].uri.find("/180/segment"), std::string::npos) << log[i].uri << " was there already";
  }
  expectWholePackage();
}

TEST_P(HLSForms, AKilledDownloadGoesOnInAnotherProcess) {
  std::string stalled;
  for (const std::string& name : filesBelow(media.directory)) {
    server.serve("/" + name, {readFile(media.directory + "/" + name), "\"" + name + "\"", ""});
    if (name.starts_with("180/") &&
        (name.ends_with("2.ts") || name.ends_with("2.m4s") || name.ends_with("media.mp4")))
      stalled = "/" + name;
  }
  ASSERT_FALSE(stalled.empty());
  server.once(stalled, stallingAfter(500, gate));
  const auto first = start(std::vector<std::string>{"download", server.url("/" + media.master)} +
                           (hasGroups() ? everything : std::vector<std::string>{}));
  ASSERT_TRUE(gate->waitUntilReached()) << errors();
  end(*first, SIGKILL);
  gate->open();
  EXPECT_EQ(run({"verify", identifier()}).status, 1) << "it claims nothing that it does not hold";
  ASSERT_TRUE(succeeds({"resume", "--all"}));
  EXPECT_EQ(state(), "success");
  expectWholePackage();
}

INSTANTIATE_TEST_SUITE_P(, HLSForms,
                         testing::Values(HLSForm::TransportStream, HLSForm::Encrypted, HLSForm::SingleFile,
                                         HLSForm::FragmentedWithGroups),
                         nameOf);

TEST_F(HLS, SelectorsChooseTheVariantAndTheRenditions) {
  const HLSMedia media = makeHLSMedia(HLSForm::FragmentedWithGroups);
  NginxServer nginx(media.directory);
  const std::string url = nginx.url("/" + media.master);
  ASSERT_TRUE(succeeds({"download", url, "--video", "100p", "--audio", "de", "--text", "en"}));
  std::set<std::string> folders;
  for (const AccessLogEntry& entry : nginx.accessLog())
    if (const auto slash = entry.uri.rfind('/'); slash > 0)
      folders.insert(entry.uri.substr(0, slash));
  EXPECT_EQ(folders, (std::set<std::string>{"/90", "/de", "/text-en"}));
  EXPECT_TRUE(refused(run({"download", url, "--audio", "fr"}), {"fr"}));
  EXPECT_TRUE(succeeds({"remove", identifier()}));
  EXPECT_EQ(list().size(), 0u);
  EXPECT_THAT(filesBelow(library() + "/HLSDownloader"), IsEmpty());
}

TEST_F(HLS, AMediaPlaylistGivenDirectly) {
  const HLSMedia media = makeHLSMedia(HLSForm::TransportStream);
  NginxServer nginx(media.directory);
  const std::string url = nginx.url("/90/media.m3u8");
  EXPECT_EQ(runProgram({"inspect", url}).status, 0);
  ASSERT_TRUE(succeeds({"download", url}));
  EXPECT_GT(decodedSeconds(localPath() + "/master.m3u8", {"v", "a"}), 3.4);

  const std::string damaged = localPath();
  for (const std::string& name : filesBelow(damaged))
    if (name.ends_with(".ts"))
      fs::resize_file(damaged + "/" + name, 10);
  ProgramResult verified = run({"verify", identifier()});
  EXPECT_EQ(verified.status, 1);
  EXPECT_THAT(verified.out, HasSubstr("NOT whole"));
  EXPECT_TRUE(succeeds({"download", url})) << "fetches again what is damaged";
  EXPECT_TRUE(succeeds({"verify", identifier()}));
}

TEST_F(HLS, AProtectedOriginSeesTheHeadersOnEveryRequest) {
  const auto protect = [this](const std::string& path, const std::string& content) {
    server.handle(path, [content](const ServerRequest& request, ServerConnection& connection) {
      const bool known = request.header("Authorization") == "Bearer t";
      FaultServer::reply(known ? 200 : 403, {}, known ? content : "")(request, connection);
    });
  };
  protect("/m.m3u8", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1000,RESOLUTION=32x18\nv.m3u8\n");
  protect("/v.m3u8", "#EXTM3U\n#EXT-X-TARGETDURATION:4\n#EXTINF:4,\na.ts\n#EXT-X-ENDLIST\n");
  protect("/a.ts", "aaaa");
  const std::string url = server.url("/m.m3u8"), header = "Authorization: Bearer t";
  EXPECT_EQ(runProgram({"inspect", url}).status, 1);
  for (const char* command : {"inspect", "resources"})
    EXPECT_TRUE(endedWell(runProgram({command, url, "--header", header}))) << command;
  EXPECT_TRUE(succeeds({"download", url, "--header", header}));
}

TEST_F(HLS, AnInterruptedDownloadIsPaused) {
  server.serve("/m.m3u8", {"#EXTM3U\n#EXT-X-TARGETDURATION:4\n#EXTINF:4,\n/a.ts\n#EXT-X-ENDLIST\n", "", ""});
  server.serve("/a.ts", {std::string(100'000, 'a'), "\"a\"", ""}, stallingAfter(100, gate));
  const auto program = start({"download", server.url("/m.m3u8")});
  ASSERT_TRUE(gate->waitUntilReached()) << errors();
  EXPECT_EQ(end(*program, SIGINT), 130);
  EXPECT_EQ(state(), "paused");
  EXPECT_EQ(list()[0]["error"], json());
}

TEST_F(HLS, BadInputGetsOneClearErrorAndLeavesNothing) {
  const std::string key = "#EXT-X-KEY:METHOD=AES-128,URI=\"/none.key\"\n", end = "#EXT-X-ENDLIST\n";
  const std::string segment = "#EXTINF:4,\n/a.ts\n", head = "#EXTM3U\n#EXT-X-TARGETDURATION:4\n";
  server.serve("/a.ts", {std::string(1000, 'a'), "\"a\"", ""});
  struct Row {
    const char* path;
    std::string text;
    const char* says;
    bool keeps;
  };
  const std::vector<Row> rows{
      {"/html.m3u8", "<html>", "html.m3u8", false},
      {"/mixed.m3u8", head + segment + "#EXT-X-STREAM-INF:BANDWIDTH=1\nx.m3u8\n", "mixed.m3u8", false},
      {"/live.m3u8", head + segment, "live", false},
      {"/empty.m3u8", head + end, "empty.m3u8", false},
      {"/variant.m3u8", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nmissing.m3u8\n", "missing.m3u8", false},
      {"/nested.m3u8", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nvariant.m3u8\n",
       "master playlist where a media playlist", false},
      {"/key.m3u8", head + key + segment + end, "none.key", true},
      {"/segment.m3u8", head + segment + "#EXTINF:4,\n/none.ts\n" + end, "none.ts", true},
  };
  for (const Row& row : rows) {
    server.serve(row.path, {row.text, "", "", "application/vnd.apple.mpegurl"});
    const ProgramResult result = run({"download", server.url(row.path)});
    EXPECT_TRUE(refused(result, {row.says})) << row.path;
    EXPECT_EQ(list().size(), row.keeps ? 1u : 0u) << row.path << ": " << result.err;
    EXPECT_TRUE(!row.keeps || succeeds({"remove", identifier()}));
    EXPECT_THAT(filesBelow(library() + "/HLSDownloader"), IsEmpty()) << row.path;
  }
  const std::string unnamed = directory / "playlist";
  writeFile(unnamed, head + segment + end);
  EXPECT_EQ(runProgram({"inspect", unnamed}).status, 0) << "known by how it begins";
  EXPECT_TRUE(refused(runProgram({"inspect", directory / "missing.m3u8"}), {"missing.m3u8"}));
}
